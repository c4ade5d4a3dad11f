/* SPDX-License-Identifier: Apache-2.0 */
/* The second half of module_poller: the conclusions from a reading. */
#include "platform/dolm_ric/linux/module_decode.h"
#include "platform/dolm_ric/linux/module_poller_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace linux_board
{

using namespace std::chrono_literals;

static constexpr auto diagnostics_interval = 4s; /* the values are at most 5 s old */
static constexpr auto insertion_time = 300ms;    /* modules need it before they answer reliably */
static constexpr auto settle_time = 200ms;       /* as for links */
static constexpr auto confirm_time = 100ms;
static constexpr auto reader_interval = 1s;
static constexpr auto lost_time = 15s; /* a module that can't be read for so long isn't ready */
static constexpr int fast_tries = 10;
static constexpr int medium_tries = 12;

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

/* A module found at the first look is taken to be initialised already. */
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

/* All ranges of the plan have been read. A module may need a second until its identity is right, so
   what is wrong with it is reported after that only. */
void module_poller::finish_identity(polled &port)
{
    port.was_looked_at = true;
    const module_contents contents = decode_module(port.memory);
    if (!contents.ready) {
        retry_identity(port);
        if (port.tries == fast_tries)
            listener_.module_doubted(port.number, contents.doubts);
        return;
    }
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

/* The known state is kept for a while. */
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

/* A missing right concerns the ports whose modules are read through their interface. The answer of
   a port on a bus of its own has nothing to do with it. */
void module_poller::note_access(polled &port, int error)
{
    const bool was_denied = std::exchange(port.was_denied, error == EPERM);
    if (!port.by_reader || access_error_ == error)
        return;
    if (error == 0 && access_error_ == EPERM && !was_denied)
        return;
    access_error_ = error;
    listener_.module_access_changed(error);
}

} // namespace linux_board
