/* SPDX-License-Identifier: Apache-2.0 */
/* port_list - lists of ports as text, such as "0-3,7" or "eth0,eth3". No state. */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/* The highest port number of the protocol; the lowest is 0. */
inline constexpr uint32_t highest_port = 65534;

/* Interface names by port number. */
using port_name_map = std::map<uint32_t, std::string>;

/* The ports of all lists, in ascending order, without duplicates. A port is given by its number or
   by its name in `names`. Throws a tool_error with exit_code::usage for a text that isn't a list of
   ports. */
std::vector<uint32_t> parse_ports(const std::vector<std::string> &lists,
                                  const port_name_map &names = {});

/* The shortest list of these ports, which must be in ascending order. */
std::string format_ports(const std::vector<uint32_t> &ports);
