/* SPDX-License-Identifier: Apache-2.0 */
/* link_listener - a minimal program that follows links: it waits for the kernel's messages and
   prints a line for each. */
#include "platform/linux_interfaces/link_report.h"
#include "platform/linux_interfaces/netlink.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <linux/rtnetlink.h>
#include <poll.h>

static void follow()
{
    netlink::connection notices(NETLINK_ROUTE);
    notices.join(RTNLGRP_LINK);
    for (;;) {
        auto next = notices.receive();
        if (next.error == EAGAIN) {
            pollfd wanted = {notices.fd(), POLLIN, 0};
            poll(&wanted, 1, -1);
            continue;
        }
        while (const auto notice = netlink::take_message(next.datagram))
            if (const auto report = linux_board::parse_link(*notice))
                printf("%s %s\n", report->name.c_str(), report->operational ? "up" : "down");
        fflush(stdout);
    }
}

int main()
{
    try {
        follow();
    } catch (const std::exception &error) {
        fprintf(stderr, "link_listener: %s\n", error.what());
    }
    return 1;
}
