/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/dolm_ric/linux/linux_ports.h"

#include "platform/dolm_ric/core.h"
#include "platform/dolm_ric/linux/driver_logs.h"
#include "platform/dolm_ric/linux/interfaces.h"
#include "platform/dolm_ric/linux/module_decode.h"
#include "platform/dolm_ric/port_map.h"
#include "util/escape.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace linux_board
{

/* A reader that is ending with the last server refuses this one; systemd starts another for the
   retry. */
static constexpr std::chrono::milliseconds reader_restart{1000};

/* Interfaces that appeared later and were reported. */
static constexpr size_t most_left_out = 20;

/* How long a start waits until all modules have been read once, so that present ones give no
   event. */
static constexpr std::chrono::seconds first_look_patience{3};

linux_ports::linux_ports(board::port_events &events, std::string reader)
    : events_(events), reader_(std::move(reader)), modules_(*this, reader_), links_(*this)
{
}

void linux_ports::add_port(uint32_t number, const std::string &name, link_table::port_filter fits)
{
    ports_[number] = {
        .name = name, .port_name = {}, .link = {DOLM_RICRILINKSTATE_NOOPERATION, 0, 0}};
    links_.add(number, std::move(fits));
}

void linux_ports::add(const std::vector<configured_port> &ports)
{
    for (const configured_port &one : ports) {
        const std::string place = one.parent + "/" + one.port_name;
        add_port(one.number, one.parent.empty() ? one.interface : place,
                 [one](const link_report &report) { return is_interface_of(one, report); });
        ports_.at(one.number).lanes = one.lanes;
        if (one.source == module_source::none)
            continue;
        modules_.add(one.number, one.file);
        modules_.trust_sums(one.number, one.ignores_checksum);
    }
}

/* The port keeps to the interface by its place, or by its name if that isn't unique. */
void linux_ports::add_interface(uint32_t number, const link_report &interface,
                                const std::vector<link_report> &all)
{
    const bool by_name = permanent_name(interface, all) == interface.name;
    add_port(number, interface.name, [interface, by_name](const link_report &report) {
        return by_name
                   ? report.name == interface.name
                   : report.parent == interface.parent && report.port_name == interface.port_name;
    });
    modules_.add(number, {});
}

/* The reader numbers the interfaces whose module it can read; a gap is one that went away. */
std::map<uint32_t, link_report> linux_ports::default_ports(std::vector<link_report> all)
{
    std::map<uint32_t, link_report> ports;
    int error = 0;
    for (uint32_t number = 0; number < board::max_ports; number++) {
        int32_t index = modules_.interface_at_reader(number, error);
        if (error == ENOTCONN && access(reader_.c_str(), F_OK) == 0) {
            std::this_thread::sleep_for(reader_restart);
            index = modules_.interface_at_reader(number, error);
        }
        if (error == ENOENT)
            return ports;
        if (error == ENOTCONN || error == EACCES)
            break;
        for (const link_report &interface : all)
            if (interface.index == index)
                ports[number] = interface;
    }
    ports.clear();
    sort_interfaces(all);
    std::erase_if(all, [](const link_report &interface) { return interface.parent.empty(); });
    for (const link_report &interface : all)
        ports[static_cast<uint32_t>(ports.size())] = interface;
    return ports;
}

void linux_ports::add_default_ports()
{
    netlink::connection route(NETLINK_ROUTE);
    const std::vector<link_report> all = list_interfaces(route);
    for (const auto &[number, interface] : default_ports(all))
        add_interface(number, interface, all);
    for (const link_report &interface : all)
        seen_at_start_.insert(interface.index);
    has_default_ports_ = true;
}

/* The links come first, since the modules are looked for on the interfaces that were found. */
void linux_ports::start()
{
    links_.start();
    modules_.start(first_look_patience);
}

void linux_ports::stop() noexcept
{
    links_.stop();
    modules_.stop();
}

void linux_ports::refresh(uint32_t port)
{
    links_.refresh(port);
}

bool linux_ports::has_port(uint32_t port) const
{
    return ports_.contains(port);
}

/* STARTED is set whatever the link's state: an event without the bit would report the module as
   unknown. */
static dolm_ric_port_status port_record(uint32_t number, module_presence presence)
{
    uint32_t status = DOLM_RICRIPORT_STARTED;
    if (presence != module_presence::absent)
        status |= DOLM_RICRIPORT_MODINSERTED;
    if (presence == module_presence::ready)
        status |= DOLM_RICRIPORT_MODREADY;
    return {.id = board::id_of_port_0 | number, .status = status, .reserved = {}};
}

static dolm_ric_link_status link_record(uint32_t number, const link_values &link)
{
    dolm_ric_link_status record = {};
    record.id = board::id_of_port_0 | number;
    record.state = link.state;
    record.speed = link.speed;
    return record;
}

/* The lanes of a link are those between host and module. */
port_view linux_ports::port_copy::view() const
{
    return {.lanes = lanes,
            .host_lanes = lanes_of_port(port_name, link.lanes),
            .stopped = link.state == DOLM_RICRILINKSTATE_STOPPED};
}

int32_t linux_ports::read(uint32_t number, dolm_ric_port_status &out) const
{
    out = port_record(number, ports_.at(number).presence);
    return DOLM_RICERR_OK;
}

int32_t linux_ports::read(uint32_t number, dolm_ric_link_status &out) const
{
    out = link_record(number, ports_.at(number).link);
    return DOLM_RICERR_OK;
}

/* So the server tells an empty cage from a module that can't be read. */
static int32_t result_without_module(module_presence presence)
{
    return presence == module_presence::absent ? DOLM_RICERR_NOTAVAIL : DOLM_RICERR_BUSY;
}

int32_t linux_ports::read(uint32_t number, dolm_ric_module_info &out) const
{
    const port_copy &wanted = ports_.at(number);
    if (wanted.presence != module_presence::ready)
        return result_without_module(wanted.presence);
    const module_records records = make_records(wanted.contents, wanted.view());
    out = records.info;
    return records.info_result;
}

int32_t linux_ports::read(uint32_t number, dolm_ric_module_status &out) const
{
    const port_copy &wanted = ports_.at(number);
    if (wanted.presence != module_presence::ready)
        return result_without_module(wanted.presence);
    const bool is_old = std::chrono::steady_clock::now() - wanted.read_at > longest_age;
    if (is_old || wanted.contents.diagnostics == diagnostics_state::not_read) {
        modules_.diagnostics_wanted(number);
        return DOLM_RICERR_BUSY;
    }
    out = make_records(wanted.contents, wanted.view()).status;
    return DOLM_RICERR_OK;
}

/* A client that reads once will soon read again: the answer to that read has the values that this
   one requests. */
int32_t linux_ports::read(uint32_t number, dolm_ric_module_diag &out) const
{
    const port_copy &wanted = ports_.at(number);
    const auto age = std::chrono::steady_clock::now() - wanted.read_at;
    if (wanted.presence != module_presence::ready)
        return result_without_module(wanted.presence);
    if (age > module_poller::wanted_age)
        modules_.diagnostics_wanted(number);
    if (age > longest_age)
        return DOLM_RICERR_NOTAVAIL;
    const module_records records = make_records(wanted.contents, wanted.view());
    out = records.diag;
    return records.diag_result;
}

void linux_ports::link_changed(uint32_t number, const link_values &now)
{
    {
        const auto guard = events_.lock();
        ports_.at(number).link = now;
        events_.link_changed(link_record(number, now));
    }
    modules_.link_changed(number);
    modules_.look_now(number);
}

void linux_ports::link_known(uint32_t number, const link_values &now)
{
    {
        const auto guard = events_.lock();
        ports_.at(number).link = now;
    }
    modules_.look_now(number);
}

void linux_ports::interface_changed(uint32_t number, const link_report *now)
{
    if (now != nullptr) {
        const auto guard = events_.lock();
        port_copy &changed = ports_.at(number);
        changed.name = now->name;
        changed.port_name = now->port_name;
    }
    is_map_old_ = true;
    modules_.expect_logging(number, now != nullptr && logs_failed_readings(now->parent));
    modules_.look_now(number);
    modules_.set_interface(number, now == nullptr ? 0 : now->index);
}

/* Interfaces without a device, as those of containers, are not reported. */
void linux_ports::interface_left_out(const link_report &report)
{
    if (!has_default_ports_ || report.parent.empty() || seen_at_start_.contains(report.index) ||
        left_out_.size() >= most_left_out || !left_out_.insert(report.name).second)
        return;
    fprintf(stderr,
            "libdolm_ric: %s appeared after the start and is no port: restart the server, or write "
            "%s, which may name interfaces that will come\n",
            escape(report.name).c_str(), port_config_path().c_str());
}

/* The map is for people's tools; a port without an interface keeps the name that it had last. */
void linux_ports::reports_taken()
{
    if (!std::exchange(is_map_old_, false))
        return;
    std::map<uint32_t, std::string> names;
    {
        const auto guard = events_.lock();
        for (const auto &[number, one] : ports_)
            names[number] = one.name;
    }
    board::write_port_map(board::port_map_path(), names);
}

void linux_ports::module_read(uint32_t number, const module_contents &contents, time_point at)
{
    {
        const auto guard = events_.lock();
        port_copy &changed = ports_.at(number);
        changed.contents = contents;
        changed.read_at = at;
    }
    module_doubted(number, contents.doubts);
}

/* Each reason is printed once for a module, however often its memory is read. */
void linux_ports::module_doubted(uint32_t number, const std::vector<const char *> &reasons)
{
    std::vector<const char *> &reported = ports_.at(number).reported_doubts;
    for (const char *reason : reasons) {
        if (std::find(reported.begin(), reported.end(), reason) != reported.end())
            continue;
        reported.push_back(reason);
        fprintf(stderr, "libdolm_ric: port %u: %s\n", number, reason);
    }
}

void linux_ports::module_presence_changed(uint32_t number, module_presence now)
{
    const auto guard = events_.lock();
    ports_.at(number).presence = now;
    if (now == module_presence::absent)
        ports_.at(number).reported_doubts.clear();
    events_.port_changed(port_record(number, now));
}

void linux_ports::module_access_changed(int error)
{
    switch (error) {
    case 0:
        fprintf(stderr, "libdolm_ric: modules are read again\n");
        break;
    case EACCES:
        fprintf(stderr, "libdolm_ric: no module can be read: this user may not use %s\n",
                reader_.c_str());
        break;
    case EPERM:
        fprintf(stderr, "libdolm_ric: no module can be read: tesk-module-reader lacks "
                        "CAP_NET_ADMIN in this network namespace\n");
        break;
    default:
        fprintf(stderr,
                "libdolm_ric: no module can be read: there is no tesk-module-reader at %s\n",
                reader_.c_str());
        break;
    }
}

/* A set-uid program takes no settings from its caller. */
static const char *reader_address()
{
    const char *value = secure_getenv(READER_SOCKET_ENV);
    return value != nullptr && *value != '\0' ? value : READER_SOCKET;
}

/* Nothing without a file. */
static std::optional<port_config> read_config()
{
    const std::string path = port_config_path();
    const int fd = open_port_config(path);
    if (fd < 0 && errno == ENOENT) {
        if (path != default_port_config)
            fprintf(stderr, "libdolm_ric: %s: no such file; the ports are all interfaces\n",
                    escape(path).c_str());
        return std::nullopt;
    }
    if (fd < 0)
        throw board::board_error(path + ": " + strerror(errno));
    port_config config = read_port_config(fd, path);
    close(fd);
    for (const std::string &message : config.messages)
        fprintf(stderr, "libdolm_ric: %s\n", message.c_str());
    return config;
}

} // namespace linux_board

std::unique_ptr<board::port_source> board::make_port_source(core &events)
{
    try {
        const auto config = linux_board::read_config();
        auto ports =
            std::make_unique<linux_board::linux_ports>(events, linux_board::reader_address());
        if (config)
            ports->add(config->ports);
        else
            ports->add_default_ports();
        return ports;
    } catch (const std::system_error &error) {
        throw board_error(error.what());
    }
}
