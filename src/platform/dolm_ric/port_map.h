/* SPDX-License-Identifier: Apache-2.0 */
/* port_map - writes the names of the ports to a file for other programs. Both board libraries write
   the same file: "# tesk-ports 1", then one line for each port, NUMBER<TAB>NAME, by number. */
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace board
{

/* The value of DOLM_RIC_PORT_MAP, or /run/dolm_ric/ports. */
std::string port_map_path();

/* Puts a new map at `path`, whole or not at all: readers see the old one or the new one. It has
   the group of its directory and the mode 0640. Bytes of a name that would break a line become
   '?'. On failure one line on stderr says why, an old map stays, and the result is false: the
   board works without a map. Any thread, but one at a time. */
bool write_port_map(const std::string &path, const std::map<uint32_t, std::string> &names);

} // namespace board
