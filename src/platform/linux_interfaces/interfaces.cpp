/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: list_interfaces() dumps all interfaces, again if the list changed meanwhile;
   sort_interfaces() puts them into the order of their devices, and port_of() describes one as a
   line of the configuration. */
#include "platform/linux_interfaces/interfaces.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace linux_board
{

/* The kernel answers at once or holds its lock. */
static constexpr std::chrono::seconds kernel_patience{5};

/* How often a list that changed while it was read is read again. */
static constexpr int list_tries = 10;

std::vector<link_report> list_interfaces(netlink::connection &route)
{
    std::vector<link_report> found;
    int error = EINTR;
    for (int tries = 0; tries < list_tries && error == EINTR; tries++) {
        found.clear();
        netlink::request question = link_question(0);
        error = route.ask(question, kernel_patience, [&](const netlink::message &part) {
            if (auto report = parse_link(part))
                found.push_back(std::move(*report));
        });
    }
    if (error != 0 && error != EINTR)
        throw std::system_error(error, std::generic_category(), "list of the network interfaces");
    return found;
}

int ask_interface(netlink::connection &route, int32_t index, link_report &out)
{
    netlink::request question = link_question(index);
    bool found = false;
    const int error = route.ask(question, kernel_patience, [&](const netlink::message &part) {
        if (auto report = parse_link(part); report && report->index == index) {
            out = std::move(*report);
            found = true;
        }
    });
    return error == 0 && !found ? ENODEV : error;
}

bool is_interface_of(const configured_port &port, const link_report &interface)
{
    if (!port.parent.empty())
        return port.parent == interface.parent && port.port_name == interface.port_name;
    const auto &names = interface.alternative_names;
    return port.interface == interface.name ||
           std::find(names.begin(), names.end(), port.interface) != names.end();
}

static bool stands_before(const link_report &a, const link_report &b)
{
    int order = strverscmp(a.parent.c_str(), b.parent.c_str());
    if (order == 0)
        order = strverscmp(a.port_name.c_str(), b.port_name.c_str());
    if (order == 0)
        order = strverscmp(a.name.c_str(), b.name.c_str());
    return order < 0;
}

void sort_interfaces(std::vector<link_report> &interfaces)
{
    std::sort(interfaces.begin(), interfaces.end(), stands_before);
}

std::string permanent_name(const link_report &interface, const std::vector<link_report> &all)
{
    const auto same_place = std::count_if(all.begin(), all.end(), [&](const link_report &other) {
        return other.parent == interface.parent && other.port_name == interface.port_name;
    });
    if (interface.parent.empty() || same_place > 1)
        return interface.name;
    return interface.parent + "/" + interface.port_name;
}

configured_port port_of(uint32_t number, const link_report &interface,
                        const std::vector<link_report> &all)
{
    configured_port port;
    port.number = number;
    if (permanent_name(interface, all) == interface.name) {
        port.interface = interface.name;
    } else {
        port.parent = interface.parent;
        port.port_name = interface.port_name;
    }
    return port;
}

} // namespace linux_board
