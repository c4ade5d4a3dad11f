/* SPDX-License-Identifier: Apache-2.0 */
/* For the port that is due, one task is made at a time; up to 16 short readings of several ports
   are sent together, which saves most of the switches between the two processes. */
#include "platform/dolm_ric/linux/module_poller.h"

#include <algorithm>
#include <utility>

namespace linux_board
{

using namespace std::chrono_literals;

static constexpr auto slow_piece = 25ms; /* 32 bytes take 3.5 ms at 100 kHz */
static constexpr auto cheap_piece = 1ms; /* a failure in less time didn't use the bus */

/* A reading holds a lock of the kernel that other programs wait for. The ports that aren't set
   apart together take at most a hundredth of the time; each half minute their pace is adapted. */
static constexpr double share_of_all = 0.01;
static constexpr auto share_window = 30s;

module_poller::module_poller(module_access &access, module_listener &listener, clock now)
    : access_(access), shared_{listener, std::move(now)}
{
}

void module_poller::add(uint32_t port, bool by_reader)
{
    polled &added = ports_.try_emplace(port, polled{polled_module(port, shared_)}).first->second;
    added.module.read_by(by_reader);
    schedule(port, added);
}

void module_poller::with(uint32_t port, const std::function<void(polled_module &)> &what)
{
    const auto found = ports_.find(port);
    if (found == ports_.end())
        return;
    what(found->second.module);
    schedule(port, found->second);
}

void module_poller::trust_sums(uint32_t port, bool trusted)
{
    with(port, [&](polled_module &its) { its.trust_sums(trusted); });
}

void module_poller::identify_again(uint32_t port)
{
    with(port, [](polled_module &its) { its.identify_again(); });
}

void module_poller::expect_logging(uint32_t port, bool logs_failures)
{
    with(port, [&](polled_module &its) { its.expect_logging(logs_failures); });
}

void module_poller::set_interface(uint32_t port, int32_t index)
{
    with(port, [&](polled_module &its) { its.set_interface(index); });
}

void module_poller::hint()
{
    for (auto &[number, port] : ports_) {
        port.module.hint();
        schedule(number, port);
    }
}

void module_poller::look_now(uint32_t port)
{
    with(port, [](polled_module &its) { its.look_now(); });
}

void module_poller::link_changed(uint32_t port)
{
    with(port, [](polled_module &its) { its.link_changed(); });
}

void module_poller::diagnostics_wanted(uint32_t port)
{
    with(port, [](polled_module &its) { its.diagnostics_wanted(wanted_age); });
}

/* A port is in one queue, at the time of its earliest task; without an interface it is in no
   queue. */
void module_poller::schedule(uint32_t number, polled &port)
{
    if (port.queued_at) {
        prompt_queue_.erase({*port.queued_at, number});
        apart_queue_.erase({*port.queued_at, number});
    }
    port.queued_at = port.module.next_due();
    if (port.queued_at)
        (port.is_apart ? apart_queue_ : prompt_queue_).insert({*port.queued_at, number});
}

module_poller::time_point module_poller::next_due() const
{
    time_point due = time_point::max();
    if (!prompt_queue_.empty())
        due = prompt_queue_.begin()->first;
    if (!apart_queue_.empty())
        due = std::min(due, std::max(apart_queue_.begin()->first, apart_from_));
    return shared_.settling.empty() ? due : std::min(due, shared_.settling.begin()->first);
}

bool module_poller::is_first_look_over() const
{
    return std::ranges::all_of(ports_, [](const auto &entry) {
        const polled_module &its = entry.second.module;
        return its.was_looked_at() || its.is_out_of_reach();
    });
}

/* Ports that are set apart are read one at a time, so that the cost of each is known. */
std::vector<reading_task> module_poller::choose_tasks(time_point now)
{
    std::vector<reading_task> tasks;
    if (!apart_queue_.empty() && apart_queue_.begin()->first <= now && apart_from_ <= now) {
        tasks.push_back(ports_.at(apart_queue_.begin()->second).module.make_task(now));
        return tasks;
    }
    size_t pieces = 0;
    if (prompt_queue_.empty() || prompt_queue_.begin()->first > now)
        return tasks;
    for (const auto &[due, number] : prompt_queue_) {
        if (due > now + early_by)
            break;
        if (due > now && ports_.at(number).module.is_identifying())
            continue; /* a module that was just inserted is not slowed */
        reading_task next = ports_.at(number).module.make_task(now);
        pieces += next.pieces.size();
        if (pieces > most_pieces)
            break;
        tasks.push_back(std::move(next));
    }
    return tasks;
}

/* Ports that need less than an equal part of the share are not slowed; the others divide the rest.
   A port's need is the time that it took, times its pace. */
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
        port.module.set_pace(port.pace);
        port.spent = duration(0);
    }
    window_begin_ = now;
    window_end_ = now + share_window;
}

void module_poller::step()
{
    const time_point begin = shared_.now();
    set_paces(begin);
    announce_settled(begin);
    std::vector<reading_task> tasks = choose_tasks(begin);
    if (tasks.empty())
        return;
    std::vector<piece> pieces;
    for (const reading_task &one : tasks)
        pieces.insert(pieces.end(), one.pieces.begin(), one.pieces.end());
    if (!pieces.empty())
        access_.read(pieces);
    size_t next = 0;
    for (reading_task &one : tasks)
        for (piece &part : one.pieces)
            part = pieces[next++];
    take_results(tasks, shared_.now() - begin);
}

void module_poller::take_results(const std::vector<reading_task> &tasks, duration cost)
{
    size_t count = 0;
    for (const reading_task &one : tasks)
        count += one.pieces.size();
    const auto pieces = static_cast<int64_t>(std::max<size_t>(count, 1));
    const bool slow = cost > slow_piece * pieces;
    const bool cheap = cost < cheap_piece * pieces;
    for (const reading_task &done : tasks) {
        polled &port = ports_.at(done.port);
        polled_module &its = port.module;
        const bool was_known = its.was_looked_at();
        const duration time = cost / pieces * static_cast<int64_t>(done.pieces.size());
        port.spent += time;
        shared_.listener.module_cost(done.port,
                                     {done.pieces, time, its.diagnostics_pause(),
                                      done.kind == task_kind::diagnostics, !its.is_empty()});
        its.take(done);
        port.is_apart = slow || (its.is_failing() && !cheap);
        if (port.is_apart && tasks.size() == 1)
            pause_apart(its, was_known, slow, cost);
        schedule(done.port, port);
    }
}

/* A port that is set apart waits in proportion to the cost of its reading: briefly until each port
   has been looked at once, longest if it is known to have no module. A slow port that only fails is
   asked rarely, since the kernel's lock is held meanwhile. */
void module_poller::pause_apart(polled_module &its, bool was_known, bool slow, duration cost)
{
    const int share = !was_known ? 1 : its.is_in_use() ? 3 : 9;
    apart_from_ = shared_.now() + cost * share;
    if (slow)
        its.ask_rarely();
}

void module_poller::announce_settled(time_point now)
{
    auto &settling = shared_.settling;
    while (!settling.empty() && settling.begin()->first <= now) {
        ports_.at(settling.begin()->second).module.report_presence();
        settling.erase(settling.begin());
    }
}

} // namespace linux_board
