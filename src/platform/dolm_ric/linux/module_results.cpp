/* SPDX-License-Identifier: Apache-2.0 */
/* The second half of module_poller: the conclusions from a reading. */
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/module_poller_internal.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

namespace linux_board
{

using namespace std::chrono_literals;

static constexpr auto insertion_time = 300ms; /* modules need it before they answer reliably */
static constexpr auto settle_time = 200ms;    /* as for links */
static constexpr auto confirm_time = 100ms;
static constexpr auto reader_interval = 1s;
static constexpr auto lost_time = 15s; /* a module that can't be read for so long isn't ready */
static constexpr int fast_tries = 10;
static constexpr int medium_tries = 12;

/* A range that was refused is tried again after the first pause, and then after longer ones. */
static constexpr auto first_pause = 1s;
static constexpr auto longest_pause = 1024s;
static constexpr auto pause_of_loggers = 60s; /* at least, where the driver logs each failure */

/* A reading without values is made again at once, so often. */
static constexpr uint32_t most_repeats = 3;

/* While the kernel keeps a module for something else. */
static constexpr auto busy_interval = 2s;

/* Looks at a cage that answers with an error which doesn't say "empty". */
static constexpr auto cage_interval = 2s;
static constexpr auto lost_interval_of_loggers = 10s;
static constexpr auto rare_interval_of_loggers = 600s;

bool is_unheard(int error)
{
    return error == ENOTCONN || error == EPERM || error == EACCES || error == ESTALE ||
           error == module_is_leased;
}

/* Nothing answers, or the driver knows that there is nothing. All other errors may be those of a
   module that is reset or updated, or of another user of the bus. */
static bool says_empty(int error)
{
    return error == ENXIO || error == ENODEV || error == ENOENT || error == EREMOTEIO ||
           error == ENOMEDIUM || error == EOPNOTSUPP;
}

/* The driver has no way to read the module, for now or for ever. */
static bool says_unreadable(int error)
{
    return error == EOPNOTSUPP || error == ENOENT;
}

void module_poller::begin_identity(polled &port, duration wait)
{
    port.where = stage::identifying;
    port.memory.clear();
    port.refused.clear();
    port.missing_due = time_point::max();
    port.tries = 0;
    port.identity_since = now_();
    port.identity_due = now_() + wait;
}

/* A module found at the first look is taken to be initialised already. */
void module_poller::take_look(polled &port, const task &done)
{
    const time_point now = now_();
    port.looked_at = now;
    port.look_due = now + port.look_pause();
    for (const ranged &read : done.ranges)
        if (const int error = done.error_of(read))
            return take_failure(port, error);
    note_answer(port);
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
        } else if (is_unheard(error)) {
            port.identity_due = now + reader_interval;
            return take_failure(port, error);
        } else if (step != plan.end() && step->optional) {
            refuse(port, read.range);
        } else {
            retry_identity(port, says_empty(error) ? duration(0) : keep_time);
            return take_failure(port, error);
        }
    }
    note_answer(port);
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
        if (!port.old_identity)
            listener_.module_sampled(port.number, port.memory, contents);
        retry_identity(port, duration(0));
        if (port.tries == fast_tries)
            listener_.module_doubted(port.number, contents.doubts);
        return;
    }
    const bool is_same = port.old_identity && memcmp(&*port.old_identity, &contents.identity,
                                                     sizeof(contents.identity)) == 0;
    if (port.old_identity && !is_same)
        set_presence(port, module_presence::absent);
    port.old_identity.reset();
    port.has_values = port.has_values && is_same;
    use_module(port, contents);
}

void module_poller::use_module(polled &port, const module_contents &contents)
{
    const time_point now = now_();
    port.where = stage::in_use;
    port.look_due = now + port.look_pause();
    port.diagnostics_due = now + port.diagnostics_pause();
    port.blank_readings = 0;
    port.has_answered = true;
    for (const reading_step &step : reading_plan(port.memory))
        if (!is_range_right(port.memory, step.range) && port.find_refused(step.range) == nullptr)
            refuse(port, step.range);
    publish(port, contents);
    find_missing(port);
    set_presence(port, module_presence::ready);
}

/* A reading without values takes the place of none that has some: those get older, and are not
   given out any more when they are too old. It is made again, since drivers give zeros for readings
   that failed, and modules do while they measure. */
