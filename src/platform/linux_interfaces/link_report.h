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
    bool moved = false; /* deleted here, since it is in another network namespace now */
    std::string name;
    std::vector<std::string> alternative_names;
    std::string parent;    /* device on its bus, such as 0000:03:00.0; empty for virtual ones */
    std::string port_name; /* of the port on that device, such as p1; may be empty */
    bool started = false;  /* by the administrator */
    bool has_carrier = false;
    bool operational = false; /* with carrier, and the kernel lets packets through */
    /* The kernel's carrier counters, which wrap. Without them (before Linux 4.16) both are 0. */
    uint32_t rises = 0;
    uint32_t falls = 0;
};

/* Nothing for a message about anything else, such as the copies that a bridge sends of its ports:
   those lack the counters. */
std::optional<link_report> parse_link(const netlink::message &from);

/* A question for one interface; for all with an index of 0. */
netlink::request link_question(int32_t index);

} // namespace linux_board
