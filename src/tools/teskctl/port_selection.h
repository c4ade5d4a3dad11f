/* SPDX-License-Identifier: Apache-2.0 */
/* port_selection - the ports that a command line names, or all existing ports. One thread. */
#pragma once

#include "program/port_list.h"
#include "tools/teskctl/session.h"

#include <optional>
#include <string>
#include <vector>

/* PORTS as given: lists such as "0-3,7" or "eth0,eth3", or "all". */
using ports_text = std::vector<std::string>;

/* How many port numbers are tried if there is no port map. */
inline constexpr uint32_t probed_ports = 128;

bool is_all(const ports_text &text);

/* Throws a tool_error with exit_code::usage if the text is wrong. Needs no server, so that a wrong
   list is reported first. */
void check_ports(const ports_text &text);

/* The ports in ascending order, without duplicates. "all" are those of the port map; without a map,
   those among the first 128 that exist, found by requests that leave no record in the history.
   Throws a tool_error if there is no port. Empty after a process signal. */
std::vector<uint32_t> select_ports(event_loop &loop, session &server, const ports_text &text);

/* The server's port map: interface names by port number, escaped. Nothing if there is none, or if
   it can't be used, which is reported on standard error once. */
std::optional<port_name_map> port_map();

/* The port map, or an empty one. */
port_name_map port_names();
