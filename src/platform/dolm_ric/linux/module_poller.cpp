/* SPDX-License-Identifier: Apache-2.0 */
/* A port is empty, or its module is being identified, or the module is in use. One task at a time
   is made for a port, the one that is due; up to 16 short readings of several ports travel
   together, which saves most of the switches between the two processes.

   A port whose identity bytes changed goes back to being identified, while its old module stays
   reported: the change may have been a disturbed reading. Only when another identity has been read,
   or nothing sensible for a second, is the old module reported as removed. */
#include "platform/dolm_ric/linux/module_poller.h"

#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/module_poller_internal.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace linux_board
{

using namespace std::chrono_literals;

static constexpr auto hint_spacing = 200ms; /* between two looks, however many hints come */
static constexpr auto after_link_change = 500ms;
static constexpr auto slow_piece = 25ms; /* 32 bytes need 3.5 ms at 100 kHz */
static constexpr auto cheap_piece = 1ms; /* a failure that costs less needs no bus */

/* A reading holds a lock of the kernel that others wait for. All ports that aren't set apart take a
   hundredth of the time for it together. It is looked at each half minute what they took. */
static constexpr double share_of_all = 0.01;
static constexpr auto share_window = 30s;

/* Readings due so soon are made together with those due now, which saves wake-ups. */
static constexpr auto early_by = 50ms;

refused_range *module_poller::polled::find_refused(const memory_range &range)
{
    const auto found = std::ranges::find(refused, range, &refused_range::range);
    return found == refused.end() ? nullptr : &*found;
}

module_poller::time_point module_poller::polled::due_of(const reading_step &step) const
{
    const auto found = std::ranges::find(refused, step.range, &refused_range::range);
    if (found != refused.end())
        return found->due;
    const auto read_at = memory.read_at(step.range);
    if (!read_at)
        return time_point{};
    return step.when == reading_time::slowly ? *read_at + slow_interval : time_point::max();
}

/* False if the range doesn't fit any more. */
bool module_poller::task::add(const reading_step &step)
{
    const memory_range &range = step.range;
    const size_t most = std::min(longest_piece, step.longest_piece);
    const size_t count = (range.length + most - 1) / most;
    if (pieces.size() + count > most_pieces)
        return false;
    ranges.push_back({range, pieces.size(), count});
    for (size_t done = 0; done < range.length; done += most) {
        memory_range part = range;
        part.offset = static_cast<uint8_t>(range.offset + done);
        part.length = static_cast<uint8_t>(std::min(most, range.length - done));
        pieces.push_back({.port = port->number, .range = part});
    }
    return true;
}

module_poller::task module_poller::task::behind(size_t count) const
{
    task rest = *this;
    rest.ranges.erase(rest.ranges.begin(), rest.ranges.begin() + static_cast<ptrdiff_t>(count));
    return rest;
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

void module_poller::trust_sums(uint32_t port, bool trusted)
{
    const auto found = ports_.find(port);
    if (found == ports_.end() || found->second.memory.trusts_sums() == trusted)
        return;
    polled &changed = found->second;
    changed.memory.trust_sums(trusted);
    if (changed.where != stage::empty)
        begin_identity(changed, duration(0));
    schedule(changed);
}

void module_poller::identify_again(uint32_t port)
{
    const auto found = ports_.find(port);
    if (found == ports_.end() || found->second.where != stage::in_use)
        return;
    polled &changed = found->second;
    changed.old_identity = decode_module(changed.memory).identity;
    begin_identity(changed, duration(0));
    schedule(changed);
}

void module_poller::expect_logging(uint32_t port, bool logs_failures)
{
    if (const auto found = ports_.find(port); found != ports_.end())
        found->second.logs_failures = logs_failures;
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
    changed.has_answered = false;
    changed.lost_at.reset();
    changed.was_looked_at = false;
    changed.look_due = now_();
    schedule(changed);
}

void module_poller::hint()
{
    const time_point now = now_();
    for (auto &[number, port] : ports_) {
        port.look_due = std::min(port.look_due, std::max(now, port.looked_at + hint_spacing));
        schedule(port);
    }
}

void module_poller::look_now(uint32_t port)
{
    const auto found = ports_.find(port);
    if (found == ports_.end() ||
        (found->second.where == stage::in_use && found->second.failures == 0))
        return;
    polled &its = found->second;
    const time_point soon = std::max(now_(), its.looked_at + hint_spacing);
    its.look_due = std::min(its.look_due, soon);
    its.identity_due = std::min(its.identity_due, soon);
    schedule(its);
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
    if (found == ports_.end() || now - found->second.diagnostics_at < wanted_age ||
        now - found->second.diagnostics_tried_at < wanted_age)
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
        due = std::min({due, port.diagnostics_due, port.missing_due});
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

/* Measured values and what was missing come before the identity bytes, which so vouch for them. Of
   what is missing one range is read at a time, as one that fails ends the task. */
module_poller::task module_poller::make_task(polled &port) const
{
    const time_point now = now_();
    task made = {.port = &port, .kind = task_kind::look};
    if (port.where == stage::identifying && port.identity_due <= now)
        made.kind = task_kind::identity;
    if (port.where == stage::in_use && port.diagnostics_due <= now + early_by)
        made.kind = task_kind::diagnostics;
    const bool in_use = port.where == stage::in_use;
    if (in_use && made.kind == task_kind::look && port.missing_due <= now)
        made.kind = task_kind::missing;
    const std::vector<reading_step> plan =
        made.kind == task_kind::look && !in_use ? reading_plan({}) : reading_plan(port.memory);
    const auto add_if = [&](auto &&wanted) {
        for (const reading_step &step : plan)
            if (wanted(step) && !made.add(step))
                return;
    };
    const auto is_refused = [&](const reading_step &s) {
        return port.find_refused(s.range) != nullptr;
    };
    if (made.kind == task_kind::identity)
        add_if([&](const reading_step &s) {
            return is_part_of_identity(s) && !port.memory.read_at(s.range) && !is_refused(s);
        });
    else if (!in_use)
        add_if([](const reading_step &) { return true; });
    if (made.kind == task_kind::diagnostics)
        add_if([&](const reading_step &s) {
            return s.when == reading_time::diagnostics && port.memory.read_at(s.range) &&
                   !is_refused(s);
        });
    if (made.kind == task_kind::missing)
        add_if([&](const reading_step &s) { return made.ranges.empty() && port.due_of(s) <= now; });
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
    if (prompt_queue_.empty() || prompt_queue_.begin()->first > now)
        return tasks;
    for (const auto &[due, number] : prompt_queue_) {
        if (due > now + early_by)
            break;
        if (due > now && ports_.at(number).where == stage::identifying)
            continue; /* a module that was just inserted needs the whole time */
        task next = make_task(ports_.at(number));
        pieces += next.pieces.size();
        if (pieces > most_pieces)
            break;
        tasks.push_back(std::move(next));
    }
    return tasks;
}

/* Ports that need less than an equal part of the share are not slowed; what they leave is the
   others'. What a port needs is what it took, times its pace. */
void module_poller::set_paces(time_point now)
{
    if (now < window_end_)
        return;
    const double length = std::chrono::duration<double>(now - window_begin_).count();
    const auto needs = [length](const polled &port) {
        return std::chrono::duration<double>(port.spent).count() / length * port.pace;
    };
    const auto counts = [](const polled &port) { return port.spent > duration(0); };
    double left = share_of_all, wanted = 0;
    const auto costly = std::ranges::count_if(
        ports_, [&](const auto &one) { return counts(one.second) && !one.second.is_apart; });
    const double equal = share_of_all / static_cast<double>(std::max<ptrdiff_t>(costly, 1));
    for (const auto &[number, port] : ports_) {
        if (port.is_apart)
            continue;
        if (needs(port) <= equal)
            left -= needs(port);
        else
            wanted += needs(port);
    }
    left = std::max(left, equal);
    for (auto &[number, port] : ports_) {
        port.pace = needs(port) > equal ? std::max(wanted / left, 1.0) : 1;
        port.spent = duration(0);
    }
    window_begin_ = now;
    window_end_ = now + share_window;
}

void module_poller::step()
{
    const time_point begin = now_();
    set_paces(begin);
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
    const auto pieces = static_cast<int64_t>(std::max<size_t>(count, 1));
    const bool slow = cost > slow_piece * pieces;
    const bool cheap = cost < cheap_piece * pieces;
    for (task &done : tasks) {
        polled &port = *done.port;
        const bool was_known = port.was_looked_at;
        const auto made = static_cast<int64_t>(done.pieces.size());
        port.spent += cost / pieces * made;
        listener_.module_cost(port.number,
                              {done.pieces, cost / pieces * made, port.diagnostics_pause(),
                               done.kind == task_kind::diagnostics, port.where != stage::empty});
        take_result(done);
        const bool fails = port.failures >= failures_when_broken ||
                           (port.failures > 0 && port.where == stage::empty);
        port.is_apart = slow || (fails && !cheap);
        if (port.is_apart && tasks.size() == 1)
            pause_apart(port, was_known, slow, cost);
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
    case task_kind::missing:
        return take_missing(*done.port, done);
    }
}

/* The ports that are set apart wait in proportion to what a reading cost: briefly until each has
   been looked at once, longest for one that is known to have nothing. A slow one that only fails is
   asked rarely, since the kernel's lock is held meanwhile. */
void module_poller::pause_apart(polled &port, bool was_known, bool slow, duration cost)
{
    const int share = !was_known ? 1 : port.where == stage::in_use ? 3 : 9;
    apart_from_ = now_() + cost * share;
    if (slow && port.failures >= failures_when_broken && port.where == stage::empty &&
        !port.was_lost_lately(now_()))
        port.look_due = std::max(port.look_due, now_() + unlikely_interval);
}

} // namespace linux_board
