/* SPDX-License-Identifier: Apache-2.0 */
/* A port keeps the interface that was first found for it while that exists, whatever it is called
   by then. */
#include "tesk_module_reader/reader_ports.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <unistd.h>

namespace module_reader
{

using linux_board::configured_port;
using linux_board::link_report;
using linux_board::module_source;

static std::string name_of(const configured_port &port)
{
    return port.parent.empty() ? port.interface : port.parent + "/" + port.port_name;
}

reader_ports::reader_ports(const std::optional<linux_board::port_config> &config,
                           known_interfaces &known)
    : known_(known), is_configured_(config.has_value()), route_(NETLINK_ROUTE)
{
    if (!config) {
        find_default_ports();
        return;
    }
    for (const configured_port &one : config->ports) {
        port &added = ports_[one.number];
        added.config = one;
        added.index = known_.find(one.number, name_of(one));
        if (one.source != module_source::i2c_bus)
            continue;
        added.bus = open_bus(one.i2c_bus);
        if (added.bus < 0)
            fprintf(stderr, "tesk-module-reader: port %u: /dev/i2c-%u: %s\n", one.number,
                    one.i2c_bus, strerror(-added.bus));
    }
}

reader_ports::~reader_ports()
{
    for (const auto &[number, one] : ports_)
        if (one.bus >= 0)
            close(one.bus);
}

/* Reads the first byte of each interface's module. Numbers that an earlier reader assigned are not
   assigned to other interfaces, even if their own are gone. */
void reader_ports::find_default_ports()
{
    std::vector<link_report> all = linux_board::list_interfaces(route_);
    linux_board::sort_interfaces(all);
    static constexpr reader_request first_byte = {
        .port = 0, .address = 0x50, .bank = 0, .page = 0, .offset = 0, .length = 1, .zero = 0};
    std::map<int32_t, uint32_t> known;
    uint32_t next = 0;
    for (uint32_t number = 0; number < known_interfaces::most_ports; number++)
        if (const int32_t index = known_.find(number, {}); index != 0) {
            known[index] = number;
            next = number + 1;
        }
    for (const link_report &interface : all) {
        std::array<uint8_t, 1> byte;
        const int error = modules_.read(interface.index, first_byte, byte);
        const bool may_not = error == EPERM || error == EACCES;
        if (error == EOPNOTSUPP || (may_not && interface.parent.empty()))
            continue;
        const auto had = known.find(interface.index);
        const uint32_t number = had != known.end() ? had->second : next++;
        if (number >= known_interfaces::most_ports)
            return;
        port &added = ports_[number];
        added.config.number = number;
        added.config.interface = interface.name;
        added.index = interface.index;
        known_.set(number, {}, interface.index);
    }
}

bool reader_ports::is_taken(int32_t index) const
{
    return std::any_of(ports_.begin(), ports_.end(),
                       [index](const auto &entry) { return entry.second.index == index; });
}

bool reader_ports::find_interface(port &wanted)
{
    if (wanted.index != 0)
        return true;
    int32_t found = 0;
    for (const link_report &interface : linux_board::list_interfaces(route_)) {
        if (is_taken(interface.index))
            continue;
        if (linux_board::is_interface_of(wanted.config, interface)) {
            found = interface.index;
            break;
        }
        if (interface.index == wanted.lost)
            found = interface.index;
    }
    if (found == 0)
        return false;
    wanted.index = found;
    known_.set(wanted.config.number, is_configured_ ? name_of(wanted.config) : "", found);
    return true;
}

/* The kernel says ENODEV for an interface that is gone, but some drivers say it for a module that
   isn't there. */
int reader_ports::read_interface(port &wanted, const reader_request &request, reader_answer &answer)
{
    for (int tries = 0; tries < 2 && find_interface(wanted); tries++) {
        const int error =
            modules_.read(wanted.index, request, std::span(answer.bytes).first(request.length));
        link_report there;
        answer.interface = wanted.index;
        if (error != ENODEV || linux_board::ask_interface(route_, wanted.index, there) != ENODEV)
            return error;
        wanted.lost = wanted.index;
        wanted.index = answer.interface = 0;
    }
    return ENODEV;
}

reader_answer reader_ports::read(const reader_request &request)
{
    reader_answer answer = {};
    const auto found = ports_.find(request.port);
    answer.error = ENOENT;
    if (found == ports_.end())
        return answer;
    port &wanted = found->second;
    if (wanted.config.source == module_source::interface)
        answer.error = read_interface(wanted, request, answer);
    if (wanted.config.source == module_source::i2c_bus)
        answer.error =
            wanted.bus < 0
                ? -wanted.bus
                : read_from_bus(wanted.bus, request, std::span(answer.bytes).first(request.length));
    return answer;
}

/* A configured port that has no interface now keeps its line. */
std::string reader_ports::as_configuration()
{
    const std::vector<link_report> all = linux_board::list_interfaces(route_);
    std::string text;
    for (auto &entry : ports_) {
        port &one = entry.second;
        find_interface(one);
        const auto interface = std::find_if(all.begin(), all.end(), [&](const link_report &report) {
            return report.index == one.index;
        });
        std::string name = name_of(one.config);
        if (interface != all.end())
            name = linux_board::permanent_name(*interface, all);
        text += std::to_string(one.config.number) + " " + name + options_of(one.config) + "\n";
    }
    return text;
}

} // namespace module_reader
