/* SPDX-License-Identifier: Apache-2.0 */
/* interfaces - the network interfaces of this network namespace, and the port that each one is.
   Library and reader number the ports with the same functions. Requests wait for the kernel's lock.
   No state. */
#pragma once

#include "platform/linux_interfaces/link_report.h"
#include "platform/linux_interfaces/netlink.h"
#include "platform/linux_interfaces/port_config.h"

#include <cstdint>
#include <string>
#include <vector>

namespace linux_board
{

/* All interfaces, in no order. Throws a std::system_error. */
std::vector<link_report> list_interfaces(netlink::connection &route);

/* Reads one interface by its index. Returns 0, or an errno: ENODEV if there is none. */
int ask_interface(netlink::connection &route, int32_t index, link_report &out);

/* Whether the configuration's line for the port names this interface. */
bool is_interface_of(const configured_port &port, const link_report &interface);

/* Sorts by parent device, port name and name; numbers in them count as numbers. */
void sort_interfaces(std::vector<link_report> &interfaces);

/* The name for the configuration that doesn't change: the interface's place; or, if it has no place
   or `all` have another interface there, its name. */
std::string permanent_name(const link_report &interface, const std::vector<link_report> &all);
/* The port with this number, as a line of the configuration would name it. */
configured_port port_of(uint32_t number, const link_report &interface,
                        const std::vector<link_report> &all);

} // namespace linux_board
