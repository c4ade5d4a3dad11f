/* SPDX-License-Identifier: Apache-2.0 */
/* link_report - the content of one rtnetlink message about one network interface. Pure
   functions. */
#pragma once

#include "platform/linux_interfaces/netlink.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace linux_board
{

struct link_report {
    int32_t index = 0;
    bool deleted = false;
    bool moved = false; /* deleted here because it was moved to another network namespace */
    std::string name;
    std::vector<std::string> alternative_names;
    std::string parent;    /* its device on its bus, such as 0000:03:00.0; empty for virtual ones */
    std::string port_name; /* name of the port on that device, such as p1; may be empty */
    bool started = false;  /* set up by the administrator */
    bool has_carrier = false;
    bool operational = false; /* it has a carrier, and the kernel lets packets pass */
    /* The kernel's carrier counters, which wrap. Without them (before Linux 4.16) both are 0. */
    uint32_t rises = 0;
    uint32_t falls = 0;
};

/* Nothing for any other message, such as a bridge's copy about one of its ports, which has no
   counters. */
std::optional<link_report> parse_link(const netlink::message &from);

/* A request for one interface, or for all if the index is 0. */
netlink::request link_question(int32_t index);

} // namespace linux_board