void module_poller::publish(polled &port, const module_contents &contents)
{
    const time_point now = now_();
    const bool is_blank = contents.diagnostics == diagnostics_state::not_read;
    if (!is_blank || !port.has_values || port.blank_readings >= most_repeats)
        listener_.module_sampled(port.number, port.memory, contents);
    port.blank_readings = is_blank ? port.blank_readings + 1 : 0;
    if (is_blank && port.blank_readings <= most_repeats)
        port.diagnostics_due = now + confirm_time;
    if (is_blank && port.has_values) {
        if (port.blank_readings > most_repeats)
            listener_.module_doubted(port.number, contents.doubts);
        return;
    }
    port.has_values = contents.diagnostics == diagnostics_state::available;
    port.diagnostics_at = now;
    listener_.module_read(port.number, contents, now);
}

void module_poller::refuse(polled &port, const memory_range &range)
{
    refused_range *known = port.find_refused(range);
    if (known == nullptr)
        known = &port.refused.emplace_back(refused_range{
            range, is_range_right(port.memory, range) && port.memory.read_at(range), {}, {}});
    const bool is_logged = port.logs_failures && !known->was_there;
    const duration shortest = is_logged ? duration(pause_of_loggers) : first_pause;
    const duration longest = known->was_there ? diagnostics_interval : duration(longest_pause);
    known->pause = std::max(shortest, std::min(2 * known->pause, longest));
    known->due = now_() + known->pause;
}

void module_poller::find_missing(polled &port)
{
    port.missing_due = time_point::max();
    for (const reading_step &step : reading_plan(port.memory))
        port.missing_due = std::min(port.missing_due, port.due_of(step));
}

/* Something answers, but not as a module, or not for the whole of its identity. A module that was
   there before is given up when it has been so for a second, and as long as `patience`. */
void module_poller::retry_identity(polled &port, duration patience)
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
    if (port.tries < fast_tries || !port.old_identity || now_() - port.identity_since < patience)
        return;
    port.old_identity.reset();
    set_presence(port, module_presence::absent);
    set_presence(port, module_presence::not_ready);
}

/* Whether a lane is beyond an alarm limit that it was within. */
static bool has_new_alarm(const measurement &before, const measurement &now)
{
    if (!now.limits || !now.limits->are_in_order() || before.lanes.size() != now.lanes.size())
        return false;
    const auto is_alarm = [&](const lane_value &lane) {
        return lane.value <= now.limits->low_alarm || lane.value >= now.limits->high_alarm;
    };
    for (size_t lane = 0; lane < now.lanes.size(); lane++)
        if (is_alarm(now.lanes[lane]) && !is_alarm(before.lanes[lane]))
            return true;
    return false;
}

static bool has_moved(const measurement &before, const measurement &now, double most)
{
    return !before.lanes.empty() && !now.lanes.empty() &&
           std::abs(before.lanes.front().value - now.lanes.front().value) >= most;
}

/* A flipped bit on the bus looks so, and no reading has a checksum. */
static bool has_jumped(const module_contents &before, const module_contents &now)
{
    constexpr double most_heat = 15'000;     /* 0.001 degrees Celsius */
    constexpr double most_voltage = 500'000; /* microvolts */
    return before.diagnostics == diagnostics_state::available &&
           now.diagnostics == diagnostics_state::available &&
           (has_moved(before.temperature, now.temperature, most_heat) ||
            has_moved(before.voltage, now.voltage, most_voltage) ||
            has_new_alarm(before.tx_bias, now.tx_bias) ||
            has_new_alarm(before.tx_power, now.tx_power) ||
            has_new_alarm(before.rx_power, now.rx_power));
}

/* Values are taken only with the identity bytes that were read behind them. A failure tells nothing
   of the module's presence, since it may have come because a client asked: the next look does. */
void module_poller::take_diagnostics(polled &port, const task &done)
{
    const time_point now = now_();
    port.diagnostics_tried_at = now;
    port.diagnostics_due = now + port.diagnostics_pause();
    for (const ranged &read : done.ranges) {
        const int error = done.error_of(read);
        if (is_unheard(error) || error == EBUSY) {
            port.look_due = now + look_interval;
            return take_failure(port, error);
        }
        if (error == 0)
            continue;
        port.look_due = std::min(port.look_due, now + confirm_time);
        if (read.range != done.ranges.back().range) {
            refuse(port, read.range);
            port.memory.drop(read.range);
            port.diagnostics_due = now + confirm_time;
        }
        return find_missing(port);
    }
    take_look(port, done.behind(done.ranges.size() - 1));
    if (port.where != stage::in_use)
        return;
    const module_memory before = port.memory;
    for (const ranged &read : done.ranges)
        port.memory.store(read.range, done.bytes_of(read), now);
    const module_contents contents = decode_module(port.memory);
    const bool is_jump = has_jumped(decode_module(before), contents);
    const bool was_confirming = std::exchange(port.is_confirming, false);
    if (is_jump && !was_confirming) {
        port.is_confirming = true;
        listener_.reading_doubted(port.number, port.memory, contents);
        port.memory = before;
        port.diagnostics_due = now + confirm_time;
        return;
    }
    if (was_confirming && !is_jump)
        listener_.reading_dropped(port.number);
    publish(port, contents);
}

