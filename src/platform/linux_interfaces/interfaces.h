/* SPDX-License-Identifier: Apache-2.0 */
/* interfaces - the network interfaces of this network namespace, and which of them a port is.
   Library and reader both number ports by these functions. Questions wait for the kernel's lock. */
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

/* One interface by its index: 0, or an errno, ENODEV if there is none. */
int ask_interface(netlink::connection &route, int32_t index, link_report &out);

/* Whether an interface is the one that the configuration names for the port. */
bool is_interface_of(const configured_port &port, const link_report &interface);

/* Sorts by parent device, port name and name; numbers in them count as numbers. */
void sort_interfaces(std::vector<link_report> &interfaces);

/* The name in the configuration that stays valid: the interface's place, or, if that isn't unique
   among `all` or it has none, its name. */
std::string permanent_name(const link_report &interface, const std::vector<link_report> &all);
/* The port with that number and name. */
configured_port port_of(uint32_t number, const link_report &interface,
                        const std::vector<link_report> &all);

} // namespace linux_board
