/* SPDX-License-Identifier: Apache-2.0 */
/* A port keeps the interface that was first found for it as long as the interface exists, even if
   it is renamed. */
#include "tesk_module_reader/reader_ports.h"

#include "tesk_module_reader/saved_numbers.h"
#include "util/module_addresses.h"

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

/* The loopback interface, which every namespace has and which has no module. */
static constexpr int32_t loopback = 1;

static constexpr reader_request first_byte = {.port = 0,
                                              .address = identity_address,
                                              .bank = 0,
                                              .page = 0,
                                              .offset = 0,
                                              .length = 1,
                                              .zero = 0};

reader_ports::reader_ports(const std::optional<linux_board::port_config> &config,
                           known_interfaces &known, const std::string &saved, bool is_saving)
    : known_(known), checksum_(config ? config->checksum : linux_board::no_port_config),
      route_(NETLINK_ROUTE)
{
    if (!config) {
        find_default_ports(saved, is_saving);
        return;
    }
    for (const configured_port &one : config->ports) {
        port &added = ports_[one.number];
        added.config = one;
        added.index = known_.find(one.number, name_of(one));
        if (one.source != module_source::i2c_bus)
            continue;
        const int bus = open_bus(one.i2c_bus);
        added.bus.reset(bus);
        added.bus_error = std::max(-bus, 0);
        if (added.bus_error != 0)
            fprintf(stderr,
                    "tesk-module-reader: port %u: its module can't be read: /dev/i2c-%u: %s\n",
                    one.number, one.i2c_bus, strerror(added.bus_error));
    }
}

/* Some drivers refuse a single interface, such as a virtual function: it has no module then. The
   right counts as missing only if the loopback interface, which has no driver, gives the same
   error. */
int reader_ports::read_module(int32_t index, const reader_request &request, std::span<uint8_t> out)
{
    const int error = modules_.read(index, request, out);
    std::array<uint8_t, 1> byte;
    const bool is_refused = error == EPERM || error == EACCES;
    if (!is_refused)
        return error;
    return modules_.read(loopback, first_byte, byte) == error ? EPERM : EOPNOTSUPP;
}

/* After the numbered ports, adds the interfaces whose driver can read modules, even if no module is
   present. False without the right to read: then it isn't known which drivers can. */
bool reader_ports::add_new_ports(std::vector<configured_port> &ports,
                                 const std::vector<link_report> &all)
{
    bool may_read = true;
    uint32_t next = ports.empty() ? 0 : ports.back().number + 1;
    for (const link_report &interface : all) {
        std::array<uint8_t, 1> byte;
        const bool is_known = std::any_of(ports.begin(), ports.end(), [&](const auto &one) {
            return known_.find(one.number, name_of(one)) == interface.index ||
                   linux_board::is_interface_of(one, interface);
        });
        const int error = is_known ? 0 : read_module(interface.index, first_byte, byte);
        may_read = may_read && error != EPERM;
        if (is_known || error == EOPNOTSUPP || (error == EPERM && interface.parent.empty()) ||
            next >= known_interfaces::most_ports)
            continue;
        ports.push_back(linux_board::port_of(next++, interface, all));
    }
    return may_read;
}

/* known_ has the interfaces that an earlier reader of the same server found, so that a port keeps
   its interface even if that was renamed. */
void reader_ports::find_default_ports(const std::string &saved, bool is_saving)
{
    std::vector<link_report> all = linux_board::list_interfaces(route_);
    linux_board::sort_interfaces(all);
    std::vector<configured_port> ports = load_numbers(saved);
    const size_t saved_count = ports.size();
    const bool may_read = add_new_ports(ports, all);
    if (is_saving && may_read && ports.size() > saved_count)
        save_numbers(saved, ports);
    for (const configured_port &one : ports) {
        port &added = ports_[one.number];
        added.config = one;
        added.index = known_.find(one.number, name_of(one));
        take_interface(added, all);
    }
}

bool reader_ports::is_taken(int32_t index) const
{
    return std::any_of(ports_.begin(), ports_.end(),
                       [index](const auto &entry) { return entry.second.index == index; });
}

bool reader_ports::take_interface(port &wanted, const std::vector<link_report> &all)
{
    if (wanted.index != 0)
        return true;
    int32_t found = 0;
    for (const link_report &interface : all) {
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
    known_.set(wanted.config.number, name_of(wanted.config), found);
    return true;
}

bool reader_ports::find_interface(port &wanted)
{
    return wanted.index != 0 || take_interface(wanted, linux_board::list_interfaces(route_));
}

/* The kernel gives ENODEV for an interface that no longer exists, and some drivers for a missing
   module. */
int reader_ports::read_interface(port &wanted, const reader_request &request, reader_answer &answer)
{
    for (int tries = 0; tries < 2 && find_interface(wanted); tries++) {
        const int error =
            read_module(wanted.index, request, std::span(answer.bytes).first(request.length));
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
    if (request.address == READER_ITSELF) {
        static_assert(sizeof(checksum_) == READER_CHECKSUM_LENGTH);
        memcpy(answer.bytes, &checksum_, sizeof(checksum_));
        return answer;
    }
    const auto found = ports_.find(request.port);
    answer.error = ENOENT;
    if (found == ports_.end())
        return answer;
    port &wanted = found->second;
    if (wanted.config.source == module_source::interface)
        answer.error = read_interface(wanted, request, answer);
    if (wanted.config.source == module_source::i2c_bus)
        answer.error = wanted.bus_error != 0
                           ? wanted.bus_error
                           : read_from_bus(wanted.bus.get(), request,
                                           std::span(answer.bytes).first(request.length));
    return answer;
}

/* A configured port keeps its line even if it has no interface now. */
std::string reader_ports::as_configuration()
{
    const std::vector<link_report> all = linux_board::list_interfaces(route_);
    std::string text;
    for (auto &entry : ports_) {
        port &one = entry.second;
        take_interface(one, all);
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