/* The range before the identity bytes was missing. */
void module_poller::take_missing(polled &port, const task &done)
{
    const memory_range range = done.ranges.front().range;
    if (const int error = done.error_of(done.ranges.front())) {
        if (is_unheard(error) || error == EBUSY) {
            port.missing_due = now_() + (error == EBUSY ? busy_interval : reader_interval);
            return take_failure(port, error);
        }
        refuse(port, range);
        if (port.memory.read_at(range)) {
            port.memory.drop(range);
            listener_.module_sampled(port.number, port.memory, decode_module(port.memory));
        }
        port.look_due = std::min(port.look_due, now_() + confirm_time);
        return find_missing(port);
    }
    take_look(port, done.behind(1));
    if (port.where != stage::in_use || port.failures != 0)
        return;
    port.memory.store(range, done.bytes_of(done.ranges.front()), now_());
    if (is_range_right(port.memory, range))
        std::erase_if(port.refused, [&](const refused_range &one) { return one.range == range; });
    else
        refuse(port, range);
    const module_contents contents = decode_module(port.memory);
    const std::vector<reading_step> plan = reading_plan(port.memory);
    const auto step = std::ranges::find(plan, range, &reading_step::range);
    if (step != plan.end() && !is_part_of_identity(*step))
        listener_.module_sampled(port.number, port.memory, contents);
    else
        publish(port, contents);
    find_missing(port);
}

void module_poller::note_answer(polled &port)
{
    port.failures = port.empty_answers = 0;
    port.failing_since.reset();
    port.answered_at = now_();
    note_access(port, 0);
}

/* The known state is kept for a while. */
void module_poller::note_silence(polled &port)
{
    if (now_() - port.answered_at > lost_time && port.reported == module_presence::ready)
        set_presence(port, module_presence::not_ready);
}

/* A module in use whose readings the kernel refuses, as while its firmware is updated, is left
   alone: it is there, and not ready when that lasts. */
void module_poller::take_failure(polled &port, int error)
{
    const time_point now = now_();
    if (is_unheard(error)) {
        if (error != module_is_leased)
            note_access(port, error == ESTALE ? 0 : error);
        return note_silence(port);
    }
    note_access(port, 0);
    port.was_looked_at = true;
    if (error == EBUSY && port.where == stage::in_use) {
        port.look_due = now + busy_interval;
        port.diagnostics_due = std::max(port.diagnostics_due, port.look_due);
        return note_silence(port);
    }
    const bool is_empty = says_empty(error);
    if (is_empty && port.where == stage::empty) {
        port.look_due = now + pace_of_empty(port, error);
        return;
    }
    port.failures++;
    port.empty_answers = is_empty ? port.empty_answers + 1 : 0;
    port.failing_since = port.failing_since.value_or(now);
    if (port.where == stage::empty) {
        port.look_due = now + pace_of_empty(port, error);
        return;
    }
    if (is_empty || port.failures == 1)
        port.look_due = std::min(port.look_due, now + confirm_time);
    const bool is_lost = !is_empty && now - *port.failing_since >= keep_time;
    if (!is_lost && port.empty_answers < answers_when_empty)
        return;
    remove_module(port);
    if (is_lost)
        port.lost_at = now;
}

/* Until the next look at a port without a module. One that never had a module may be a cage whose
   driver has its own error for "empty". A driver that logs each failure is then not asked at all
   without a reason, and rarely where a module was given up, which may be back. */
module_poller::duration module_poller::pace_of_empty(const polled &port, int error) const
{
    const bool was_lost = port.was_lost_lately(now_());
    if (says_empty(error) && !says_unreadable(error))
        return port.look_pause();
    if (!port.logs_failures)
        return was_lost ? duration(look_interval) : cage_interval;
    if (was_lost)
        return lost_interval_of_loggers;
    return port.has_answered ? duration(rare_interval_of_loggers) : time_point::max() - now_();
}

void module_poller::remove_module(polled &port)
{
    port.where = stage::empty;
    port.memory.clear();
    port.refused.clear();
    port.old_identity.reset();
    port.has_values = port.is_confirming = false;
    port.missing_due = time_point::max();
    port.failures = port.empty_answers = 0;
    port.failing_since.reset();
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
