/* SPDX-License-Identifier: Apache-2.0 */
/* port_selection - the ports that a command line names, or all that exist. One thread. */
#pragma once

#include "program/port_list.h"
#include "tools/teskctl/session.h"

#include <optional>
#include <string>
#include <vector>

/* PORTS as given: lists such as "0-3,7" or "eth0,eth3", or "all". */
using ports_text = std::vector<std::string>;

/* How many port numbers are tried where no port map says which exist. */
inline constexpr uint32_t probed_ports = 128;

bool is_all(const ports_text &text);

/* Throws a tool_error with exit_code::usage if the text is wrong. Needs no server, so that a wrong
   list is reported before anything else. */
void check_ports(const ports_text &text);

/* The ports in ascending order, each once. "all" are those of the port map; without a map those
   that exist among the first 128, found by requests that leave no history. Throws a tool_error if
   none is found. Empty if a process signal came. */
std::vector<uint32_t> select_ports(event_loop &loop, session &server, const ports_text &text);

/* The server's port map: interface names by port number, escaped. Nothing where there is none, or
   where it is wrong or can't be read, which is reported on standard error once. */
std::optional<port_name_map> port_map();

/* That map; empty where there is none. */
port_name_map port_names();
