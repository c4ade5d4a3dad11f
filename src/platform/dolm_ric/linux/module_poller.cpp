/* SPDX-License-Identifier: Apache-2.0 */
/* A port is empty, or its module is being identified, or the module is in use. One task at a time
   is made for a port, the one that is due; up to 16 short readings of several ports travel
   together, which saves most of the switches between the two processes.

   A port whose identity bytes changed goes back to being identified, while its old module stays
   reported: the change may have been a disturbed reading. Only when another identity has been read,
   or nothing sensible for a second, is the old module reported as removed. */
#include "platform/dolm_ric/linux/module_poller.h"

#include "platform/dolm_ric/linux/module_decode.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace linux_board
{

using namespace std::chrono_literals;

static constexpr auto look_interval = 1s;
static constexpr auto hint_spacing = 200ms;      /* between two looks, however many hints come */
static constexpr auto diagnostics_interval = 4s; /* the values are at most 5 s old */
static constexpr auto after_link_change = 500ms;
static constexpr auto insertion_time = 300ms; /* modules need it before they answer reliably */
static constexpr auto settle_time = 200ms;    /* as for links */
static constexpr auto confirm_time = 100ms;
static constexpr auto unlikely_interval = 60s; /* for a port without a cage, or that only fails */
static constexpr auto reader_interval = 1s;
static constexpr auto lost_time = 15s; /* a module that can't be read for so long isn't ready */

static constexpr auto slow_piece = 25ms; /* 32 bytes need 3.5 ms at 100 kHz */
static constexpr int fast_tries = 10;
static constexpr int medium_tries = 12;
static constexpr uint32_t failures_when_empty = 2;
static constexpr uint32_t failures_when_broken = 5;

enum class stage : uint8_t { empty, identifying, in_use };
enum class task_kind : uint8_t { look, identity, diagnostics };

struct module_poller::polled {
    uint32_t number = 0;
    bool by_reader = true;
    int32_t interface = 0;
    stage where = stage::empty;
    module_presence reported = module_presence::absent;
    module_memory memory;                      /* of the module that is identified or in use */
    std::vector<memory_range> refused;         /* optional ranges that it doesn't have */
    std::optional<dolm_sfp_info> old_identity; /* of a module that may still be there */
    int tries = 0;                             /* to identify it */
    uint32_t failures = 0;                     /* one after the other */
    bool was_looked_at = false;
    bool is_apart = true;
    time_point looked_at = {};
    time_point look_due = {};
    time_point identity_due = {};
    time_point diagnostics_due = {};
    time_point diagnostics_at = {};
    time_point answered_at = {};
    time_point reported_at = {};
    std::optional<time_point> queued_at = {};
};

/* A range and its pieces, which stand together in the packet. */
struct ranged {
    memory_range range;
    size_t first = 0;
    size_t count = 0;
};

struct module_poller::task {
    polled *port;
    task_kind kind;
    std::vector<ranged> ranges = {};
    std::vector<piece> pieces = {};

    bool add(const reading_step &step);
    int error_of(const ranged &read) const;
    std::vector<uint8_t> bytes_of(const ranged &read) const;
};

/* False if the range doesn't fit any more. */
bool module_poller::task::add(const reading_step &step)
{
    const memory_range &range = step.range;
    const size_t count = (range.length + longest_piece - 1u) / longest_piece;
    if (pieces.size() + count > most_pieces)
        return false;
    ranges.push_back({range, pieces.size(), count});
    for (size_t done = 0; done < range.length; done += longest_piece) {
        memory_range part = range;
        part.offset = static_cast<uint8_t>(range.offset + done);
        part.length = static_cast<uint8_t>(std::min<size_t>(longest_piece, range.length - done));
        pieces.push_back({.port = port->number, .range = part});
    }
    return true;
}

int module_poller::task::error_of(const ranged &read) const
{
    for (size_t i = read.first; i < read.first + read.count; i++) {
        const piece &part = pieces[i];
        if (part.error != 0)
            return part.error;
        if (part.interface != 0 && part.interface != port->interface)
            return ESTALE;
    }
    return 0;
}

std::vector<uint8_t> module_poller::task::bytes_of(const ranged &read) const
{
    std::vector<uint8_t> bytes;
    for (size_t i = read.first; i < read.first + read.count; i++)
        bytes.insert(bytes.end(), pieces[i].bytes.begin(),
                     pieces[i].bytes.begin() + pieces[i].range.length);
    return bytes;
}

module_poller::module_poller(module_access &access, module_listener &listener, clock now)
    : access_(access), listener_(listener), now_(std::move(now))
{
}

module_poller::~module_poller() = default;

void module_poller::add(uint32_t port, bool by_reader)
{
    polled &added = ports_[port];
    added.number = port;
    added.by_reader = by_reader;
    schedule(added);
}

void module_poller::set_interface(uint32_t port, int32_t index)
{
    const auto found = ports_.find(port);
    if (found == ports_.end() || found->second.interface == index)
        return;
    polled &changed = found->second;
    if (changed.interface != 0)
        remove_module(changed);
    changed.interface = index;
    changed.was_looked_at = false;
    changed.look_due = now_();
    schedule(changed);
}

void module_poller::hint()
{
    const time_point now = now_();
    for (auto &[number, port] : ports_) {
        if (port.is_apart)
            continue;
        port.look_due = std::min(port.look_due, std::max(now, port.looked_at + hint_spacing));
        schedule(port);
    }
}

void module_poller::link_changed(uint32_t port)
{
    const auto found = ports_.find(port);
    if (found == ports_.end())
        return;
    const time_point due = now_() + after_link_change;
    found->second.diagnostics_due = std::min(found->second.diagnostics_due, due);
    schedule(found->second);
}

void module_poller::diagnostics_wanted(uint32_t port)
{
    const auto found = ports_.find(port);
    const time_point now = now_();
    if (found == ports_.end() || now - found->second.diagnostics_at < wanted_age)
        return;
    found->second.diagnostics_due = std::min(found->second.diagnostics_due, now);
    schedule(found->second);
}

/* A port is in one queue, by the earliest of what it has to do; in none while it has no interface.
 */
void module_poller::schedule(polled &port)
{
    if (port.queued_at) {
        prompt_queue_.erase({*port.queued_at, port.number});
        apart_queue_.erase({*port.queued_at, port.number});
        port.queued_at.reset();
    }
    if (port.interface == 0)
        return;
    time_point due = port.look_due;
    if (port.where == stage::identifying)
        due = std::min(due, port.identity_due);
    if (port.where == stage::in_use)
        due = std::min(due, port.diagnostics_due);
    port.queued_at = due;
    (port.is_apart ? apart_queue_ : prompt_queue_).insert({due, port.number});
}

module_poller::time_point module_poller::next_due() const
{
    time_point due = time_point::max();
    if (!prompt_queue_.empty())
        due = prompt_queue_.begin()->first;
    if (!apart_queue_.empty())
        due = std::min(due, std::max(apart_queue_.begin()->first, apart_from_));
    return settling_.empty() ? due : std::min(due, settling_.begin()->first);
}

bool module_poller::is_first_look_over() const
{
    return std::all_of(ports_.begin(), ports_.end(), [this](const auto &entry) {
        const polled &port = entry.second;
        return port.was_looked_at || port.interface == 0 || (port.by_reader && access_error_ != 0);
    });
}

static bool is_in(const std::vector<memory_range> &ranges, const memory_range &range)
{
    return std::find(ranges.begin(), ranges.end(), range) != ranges.end();
}

/* Diagnostics come before the identity bytes, which so vouch for them. */
module_poller::task module_poller::make_task(polled &port) const
{
    const time_point now = now_();
    task made = {.port = &port, .kind = task_kind::look};
    if (port.where == stage::identifying && port.identity_due <= now)
        made.kind = task_kind::identity;
    if (port.where == stage::in_use && port.diagnostics_due <= now)
        made.kind = task_kind::diagnostics;
    const bool in_use = port.where == stage::in_use;
    const std::vector<reading_step> plan =
        made.kind == task_kind::look && !in_use ? reading_plan({}) : reading_plan(port.memory);
    const auto add_if = [&](auto &&wanted) {
        for (const reading_step &step : plan)
            if (wanted(step) && !is_in(port.refused, step.range) && !made.add(step))
                return;
    };
    if (made.kind == task_kind::identity)
        add_if([&](const reading_step &step) { return !port.memory.read_at(step.range); });
    else if (!in_use)
        add_if([](const reading_step &) { return true; });
    if (made.kind == task_kind::diagnostics)
        add_if([](const reading_step &s) { return s.when == reading_time::diagnostics; });
    if (in_use)
        add_if([](const reading_step &s) { return s.when == reading_time::presence; });
    return made;
}

/* Ports that are set apart are read one at a time, so that what they cost is known. */
std::vector<module_poller::task> module_poller::choose_tasks(time_point now)
{
    std::vector<task> tasks;
    if (!apart_queue_.empty() && apart_queue_.begin()->first <= now && apart_from_ <= now) {
        tasks.push_back(make_task(ports_.at(apart_queue_.begin()->second)));
        return tasks;
    }
    size_t pieces = 0;
    for (const auto &[due, number] : prompt_queue_) {
        if (due > now)
            break;
        task next = make_task(ports_.at(number));
        pieces += next.pieces.size();
        if (pieces > most_pieces)
            break;
        tasks.push_back(std::move(next));
    }
    return tasks;
}

void module_poller::step()
{
    const time_point begin = now_();
    announce_settled(begin);
    std::vector<task> tasks = choose_tasks(begin);
    if (tasks.empty())
        return;
    std::vector<piece> pieces;
    for (const task &one : tasks)
        pieces.insert(pieces.end(), one.pieces.begin(), one.pieces.end());
    if (!pieces.empty())
        access_.read(pieces);
    size_t next = 0;
    for (task &one : tasks)
        for (piece &part : one.pieces)
            part = pieces[next++];
    take_results(tasks, now_() - begin);
}

void module_poller::take_results(std::vector<task> &tasks, duration cost)
{
    size_t count = 0;
    for (const task &one : tasks)
        count += one.pieces.size();
    const bool slow = cost > slow_piece * static_cast<int64_t>(std::max<size_t>(count, 1));
    for (task &done : tasks) {
        polled &port = *done.port;
        const bool was_known = port.was_looked_at;
        take_result(done);
        const bool fails = port.failures >= failures_when_broken ||
                           (port.failures > 0 && port.where == stage::empty);
        port.is_apart = slow || fails;
        if (port.is_apart && tasks.size() == 1)
            pause_apart(port, was_known, cost);
        schedule(port);
    }
}

void module_poller::take_result(const task &done)
{
    switch (done.kind) {
    case task_kind::look:
        return take_look(*done.port, done);
    case task_kind::identity:
        return take_identity(*done.port, done);
    case task_kind::diagnostics:
        return take_diagnostics(*done.port, done);
    }
}

/* The ports that are set apart wait in proportion to what a reading cost: briefly until each has
   been looked at once, longest for one that is known to have nothing. */
void module_poller::pause_apart(polled &port, bool was_known, duration cost)
{
    const int share = !was_known ? 1 : port.where == stage::in_use ? 3 : 9;
    apart_from_ = now_() + cost * share;
    if (port.failures >= failures_when_broken)
        port.look_due = std::max(port.look_due, now_() + unlikely_interval);
}

/* Errors that say nothing about the module. */
static bool is_unheard(int error)
{
    return error == ENOTCONN || error == EPERM || error == EACCES || error == ESTALE;
}

static bool says_empty(int error)
{
    return error == ENXIO || error == ENODEV || error == ENOENT || error == EREMOTEIO ||
           error == EOPNOTSUPP;
}

void module_poller::begin_identity(polled &port, duration wait)
{
    port.where = stage::identifying;
    port.memory.clear();
    port.refused.clear();
    port.tries = 0;
    port.identity_due = now_() + wait;
}

/* What is there at the first look has been there for a while. */
void module_poller::take_look(polled &port, const task &done)
{
    const time_point now = now_();
    port.looked_at = now;
    port.look_due = now + look_interval;
    for (const ranged &read : done.ranges)
        if (const int error = done.error_of(read))
            return take_failure(port, error);
    port.failures = 0;
    port.answered_at = now;
    note_access(port, 0);
    if (port.where == stage::empty) {
        set_presence(port, module_presence::not_ready);
        begin_identity(port, port.was_looked_at ? duration(insertion_time) : duration(0));
        return;
    }
    if (port.where != stage::in_use)
        return;
    for (const ranged &read : done.ranges) {
        const auto known = port.memory.bytes(read.range);
        const std::vector<uint8_t> bytes = done.bytes_of(read);
        if (!std::equal(bytes.begin(), bytes.end(), known.begin(), known.end())) {
            port.old_identity = decode_module(port.memory).identity;
            return begin_identity(port, duration(0));
        }
    }
    set_presence(port, module_presence::ready);
}

void module_poller::take_identity(polled &port, const task &done)
{
    const time_point now = now_();
    const std::vector<reading_step> plan = reading_plan(port.memory);
    for (const ranged &read : done.ranges) {
        const auto step = std::find_if(plan.begin(), plan.end(), [&](const reading_step &one) {
            return one.range == read.range;
        });
        const int error = done.error_of(read);
        if (error == 0) {
            port.memory.store(read.range, done.bytes_of(read), now);
        } else if (error == ECANCELED) {
            break; /* made again with the next task */
        } else if (step != plan.end() && step->optional) {
            port.refused.push_back(read.range);
        } else if (is_unheard(error)) {
            port.identity_due = now + reader_interval;
            return take_failure(port, error);
        } else {
            retry_identity(port);
            return take_failure(port, error);
        }
    }
    port.failures = 0;
    port.answered_at = now;
    note_access(port, 0);
    if (make_task(port).pieces.empty())
        finish_identity(port);
}

/* Everything that the plan wants has been read. */
void module_poller::finish_identity(polled &port)
{
    port.was_looked_at = true;
    const module_contents contents = decode_module(port.memory);
    if (!contents.ready)
        return retry_identity(port);
    const bool is_same = port.old_identity && memcmp(&*port.old_identity, &contents.identity,
                                                     sizeof(contents.identity)) == 0;
    if (port.old_identity && !is_same)
        set_presence(port, module_presence::absent);
    port.old_identity.reset();
    use_module(port, contents);
}

void module_poller::use_module(polled &port, const module_contents &contents)
{
    const time_point now = now_();
    port.where = stage::in_use;
    port.look_due = now + look_interval;
    port.diagnostics_due = now + diagnostics_interval;
    port.diagnostics_at = now;
    listener_.module_read(port.number, contents, now);
    set_presence(port, module_presence::ready);
}

/* Something answers, but not as a module. */
void module_poller::retry_identity(polled &port)
{
    port.tries++;
    port.was_looked_at = true;
    port.memory.clear();
    port.refused.clear();
    duration wait = unlikely_interval;
    if (port.tries <= fast_tries)
        wait = confirm_time;
    else if (port.tries <= fast_tries + medium_tries)
        wait = 5s;
    port.identity_due = now_() + wait;
    if (port.tries < fast_tries || !port.old_identity)
        return;
    port.old_identity.reset();
    set_presence(port, module_presence::absent);
    set_presence(port, module_presence::not_ready);
}

/* Values are taken only with the identity bytes that were read behind them. */
void module_poller::take_diagnostics(polled &port, const task &done)
{
    const time_point now = now_();
    const std::vector<reading_step> plan = reading_plan(port.memory);
    task look = done;
    std::erase_if(look.ranges, [&](const ranged &read) {
        return std::any_of(plan.begin(), plan.end(), [&](const reading_step &step) {
            return step.range == read.range && step.when == reading_time::diagnostics;
        });
    });
    port.diagnostics_due = now + diagnostics_interval;
    for (const ranged &read : done.ranges)
        if (const int error = done.error_of(read); error != 0 && error != ECANCELED) {
            port.look_due = now + look_interval;
            return take_failure(port, error);
        }
    take_look(port, look);
    if (port.where != stage::in_use)
        return;
    for (const ranged &read : done.ranges)
        port.memory.store(read.range, done.bytes_of(read), now);
    port.diagnostics_at = now;
    listener_.module_read(port.number, decode_module(port.memory), now);
}

/* What was known counts for a while. */
void module_poller::note_silence(polled &port)
{
    if (now_() - port.answered_at > lost_time && port.reported == module_presence::ready)
        set_presence(port, module_presence::not_ready);
}

void module_poller::take_failure(polled &port, int error)
{
    const time_point now = now_();
    if (is_unheard(error)) {
        note_access(port, error == ESTALE ? 0 : error);
        return note_silence(port);
    }
    note_access(port, 0);
    port.was_looked_at = true;
    if (error == EOPNOTSUPP || error == ENOENT) {
        remove_module(port);
        port.look_due = now + unlikely_interval;
        return;
    }
    if (says_empty(error) && port.where == stage::empty)
        return;
    port.failures++;
    port.look_due = std::min(port.look_due, now + confirm_time);
    if (port.failures >= (says_empty(error) ? failures_when_empty : failures_when_broken))
        remove_module(port);
}

void module_poller::remove_module(polled &port)
{
    port.where = stage::empty;
    port.memory.clear();
    port.refused.clear();
    port.old_identity.reset();
    if (port.failures < failures_when_broken)
        port.failures = 0;
    port.look_due = now_() + look_interval;
    set_presence(port, module_presence::absent);
}

void module_poller::set_presence(polled &port, module_presence now)
{
    if (port.reported == now)
        return;
    const time_point time = now_();
    if (time - port.reported_at < settle_time)
        settling_.insert({time + settle_time, port.number});
    port.reported = now;
    port.reported_at = time;
    listener_.module_presence_changed(port.number, now);
}

void module_poller::announce_settled(time_point now)
{
    while (!settling_.empty() && settling_.begin()->first <= now) {
        const uint32_t port = settling_.begin()->second;
        listener_.module_presence_changed(port, ports_.at(port).reported);
        settling_.erase(settling_.begin());
    }
}

void module_poller::note_access(const polled &port, int error)
{
    if (!port.by_reader || access_error_ == error)
        return;
    access_error_ = error;
    listener_.module_access_changed(error);
}

} // namespace linux_board
