/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: set() passes ports and their names to the followers of links and of modules. The
   followers report on their own threads, under the lock of the events, and read() answers from the
   copies that the reports updated. */
#include "platform/dolm_ric/linux/linux_ports.h"

#include "platform/dolm_ric/core.h"
#include "platform/dolm_ric/details_record.h"
#include "platform/dolm_ric/fall_files.h"
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/decode/module_details.h"
#include "platform/dolm_ric/linux/record_updates.h"
#include "platform/dolm_ric/port_map.h"
#include "platform/linux_interfaces/driver_logs.h"
#include "platform/linux_interfaces/interfaces.h"
#include "util/boot_clock.h"
#include "util/descriptor.h"
#include "util/escape.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace linux_board
{

/* A reader that is ending with the previous server refuses this one; systemd starts another reader
   for the retry. */
static constexpr std::chrono::milliseconds reader_restart{1000};
static constexpr int reader_tries = 5;

/* The most interfaces that appeared later and are reported on stderr. */
static constexpr size_t most_left_out = 20;

static constexpr board::fall_rules rules_of_falls = {.oldest_look = oldest_before_fall,
                                                     .youngest_look = longest_delay};

/* How long a start waits until all modules have been read once, so that modules already present
   cause no event. */
static constexpr std::chrono::seconds first_look_patience{3};

linux_ports::linux_ports(board::port_events &events, std::string reader)
    : events_(events), reader_(std::move(reader)), falls_(rules_of_falls),
      watch_(port_config_path()), modules_(*this, reader_), links_(*this)
{
    details_.watch([this](const dolm_ric_details_record &record) { falls_.see(record); });
}

/* Whether the error leaves open if there is a module: the module wasn't asked, or its driver can't
   read it now. Some drivers give that error for an empty cage, others for a module in use. */
static bool leaves_open(int error)
{
    return is_unanswered(error) || error == EOPNOTSUPP;
}

/* Updates the details of a port whose module isn't known. */
void linux_ports::describe_without_module(const port_copy &port)
{
    uint32_t presence = DOLM_RIC_PRESENCE_EMPTY;
    uint32_t why = DOLM_RIC_VALUE_EMPTY;
    if (port.is_out)
        presence = DOLM_RIC_PRESENCE_OUT, why = DOLM_RIC_VALUE_OUT;
    else if (port.config.source == module_source::none || port.last_error == module_is_leased)
        presence = DOLM_RIC_PRESENCE_POLLING_OFF, why = DOLM_RIC_VALUE_POLLING_OFF;
    else if (port.interface == 0)
        presence = DOLM_RIC_PRESENCE_NO_INTERFACE, why = DOLM_RIC_VALUE_UNKNOWN;
    else if (leaves_open(port.last_error))
        presence = DOLM_RIC_PRESENCE_UNKNOWN, why = DOLM_RIC_VALUE_NO_ANSWER;
    details_.update(port.config.number, [&](dolm_ric_details_record &record) {
        board::forget_module(presence, why, record);
    });
}

/* If the port is polled again, or read in another way, its details begin empty. If its module is
   read as before, they are kept, as its presence isn't reported again. */
void linux_ports::set_module(port_copy &port)
{
    const bool is_polled = !port.is_out && port.config.source != module_source::none;
    if (is_polled) {
        modules_.add(port.config.number, port.config.file);
        modules_.trust_sums(port.config.number, port.config.ignores_checksum);
    }
    modules_.set_interface(port.config.number, is_polled ? port.interface : 0);
    if (!is_polled || port.presence == module_presence::absent)
        describe_without_module(port);
}

/* Presence is reported only after modules have been looked for under the new number. */
void linux_ports::set_port(const configured_port &port)
{
    const auto found = ports_.find(port.number);
    const bool is_new = found == ports_.end();
    const bool is_same = !is_new && name_of(found->second.config) == name_of(port);
    const auto fits = [port](const link_report &report) { return is_interface_of(port, report); };
    if (!links_.change(port.number, fits, is_same)) {
        fprintf(stderr,
                "libdolm_ric: port %u was %s and doesn't become %s while the server runs: it is "
                "empty until a restart\n",
                port.number, escape(found->second.name).c_str(), escape(name_of(port)).c_str());
        return take_out(port.number);
    }
    const auto guard = events_.lock();
    port_copy &changed = ports_[port.number];
    const bool has_module_as_before =
        !is_new && !changed.is_out && changed.config.source == port.source &&
        changed.config.file == port.file && changed.config.i2c_bus == port.i2c_bus &&
        changed.config.ignores_checksum == port.ignores_checksum;
    if (is_new || changed.interface == 0)
        changed.name = name_of(port);
    if (is_new)
        changed.link = {DOLM_RICRILINKSTATE_NOOPERATION, 0, 0};
    changed.config = port;
    changed.is_out = false;
    if (!has_module_as_before)
        set_module(changed);
}

void linux_ports::take_out(uint32_t number)
{
    {
        const auto guard = events_.lock();
        port_copy &gone = ports_.at(number);
        gone.is_out = true;
        set_module(gone);
    }
    falls_.leave_out(number);
    links_.take_out(number);
}

/* Ports are taken out first, since their interface may be assigned to a new number. */
void linux_ports::set(const port_config &config)
{
    std::set<uint32_t> listed;
    modules_.expect(config.checksum);
    for (const configured_port &one : config.ports)
        listed.insert(one.number);
    for (const auto &[number, one] : ports_)
        if (!listed.contains(number) && !one.is_out)
            take_out(number);
    for (const configured_port &one : config.ports)
        if (ports_.contains(one.number))
            set_port(one);
    for (const configured_port &one : config.ports)
        if (!ports_.contains(one.number))
            set_port(one);
    has_default_ports_ = false;
    is_map_old_ = true;
}

/* A gap in the numbers is an interface that has disappeared. `error` is 0 if the reader has
   returned all interfaces. */
std::map<uint32_t, link_report> linux_ports::ports_at_reader(const std::vector<link_report> &all,
                                                             int &error)
{
    std::map<uint32_t, link_report> ports;
    error = 0;
    for (uint32_t number = 0; number < board::max_ports; number++) {
        int answer = 0;
        const int32_t index = modules_.interface_at_reader(number, answer);
        if (answer == ENOENT)
            return ports;
        if (index == 0 && answer != 0 && answer != ENODEV) {
            error = answer;
            return ports;
        }
        for (const link_report &interface : all)
            if (interface.index == index)
                ports[number] = interface;
    }
    return ports;
}

/* The reader gives numbers to the interfaces whose module it can read. */
std::map<uint32_t, link_report> linux_ports::default_ports(std::vector<link_report> all)
{
    int error = 0;
    std::map<uint32_t, link_report> ports = ports_at_reader(all, error);
    for (int tries = 1; error != 0 && error != EACCES && tries < reader_tries; tries++) {
        if (access(reader_.c_str(), F_OK) != 0)
            break;
        std::this_thread::sleep_for(reader_restart);
        ports = ports_at_reader(all, error);
    }
    if (error == 0)
        return ports;
    ports.clear();
    sort_interfaces(all);
    std::erase_if(all, [](const link_report &interface) { return interface.parent.empty(); });
    for (const link_report &interface : all)
        ports[static_cast<uint32_t>(ports.size())] = interface;
    fprintf(stderr,
            "libdolm_ric: tesk-module-reader at %s %s (%s): the ports are all %zu interfaces on a "
            "device, with or without a cage\n",
            escape(reader_).c_str(), error == EACCES ? "may not be used" : "doesn't answer",
            strerror(error), ports.size());
    return ports;
}

void linux_ports::add_default_ports()
{
    netlink::connection route(NETLINK_ROUTE);
    const std::vector<link_report> all = list_interfaces(route);
    for (const auto &[number, interface] : default_ports(all)) {
        set_port(port_of(number, interface, all));
        ports_.at(number).name = interface.name;
    }
    for (const link_report &interface : all)
        seen_at_start_.insert(interface.index);
    has_default_ports_ = true;
}

/* The links are started first, since modules are looked for on the interfaces that were found. */
void linux_ports::start()
{
    const std::string details = board::details_path(board::port_map_path());
    details_.start(details);
    fall_looks_.start([this] { return interfaces_up(); });
    falls_.start(board::falls_folder(details),
                 {.fell = [this](uint32_t number, const board::fall_recorder::up_time &its,
                                 causes::facts &seen) { look_at_fall(number, its, seen); },
                  .risen = [this](uint32_t number, int64_t since,
                                  causes::facts &seen) { look_again(number, since, seen); }});
    links_.also_watch(watch_.fd(), [this] { look_at_config(); });
    links_.start();
    modules_.start(first_look_patience);
    report_ports();
}

void linux_ports::stop() noexcept
{
    links_.stop();
    modules_.stop();
    falls_.stop();
    fall_looks_.stop();
    details_.stop();
}

void linux_ports::refresh(uint32_t port)
{
    links_.refresh(port);
}

bool linux_ports::has_port(uint32_t port) const
{
    return ports_.contains(port);
}

/* STARTED is always set, whatever the link's state: an event without the bit would report the
   module as unknown. */
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

/* The link's lanes are counted between host and module. */
port_view linux_ports::port_copy::view() const
{
    return {.lanes = config.lanes,
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

/* By these result codes the server distinguishes an empty cage from a module that can't be read. */
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
    const bool is_old = util::boot_time() - wanted.read_at > longest_age;
    if (is_old || wanted.contents.diagnostics == diagnostics_state::not_read) {
        modules_.diagnostics_wanted(number);
        return DOLM_RICERR_BUSY;
    }
    out = make_records(wanted.contents, wanted.view()).status;
    return DOLM_RICERR_OK;
}

/* A client that reads once will soon read again: this read returns the present values and requests
   new ones for the next read. */
int32_t linux_ports::read(uint32_t number, dolm_ric_module_diag &out) const
{
    const port_copy &wanted = ports_.at(number);
    const auto age = util::boot_time() - wanted.read_at;
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

void linux_ports::link_reported(uint32_t number, const link_report &now, uint32_t falls,
                                uint32_t rises, report_origin from)
{
    const bool is_reported = from == report_origin::notice;
    /* The kernel delays the report of a lost carrier for up to a second, and may report it with
       another change. */
    falls_.report_link(number, {.is_reported = is_reported,
                                .is_exact = is_reported && falls == 0,
                                .is_late = links_.is_late(),
                                .device = board::device_of(now.parent)});
    details_.update(number, [&](dolm_ric_details_record &record) {
        take_link_report(now, falls, rises, board::details_time(), record);
    });
}

void linux_ports::interface_leaves(uint32_t number, board::departure how)
{
    falls_.report_departure(number, how);
}

/* Runs on the recorder's thread. */
void linux_ports::look_at_fall(uint32_t number, const board::fall_recorder::up_time &its,
                               causes::facts &seen)
{
    int32_t interface = 0;
    std::string device;
    {
        const auto guard = events_.lock();
        interface = ports_.at(number).interface;
        device = ports_.at(number).device;
    }
    fall_looks_.look(interface, device, its.up_since, its.fell_at, seen);
}

void linux_ports::look_again(uint32_t number, int64_t since, causes::facts &seen)
{
    int32_t interface = 0;
    {
        const auto guard = events_.lock();
        interface = ports_.at(number).interface;
    }
    fall_looks_.look_again(interface, since, seen);
}

std::vector<int32_t> linux_ports::interfaces_up()
{
    std::vector<int32_t> found;
    const auto guard = events_.lock();
    for (const auto &[number, port] : ports_)
        if (port.interface != 0 && port.link.state == DOLM_RICRILINKSTATE_OPERATIONAL)
            found.push_back(port.interface);
    return found;
}

void linux_ports::speed_reported(uint32_t number, const link_speed &now)
{
    details_.update(number, [&](dolm_ric_details_record &record) {
        take_link_speed(now, board::details_time(), record);
    });
}

void linux_ports::fec_reported(uint32_t number, uint32_t fec)
{
    details_.update(number, [fec](dolm_ric_details_record &record) { take_link_fec(fec, record); });
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
    bool is_other_state = false;
    {
        const auto guard = events_.lock();
        is_other_state = std::exchange(ports_.at(number).link, now).state != now.state;
    }
    if (is_other_state)
        modules_.link_changed(number);
    modules_.look_now(number);
}

void linux_ports::interface_changed(uint32_t number, const link_report *now)
{
    const auto guard = events_.lock();
    port_copy &changed = ports_.at(number);
    changed.interface = now == nullptr ? 0 : now->index;
    if (now != nullptr) {
        changed.name = now->name;
        changed.port_name = now->port_name;
        changed.device = now->parent;
    }
    is_map_old_ = true;
    if (now == nullptr)
        details_.update(number, [](dolm_ric_details_record &record) {
            lose_interface(board::details_time(), record);
        });
    if (changed.presence == module_presence::absent)
        describe_without_module(changed);
    modules_.expect_logging(number, now != nullptr && logs_failed_readings(now->parent));
    modules_.look_now(number);
    if (changed.config.source != module_source::none)
        modules_.set_interface(number, changed.interface);
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

/* The map is used by people's tools; a port without an interface keeps its last name. */
void linux_ports::reports_taken()
{
    if (!std::exchange(is_map_old_, false))
        return;
    std::map<uint32_t, std::string> names;
    {
        const auto guard = events_.lock();
        for (const auto &[number, one] : ports_)
            if (!one.is_out)
                names[number] = one.name;
    }
    board::write_port_map(board::port_map_path(), names);
}

void linux_ports::module_leased(uint32_t number, time_point until)
{
    const std::chrono::nanoseconds end = until.time_since_epoch();
    details_.update(
        number, [end](dolm_ric_details_record &record) { record.cost.lease_until = end.count(); });
}

/* The reason for missing values after this errno. */
static uint32_t reason_of(int error)
{
    if (error == module_is_leased)
        return DOLM_RIC_VALUE_POLLING_OFF;
    return error == EBUSY ? DOLM_RIC_VALUE_BUSY : DOLM_RIC_VALUE_NO_ANSWER;
}

/* The values are dropped if their module has not answered for longer than longest_age. One failed
   reading drops nothing: the next one is made soon. */
void linux_ports::module_cost(uint32_t number, const reading_cost &cost)
{
    const auto failed =
        std::ranges::find_if(cost.pieces, [](const piece &one) { return one.error != 0; });
    const int error = failed != cost.pieces.end() ? failed->error : 0;
    bool is_old = false;
    {
        const auto guard = events_.lock();
        port_copy &its = ports_.at(number);
        is_old = util::boot_time() - its.read_at > longest_age;
        const int before = std::exchange(its.last_error, error);
        const bool is_other = leaves_open(before) != leaves_open(error) ||
                              (before == module_is_leased) != (error == module_is_leased);
        if (is_other && its.presence == module_presence::absent)
            describe_without_module(its);
    }
    details_.update(number, [&](dolm_ric_details_record &record) {
        if (error != module_is_leased)
            take_cost(cost, record);
        if (error != 0 && is_old)
            lose_values(reason_of(error), record);
    });
}

void linux_ports::reading_doubted(uint32_t number, const module_memory &memory,
                                  const module_contents &contents)
{
    details_.update(number,
                    [&](dolm_ric_details_record &record) { take_flags(memory, contents, record); });
}

void linux_ports::reading_dropped(uint32_t number)
{
    details_.update(number, [](dolm_ric_details_record &record) { record.cost.dropped++; });
}

void linux_ports::module_sampled(uint32_t number, const module_memory &memory,
                                 const module_contents &contents)
{
    port_view view;
    {
        const auto guard = events_.lock();
        view = ports_.at(number).view();
    }
    details_.update(number, [&](dolm_ric_details_record &record) {
        take_module(memory, contents, view, record);
    });
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

/* Each reason is printed once per module, however often the module's memory is read. */
void linux_ports::module_doubted(uint32_t number, const std::vector<const char *> &reasons)
{
    std::vector<const char *> news;
    {
        const auto guard = events_.lock();
        std::vector<const char *> &reported = ports_.at(number).reported_doubts;
        std::copy_if(reasons.begin(), reasons.end(), std::back_inserter(news),
                     [&](const char *reason) { return std::ranges::count(reported, reason) == 0; });
        reported.insert(reported.end(), news.begin(), news.end());
    }
    for (const char *reason : news)
        fprintf(stderr, "libdolm_ric: port %u: %s\n", number, reason);
}

void linux_ports::module_presence_changed(uint32_t number, module_presence now)
{
    const auto guard = events_.lock();
    port_copy &changed = ports_.at(number);
    changed.presence = now;
    if (now == module_presence::absent) {
        changed.reported_doubts.clear();
        describe_without_module(changed);
    } else {
        const uint32_t why = reason_of(changed.last_error);
        details_.update(number, [now, why](dolm_ric_details_record &record) {
            set_presence(now == module_presence::ready, why, board::details_time(), record);
        });
    }
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

/* A set-uid program ignores the settings of its caller. */
static const char *reader_address()
{
    const char *value = secure_getenv(READER_SOCKET_ENV);
    return value != nullptr && *value != '\0' ? value : READER_SOCKET;
}

/* Nothing if there is no file. Throws a board_error if it can't be read. */
static std::optional<port_config> read_config()
{
    const std::string path = port_config_path();
    const util::descriptor file(open_port_config(path));
    if (!file.is_open() && errno == ENOENT)
        return std::nullopt;
    if (!file.is_open())
        throw board::board_error(path + ": " + strerror(errno));
    port_config config = read_port_config(file.get(), path);
    for (const std::string &message : config.messages)
        fprintf(stderr, "libdolm_ric: %s\n", message.c_str());
    return config;
}

/* A file without any port is treated as a mistake and ignored. */
void linux_ports::look_at_config()
{
    if (!watch_.has_changed())
        return;
    const std::string path = escape(port_config_path());
    try {
        const auto config = read_config();
        if (config && !config->ports.empty()) {
            set(*config);
            return report_ports();
        }
        fprintf(
            stderr,
            "libdolm_ric: %s %s: the ports stay as they are; mend it or restart tesk-server, as "
            "a tesk-module-reader that starts now can't serve them\n",
            path.c_str(), config ? "lists no port" : "is gone");
    } catch (const board::board_error &error) {
        fprintf(stderr, "libdolm_ric: %s: the ports stay as they are\n", error.what());
    }
}

/* If stderr is the journal, which systemd names by device and inode, this prefix marks a line as
   information instead of an error. */
static const char *information_prefix()
{
    const char *journal = secure_getenv("JOURNAL_STREAM");
    struct stat status = {};
    const bool is_journal =
        journal != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
        std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == journal;
    return is_journal ? "<6>" : "";
}

void linux_ports::report_ports()
{
    const std::string path = escape(port_config_path());
    size_t ports = 0;
    size_t modules = 0;
    bool has_had_ports = false;
    {
        const auto guard = events_.lock();
        has_had_ports = !ports_.empty();
        for (const auto &[number, one] : ports_) {
            ports += one.is_out ? 0 : 1;
            modules += one.presence == module_presence::absent ? 0 : 1;
        }
    }
    if (ports == 0 && has_default_ports_)
        fprintf(stderr,
                "libdolm_ric: there is no port: there is no %s, and of %zu network interfaces none "
                "has a module that its driver can read\n",
                path.c_str(), seen_at_start_.size());
    else if (ports == 0)
        fprintf(stderr, "libdolm_ric: there is no port: %s %s\n", path.c_str(),
                has_had_ports ? "gives each number another interface than it had"
                              : "has no right line");
    else
        fprintf(stderr, "%slibdolm_ric: %zu port%s by %s%s, %zu with a module\n",
                information_prefix(), ports, ports == 1 ? "" : "s",
                has_default_ports_ ? "device, as there is no " : "", path.c_str(), modules);
}

} // namespace linux_board

std::unique_ptr<board::port_source> board::make_port_source(core &events)
{
    try {
        const auto config = linux_board::read_config();
        auto ports =
            std::make_unique<linux_board::linux_ports>(events, linux_board::reader_address());
        if (config)
            ports->set(*config);
        else
            ports->add_default_ports();
        return ports;
    } catch (const std::system_error &error) {
        throw board_error(error.what());
    }
}
