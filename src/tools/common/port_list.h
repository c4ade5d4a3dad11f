/* SPDX-License-Identifier: Apache-2.0 */
/* port_list - ports as people write them: "0-3,7". */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/* The ports of all the lists together, in ascending order, each once. A list that can't be read is
   a tool_error of exit_code::usage. */
std::vector<uint32_t> parse_ports(const std::vector<std::string> &lists);
