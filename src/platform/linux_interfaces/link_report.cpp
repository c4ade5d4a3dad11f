/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: parse_link() parses the fixed part of a message of the kernel, then one attribute
   after the other; link_question() builds the request for such a message. */
#include "platform/linux_interfaces/link_report.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace linux_board
{

static void read_alternative_names(netlink::byte_view properties, link_report &report)
{
    while (const auto next = netlink::take_attribute(properties))
        if (next->number == IFLA_ALT_IFNAME)
            report.alternative_names.emplace_back(netlink::read_text(next->value));
}

static void read_attribute(const netlink::attribute &from, link_report &report)
{
    switch (from.number) {
    case IFLA_IFNAME:
        report.name = netlink::read_text(from.value);
        break;
    case IFLA_PARENT_DEV_NAME:
        report.parent = netlink::read_text(from.value);
        break;
    case IFLA_PHYS_PORT_NAME:
        report.port_name = netlink::read_text(from.value);
        break;
    case IFLA_PROP_LIST:
        read_alternative_names(from.value, report);
        break;
    case IFLA_CARRIER_UP_COUNT:
        report.rises = netlink::read_record<uint32_t>(from.value).value_or(0);
        break;
    case IFLA_CARRIER_DOWN_COUNT:
        report.falls = netlink::read_record<uint32_t>(from.value).value_or(0);
        break;
    case IFLA_NEW_NETNSID:
    case IFLA_NEW_IFINDEX:
        report.moved = report.deleted;
        break;
    default:
        break;
    }
}

/* The kernel updates IFF_RUNNING some time after the carrier, so a link is operational only while
   both are set. */
std::optional<link_report> parse_link(const netlink::message &from)
{
    if (from.type != RTM_NEWLINK && from.type != RTM_DELLINK)
        return std::nullopt;
    const auto info = netlink::read_record<ifinfomsg>(from.body);
    if (!info || info->ifi_family != AF_UNSPEC || info->ifi_index <= 0)
        return std::nullopt;
    link_report report;
    report.index = info->ifi_index;
    report.deleted = from.type == RTM_DELLINK;
    report.started = (info->ifi_flags & IFF_UP) != 0;
    report.has_carrier = (info->ifi_flags & IFF_LOWER_UP) != 0;
    report.operational =
        report.started && report.has_carrier && (info->ifi_flags & IFF_RUNNING) != 0;
    netlink::byte_view attributes = netlink::without_header(from.body, sizeof(*info));
    while (const auto next = netlink::take_attribute(attributes))
        read_attribute(*next, report);
    return report;
}

/* Without statistics the answer is short. */
netlink::request link_question(int32_t index)
{
    ifinfomsg which = {};
    which.ifi_index = index;
    netlink::request question(RTM_GETLINK, index == 0 ? NLM_F_DUMP : NLM_F_ACK, which);
    question.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS});
    return question;
}

} // namespace linux_board
