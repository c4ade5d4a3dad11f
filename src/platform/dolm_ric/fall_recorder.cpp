/* SPDX-License-Identifier: Apache-2.0 */
/* see() compares a port's details with the previous ones: a fall of the link begins a record with
   the looks made before the fall; later looks, and the rise, are added. work() makes three looks at
   fixed times, and writes each changed record. The looks and the files are made without the lock:
   no caller waits for the kernel or a file system. */
#include "platform/dolm_ric/fall_recorder.h"

#include "causes/facts_json.h"
#include "platform/dolm_ric/fall_files.h"
#include "util/thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <new>
#include <pthread.h>
#include <sys/timex.h>
#include <unistd.h>
#include <vector>

namespace board
{

static constexpr int64_t ms = 1'000'000;
static constexpr int64_t second = 1000 * ms;
static constexpr int64_t minute = 60 * second, hour = 60 * minute, day = 24 * hour;

/* Drivers fill the extended state late: some after their next polling round, which may take up to 2
   s. */
static constexpr int64_t looks_at[] = {0, 200 * ms, 2 * second};

/* Falls within burst_gap of each other share one record, until it is longest_burst old. */
static constexpr int64_t burst_gap = 10 * second, longest_burst = minute;

/* Falls of several ports within this time count as one event. */
static constexpr int64_t together = second;

/* An interface is set down in the same run of the kernel in which it is removed or moved. A
   set-down up to 750 ms earlier or later may belong to the removal; a later one doesn't. */
static constexpr int64_t same_deed = 250 * ms, longest_deed = 750 * ms;

/* When a link that is up again is looked at, and when its record is closed, after the rise. */
static constexpr int64_t risen_after = 3 * second, closed_after = 10 * second;
static constexpr int64_t retry_after = second;

/* A look at the module after more than this time is no evidence for the fall. */
static constexpr int64_t latest_sample = 10 * second;

/* If the thread makes the last look later than this, older messages may still be queued. */
static constexpr int64_t latest_look = 500 * ms;

/* A port whose driver takes longer to answer is looked at after the others. */
static constexpr int64_t slow_look = 100 * ms;

/* The most falls that are remembered for a port, and the most unwritten records. */
static constexpr size_t most_remembered = 256;
static constexpr size_t most_closed = 4;

static double seconds_of(int64_t ns)
{
    return std::round(static_cast<double>(ns) / static_cast<double>(ms)) / 1000;
}

fall_recorder::fall_recorder(const fall_rules &rules, clock now)
    : rules_(rules), now_(std::move(now))
{
}

fall_recorder::~fall_recorder()
{
    stop();
}

fall_recorder::port_watch *fall_recorder::find_or_make(uint32_t port)
{
    try {
        const auto found = ports_.find(port);
        if (found != ports_.end())
            return &found->second;
        return ports_.size() < most_ports ? &ports_[port] : nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void fall_recorder::report_link(uint32_t port, const link_news &news)
{
    const std::lock_guard guard(lock_);
    if (port_watch *its = find_or_make(port))
        its->news = news;
}

static void forget_departure(causes::facts &seen)
{
    seen.interface_removed.reset();
    seen.interface_moved.reset();
    seen.driver_unbound.reset();
    seen.device_removed.reset();
}

void fall_recorder::report_departure(uint32_t port, departure how)
{
    const std::lock_guard guard(lock_);
    port_watch *its = find_or_make(port);
    if (its == nullptr)
        return;
    its->left = how;
    if (its->open == nullptr)
        return;
    const int64_t after = now_() - its->open->last_at;
    if (after > longest_deed && how != departure::moved)
        its->open->seen.left_after_s = seconds_of(after);
    if (its->open->looks == std::size(looks_at)) {
        /* This is a slow removal, which had set the interface down before. */
        forget_departure(its->open->seen);
        its->open->is_changed = true;
        its->open->due = now_();
        return changed_.notify_one();
    }
    its->open->left = after <= longest_deed ? how : departure::unknown;
    its->open->is_exact &= after <= same_deed;
}

void fall_recorder::leave_out(uint32_t port)
{
    const std::lock_guard guard(lock_);
    const auto found = ports_.find(port);
    if (found == ports_.end())
        return;
    /* Another interface may later get the number of this port. */
    close(found->second);
    port_watch none;
    none.closed.swap(found->second.closed);
    found->second = std::move(none);
}

/* If there is no memory for a fall, the fall isn't recorded; nothing else fails. */
void fall_recorder::see(const dolm_ric_details_record &record)
{
    const std::lock_guard guard(lock_);
    try {
        port_watch *its = find_or_make(record.port);
        if (its == nullptr)
            return;
        const int64_t now = now_();
        const bool is_dated = record.link.changed_at != its->link.changed_at;
        see_link(*its, record.link, is_dated ? record.link.changed_at : now);
        see_module(*its, record, now);
        if (its->open == nullptr)
            return;
        its->open->seen.port = record.port;
        busy_.insert(record.port);
        if (its->open->due < next_)
            changed_.notify_one();
    } catch (const std::bad_alloc &) {
        return;
    }
}

/* A fall counts only after a rise: drivers drop the carrier of a port that is being set up, too. */
static uint64_t falls_between(const dolm_ric_details_link &before, const dolm_ric_details_link &now)
{
    const bool was_up = before.oper == DOLM_RIC_SWITCH_UP;
    const bool is_up = now.state == DOLM_RIC_VALUE_VALID && now.oper == DOLM_RIC_SWITCH_UP;
    const uint64_t counted = now.falls - before.falls, rises = now.rises - before.rises;
    if (was_up)
        return std::max<uint64_t>(counted, is_up ? 0 : 1);
    return std::min(counted, rises - std::min<uint64_t>(rises, is_up ? 1 : 0));
}

void fall_recorder::see_link(port_watch &its, const dolm_ric_details_link &now, int64_t at)
{
    const bool was_known = its.link.state == DOLM_RIC_VALUE_VALID;
    const bool was_up = was_known && its.link.oper == DOLM_RIC_SWITCH_UP;
    const bool is_up = now.state == DOLM_RIC_VALUE_VALID && now.oper == DOLM_RIC_SWITCH_UP;
    const uint64_t falls = was_known ? falls_between(its.link, now) : 0;
    for (uint64_t one = 0; one < std::min<uint64_t>(falls, most_remembered); one++)
        count(its, at);
    if (falls > 0 && is_on_)
        take_fall(its, now, at);
    if (is_up && (!was_up || falls > 0)) {
        its.is_rise_known = was_known;
        rise(its, at);
    }
    if (!is_up)
        its.up_since = 0;
    if (now.state == DOLM_RIC_VALUE_VALID)
        its.left = departure::none;
    its.link = now;
}

void fall_recorder::count(port_watch &its, int64_t at)
{
    its.falls.push_back(at);
    while (its.falls.size() > most_remembered || at - its.falls.front() > day)
        its.falls.pop_front();
}

static double count_since(const std::deque<int64_t> &falls, int64_t since)
{
    return static_cast<double>(
        std::ranges::count_if(falls, [since](int64_t at) { return at > since; }));
}

static double wall_time(int64_t ago)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return seconds_of(std::chrono::nanoseconds{now}.count() - ago);
}

/* Begins the record of a fall with the facts that are known when it is reported. */
void fall_recorder::begin(port_watch &its, const dolm_ric_details_link &now, int64_t at)
{
    close(its);
    its.open = std::make_shared<fall>();
    fall &made = *its.open;
    made.at = made.due = at;
    made.up_since = its.up_since;
    made.is_reported = its.news.is_reported;
    made.is_exact = its.news.is_exact;
    made.is_late = its.news.is_late || its.left == departure::unknown;
    made.left = its.left;
    made.seen.time = wall_time(now_() - at);
    made.seen.boot = boot_;
    made.seen.since_boot_s = seconds_of(at);
    const char *name = now.interface[0] != '\0' ? now.interface : its.link.interface;
    if (*name != '\0')
        made.seen.interface = name;
    if (!its.news.device.empty())
        made.seen.device = its.news.device;
    if (its.up_since != 0 && its.is_rise_known)
        made.seen.up_for_s = seconds_of(at - its.up_since);
    const bool is_set_down = now.admin == DOLM_RIC_SWITCH_DOWN;
    if (now.state == DOLM_RIC_VALUE_VALID && (is_set_down || made.is_reported))
        made.seen.set_down = is_set_down;
    add_link_before(its.link, made.seen);
    add_last_look(its, made);
}

/* Whether the interface was set down or has left: such a fall isn't one of a flapping link. */
static bool is_deed(const causes::facts &seen, departure left)
{
    return seen.set_down.value_or(false) || left != departure::none;
}

/* A set-down or a departure gets a record of its own, and so does the next fall. */
void fall_recorder::take_fall(port_watch &its, const dolm_ric_details_link &now, int64_t at)
{
    const bool is_set_down = now.state == DOLM_RIC_VALUE_VALID && now.admin == DOLM_RIC_SWITCH_DOWN;
    if (is_set_down)
        its.set_down_at = at;
    const bool goes_on = its.open != nullptr && at - its.open->last_at < burst_gap &&
                         at - its.open->at < longest_burst && !is_set_down &&
                         its.left == departure::none && !is_deed(its.open->seen, its.open->left);
    if (!goes_on)
        begin(its, now, at);
    fall &open = *its.open;
    if (open.looks == std::size(looks_at)) /* the link may stay down */
        open.due = std::min(open.due, at + risen_after);
    open.last_at = at;
    open.up_at = 0;
    open.is_changed = true;
    open.seen.is_up.reset();
    open.seen.down_for_s.reset();
    open.seen.falls_in_minute = count_since(its.falls, at - minute);
    open.seen.falls_in_hour = count_since(its.falls, at - hour);
    open.seen.falls_in_day = count_since(its.falls, at - day);
}

/* Presence and identity of a module stay valid until a look finds others; measured values are
   dropped after oldest_look. */
void fall_recorder::add_last_look(const port_watch &its, fall &made) const
{
    const bool is_young = its.last.at > made.at - rules_.youngest_look;
    module_sample before = is_young ? its.before : its.last;
    if (made.at - before.at > rules_.oldest_look)
        forget_values(before);
    if (is_young && its.before.at == 0)
        before.presence = DOLM_RIC_PRESENCE_UNKNOWN;
    made.lanes = before.lane_count;
    add_look_before(before, made.seen);
    its.trail.add_loss(made.at - 2 * minute, made.at - rules_.youngest_look, made.seen);
}

void fall_recorder::rise(port_watch &its, int64_t at)
{
    its.up_since = at;
    if (its.open == nullptr)
        return;
    its.open->up_at = at;
    its.open->seen.is_up = true;
    if (!its.open->is_late && !its.news.is_late)
        its.open->seen.down_for_s = seconds_of(at - its.open->last_at);
    its.open->is_changed = true;
    if (its.open->looks == std::size(looks_at))
        its.open->due = at + risen_after;
}

/* A look is new if it has newer values, or finds another module or no module. */
void fall_recorder::see_module(port_watch &its, const dolm_ric_details_record &record, int64_t now)
{
    const bool is_other =
        record.presence != its.last.presence || strcmp(its.last.serial, serial_in(record)) != 0;
    const int64_t read_at = values_read_at(record);
    if (!is_other && read_at <= its.last.at)
        return;
    module_sample found = sample_of(record);
    found.at = is_other ? now : read_at;
    if (is_other)
        its.trail.clear();
    if (const auto light = weakest_light(found))
        its.trail.add(found.at, *light);
    if (its.open != nullptr)
        take_look(*its.open, found);
    if (its.before.at == 0 || its.last.at - its.before.at >= rules_.youngest_look)
        its.before = its.last;
    its.last = found;
}

/* Lists for different numbers of lanes can't be compared. */
void fall_recorder::take_look(fall &open, module_sample found)
{
    if (found.at < open.last_at)
        return;
    if ((open.lanes != 0 && found.lane_count != open.lanes) || found.lanes_at < open.last_at)
        found.lane_count = 0; /* the lanes differ, or the values were read before the fall */
    open.lanes = std::max(open.lanes, found.lane_count);
    bool is_news =
        found.at - open.last_at <= latest_sample &&
        add_look_after(found, seconds_of(found.at - open.at), open.up_at == 0, open.seen);
    if (open.up_at != 0 && found.at >= open.up_at + risen_after && !open.is_seen_again) {
        open.is_seen_again = add_look_again(found, open.seen);
        is_news |= open.is_seen_again;
    }
    if (!is_news)
        return;
    open.is_changed = true;
    if (open.looks == std::size(looks_at))
        open.due = std::min(open.due, found.at + retry_after);
}

/* Closes the record of a fall when another fall begins. */
void fall_recorder::close(port_watch &its)
{
    if (its.open == nullptr)
        return;
    if (its.open->is_changed) {
        its.closed.push_back(std::move(its.open));
        if (its.closed.size() > most_closed)
            its.closed.pop_front();
    }
    its.open.reset();
}

/* Counts the other ports that fell and those that stayed up; a port that was set down is neither.
 */
void fall_recorder::add_neighbours(uint32_t port, const port_watch &its, fall &open) const
{
    double fell[2] = {0, 0}, stayed[2] = {0, 0}; /* ports of other devices; of the same device */
    for (const auto &[number, other] : ports_) {
        const size_t is_same = other.news.device == its.news.device ? 1 : 0;
        const bool has_fallen = std::ranges::any_of(
            other.falls, [&](int64_t at) { return std::abs(at - open.at) <= together; });
        const bool was_set_down = std::abs(other.set_down_at - open.at) <= together;
        const bool was_up = other.up_since != 0 && other.up_since <= open.at;
        if (number == port || was_set_down || (!has_fallen && !was_up))
            continue;
        (has_fallen ? fell : stayed)[is_same]++;
    }
    if (its.news.device.empty())
        return;
    open.seen.device_others_fell = fell[1];
    open.seen.device_others_stayed = stayed[1];
    open.seen.machine_others_fell = fell[0];
    open.seen.machine_others_stayed = stayed[0];
}

/* If the interface still exists, it was not removed and has its driver. If it left after a fall
   without having been set down, it left for another reason, or because of the fall. */
static void add_departure(departure left, causes::facts &seen)
{
    const bool was_set_down = seen.set_down.value_or(left == departure::removed);
    if (left == departure::unknown || (left != departure::none && !was_set_down))
        return forget_departure(seen);
    seen.interface_removed = left == departure::removed;
    seen.interface_moved = left == departure::moved;
    if (left != departure::removed)
        seen.driver_unbound = seen.device_removed = false;
    if (left == departure::moved)
        seen.device_reset = false;
}

/* A driver that sets its interface down to reset the device does so for all ports of the device: if
   another port stayed up, there was no reset. */
static bool is_set_down_alone(const causes::facts &seen, const dolm_ric_details_link &now)
{
    return seen.set_down.value_or(false) && now.state == DOLM_RIC_VALUE_VALID &&
           now.admin == DOLM_RIC_SWITCH_DOWN && seen.device_others_fell.value_or(1) == 0 &&
           seen.device_others_stayed.value_or(0) >= 1;
}

/* Drops the facts that depend on the time of the fall. */
static void forget_times(causes::facts &seen)
{
    seen.clock_error_s.reset();
    seen.settings_changed.reset();
    seen.driver_error.reset();
}

/* Adds the facts that the last look decides. A port that was empty at each look since the fall is
   an empty cage. */
void fall_recorder::finish_looks(uint32_t port, port_watch &its, fall &open)
{
    causes::facts &seen = open.seen;
    if (!seen.present_before.value_or(true) && its.last.presence == DOLM_RIC_PRESENCE_EMPTY)
        seen.present_after = false;
    if (open.is_late)
        forget_times(seen);
    else
        add_neighbours(port, its, open);
    if (open.is_reported)
        add_departure(open.left, seen);
    if (is_set_down_alone(seen, its.link))
        seen.device_reset = false;
    if (open.is_exact)
        return;
    /* If the message may contain other changes, too, these facts stay unknown. */
    seen.device_reset.reset();
    if (!open.is_reported || seen.driver_unbound.value_or(false))
        forget_departure(seen);
}

/* The bound of the clock's error, where the time service maintains one. The bound of
   systemd-timesyncd is useless: it restarts at zero with each answer of its server, however long
   the answer took. */
static void add_clock(causes::facts &seen)
{
    timex clock = {};
    constexpr double us = 1e6;
    if (access("/run/systemd/timesync/synchronized", F_OK) == 0)
        return;
    if (adjtimex(&clock) >= 0 && (clock.status & STA_UNSYNC) == 0)
        seen.clock_error_s = static_cast<double>(clock.maxerror) / us;
}

/* Takes only the facts that a board may add; the other facts may have changed during the call. */
static void take_asked(const causes::facts &asked, causes::facts &seen)
{
    seen.clock_error_s = asked.clock_error_s;
    seen.extended_state = asked.extended_state;
    seen.remote_fault = asked.remote_fault;
    seen.driver_unbound = asked.driver_unbound;
    seen.device_removed = asked.device_removed;
    seen.settings_changed = asked.settings_changed;
    seen.driver_error = asked.driver_error;
    seen.corrected_in_minute = asked.corrected_in_minute;
    seen.uncorrectable_in_minute = asked.uncorrectable_in_minute;
    seen.symbol_errors_in_minute = asked.symbol_errors_in_minute;
    seen.frame_errors_in_minute = asked.frame_errors_in_minute;
    seen.counted_for_s = asked.counted_for_s;
    seen.signal_quality_before = asked.signal_quality_before;
    seen.signal_quality_most = asked.signal_quality_most;
    seen.errors_before = asked.errors_before;
}

/* The board is called without the lock; the record may have been closed meanwhile. */
void fall_recorder::look(uint32_t port, std::unique_lock<std::mutex> &guard)
{
    const fall &before = *ports_.at(port).open;
    const int64_t at = before.at, up_since = before.up_since;
    const bool is_last = before.looks + 1 == std::size(looks_at);
    causes::facts asked = before.seen;
    guard.unlock();
    add_clock(asked);
    const int64_t began_at = now_();
    if (look_.fell)
        look_.fell(port, {up_since, at}, asked);
    const bool is_slow = now_() - began_at > slow_look;
    guard.lock();
    port_watch &its = ports_.at(port);
    its.is_slow = is_slow;
    if (its.open == nullptr || its.open->at != at)
        return;
    fall &open = *its.open;
    take_asked(asked, open.seen);
    open.looks++;
    if (is_last && began_at - at - looks_at[std::size(looks_at) - 1] > latest_look)
        open.is_reported = open.is_exact = false;
    if (is_last)
        finish_looks(port, its, open);
    open.due = is_last ? open.due : at + looks_at[open.looks];
}

/* Returns false if the link has fallen again meanwhile. */
bool fall_recorder::look_again(uint32_t port, fall &its, std::unique_lock<std::mutex> &guard)
{
    add_link_after(ports_.at(port).link, its.seen);
    const int64_t up_at = its.up_at;
    causes::facts asked = its.seen;
    guard.unlock();
    if (look_.risen)
        look_.risen(port, up_at + risen_after, asked);
    guard.lock();
    if (ports_.at(port).open.get() != &its || its.up_at != up_at)
        return false;
    its.is_changed |= its.seen.errors_again != asked.errors_again ||
                      its.seen.uncorrectable_again != asked.uncorrectable_again;
    its.seen.errors_again = asked.errors_again;
    its.seen.uncorrectable_again = asked.uncorrectable_again;
    return true;
}

/* Reports the result of writing a file; `error` is 0 if it succeeded. */
void fall_recorder::report_result(uint32_t port, int error)
{
    if (error == 0) {
        failing_.erase(port);
        if (failing_.empty())
            reported_.clear();
        return;
    }
    failing_.insert(port);
    if (reported_.insert(error).second)
        fprintf(stderr, "libdolm_ric: cannot record falls in %s/%u: %s; it is tried again\n",
                folder_.c_str(), port, strerror(error));
}

/* Writes a record. Returns false if that failed. */
bool fall_recorder::write(uint32_t port, fall &its, std::unique_lock<std::mutex> &guard)
{
    const std::string line = causes::to_json(its.seen).dump(
        -1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    const size_t files = ports_.size();
    its.is_changed = false;
    guard.unlock();
    const bool is_kept = keep_fall(folder_, port, line, its.is_written, files, taken_);
    const int error = is_kept ? 0 : errno;
    if (error == ENOENT && make_falls_folder(folder_)) /* for the next try */
        taken_ = trim_falls(folder_);
    guard.lock();
    its.is_written |= is_kept;
    its.is_changed |= !is_kept;
    report_result(port, error);
    return is_kept;
}

/* Writes the closed records, which are older than the open one. If too many can't be written, the
   oldest are dropped. */
bool fall_recorder::write_closed(uint32_t port, std::unique_lock<std::mutex> &guard)
{
    std::deque<std::shared_ptr<fall>> &closed = ports_.at(port).closed;
    while (!closed.empty()) {
        const std::shared_ptr<fall> oldest = closed.front();
        if (!write(port, *oldest, guard))
            return false;
        if (!closed.empty() && closed.front() == oldest)
            closed.pop_front();
    }
    return true;
}

/* Called after the looks: writes what has changed, and closes the record of a link that has been up
   for a while. */
void fall_recorder::settle(uint32_t port, int64_t now, std::unique_lock<std::mutex> &guard)
{
    const std::shared_ptr<fall> open = ports_.at(port).open;
    const bool has_risen = open->up_at != 0 && now >= open->up_at + risen_after;
    const bool is_over = has_risen && now >= open->up_at + closed_after;
    if (has_risen && !look_again(port, *open, guard))
        return;
    port_watch &its = ports_.at(port);
    if (is_over && !open->is_seen_again && its.last.at >= open->up_at) {
        open->is_seen_again = add_look_again(its.last, open->seen); /* no newer look exists */
        open->is_changed |= open->is_seen_again;
    }
    open->due =
        open->up_at == 0 ? INT64_MAX : open->up_at + (has_risen ? closed_after : risen_after);
    if (open->is_changed && !write(port, *open, guard))
        open->due = now + retry_after;
    else if (is_over && its.open == open)
        its.open.reset();
}

/* Makes the looks, and writes the records, that are due for one port. */
void fall_recorder::work_on(uint32_t port, int64_t now, std::unique_lock<std::mutex> &guard)
{
    const bool is_kept = write_closed(port, guard);
    while (fall *open = ports_.at(port).open.get()) {
        if (open->due > now)
            return;
        if (open->looks < std::size(looks_at))
            look(port, guard);
        else if (is_kept)
            settle(port, now, guard);
        else
            open->due = now + retry_after; /* records are written in order of time */
    }
    if (ports_.at(port).closed.empty())
        busy_.erase(port);
}

/* Includes ports that fell while work() handled others. */
int64_t fall_recorder::next_due(int64_t now) const
{
    int64_t next = INT64_MAX;
    for (const uint32_t port : busy_) {
        const port_watch &its = ports_.at(port);
        if (!its.closed.empty())
            next = std::min(next, now + (failing_.contains(port) ? retry_after : 0));
        if (its.open != nullptr)
            next = std::min(next, its.open->due);
    }
    return next;
}

/* Ports whose drivers are slow come last in the list. */
std::vector<uint32_t> fall_recorder::busy_ports() const
{
    std::vector<uint32_t> ports(busy_.begin(), busy_.end());
    std::stable_partition(ports.begin(), ports.end(),
                          [this](uint32_t port) { return !ports_.at(port).is_slow; });
    return ports;
}

void fall_recorder::work()
{
    std::unique_lock guard(lock_);
    const int64_t now = now_();
    for (const uint32_t port : busy_ports())
        work_on(port, now, guard);
}

/* Returns false if memory is exhausted. */
bool fall_recorder::try_work()
{
    try {
        work();
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

void fall_recorder::run()
{
    while (true) {
        const bool is_done = try_work();
        std::unique_lock guard(lock_);
        if (is_stopping_)
            return;
        const int64_t now = now_();
        next_ = is_done ? next_due(now) : now + retry_after;
        const int64_t wait = std::clamp<int64_t>(next_ - now, 0, minute);
        changed_.wait_for(guard, std::chrono::nanoseconds{wait});
        if (is_stopping_)
            return;
    }
}

/* Nothing where the kernel's file can't be read. */
static causes::text read_boot()
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string its;
    return file >> its && its.size() <= causes::longest_text ? causes::text(its) : std::nullopt;
}

void fall_recorder::start(const std::string &folder, lookers look, bool has_thread)
{
    folder_ = folder;
    look_ = std::move(look);
    boot_ = read_boot();
    if (!make_falls_folder(folder_))
        fprintf(stderr, "libdolm_ric: cannot make %s for falls: %s\n", folder_.c_str(),
                strerror(errno));
    taken_ = trim_falls(folder_);
    {
        const std::lock_guard guard(lock_);
        is_on_ = true;
    }
    if (has_thread)
        start_thread();
}

void fall_recorder::start_thread()
{
    try {
        thread_ = util::start_thread("port-falls", [this] { run(); });
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: no falls are recorded: no thread for them: %s\n",
                error.what());
    }
}

/* A record with looks that are still due is written with the facts known now. */
void fall_recorder::stop() noexcept
{
    {
        const std::lock_guard guard(lock_);
        is_on_ = false;
        is_stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable())
        thread_.join();
    try {
        std::unique_lock guard(lock_);
        for (const uint32_t port : busy_) {
            close(ports_.at(port));
            write_closed(port, guard);
        }
        busy_.clear();
    } catch (const std::exception &) { /* no memory */
    }
}

} // namespace board
