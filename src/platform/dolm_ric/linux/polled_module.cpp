/* SPDX-License-Identifier: Apache-2.0 */
/* Order of the functions: the pieces of a task, the calls by the poller, the choice of the due
   reading, and the conclusions from a reading. */
#include "platform/dolm_ric/linux/polled_module.h"

#include "platform/dolm_ric/linux/decode/module_decode.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

namespace linux_board
{

using namespace std::chrono_literals;

static constexpr std::chrono::milliseconds look_interval{1000};
static constexpr std::chrono::seconds diagnostics_interval{4}; /* so values are at most 5 s old */

/* The slowest pace of a port whose readings cost much: its values, which are returned for 15 s,
   must not get too old. */
static constexpr double most_look_pace = 5;
static constexpr double most_diagnostics_pace = 3;
static constexpr double most_slow_pace = 30;

/* For a port without a cage, or whose readings only fail. */
static constexpr std::chrono::seconds unlikely_interval{60};

/* Between two readings of a slowly read range. */
static constexpr std::chrono::seconds slow_interval{10};

static constexpr auto hint_spacing = 200ms; /* between two looks, however many hints there are */
static constexpr auto after_link_change = 500ms;

/* If the driver gives the same error so often in a row, it is no temporary disturbance. */
static constexpr uint32_t answers_when_empty = 2;
static constexpr uint32_t failures_when_broken = 5;

/* A module that fails for this time counts as removed. Its port is then looked at each second for a
   while: a reset or a firmware update takes up to a minute. */
static constexpr std::chrono::seconds keep_time{5};
static constexpr std::chrono::minutes watch_time{1};

static constexpr auto insertion_time = 300ms; /* until a new module answers reliably */
static constexpr auto settle_time = 200ms;    /* as for links, see link_table */
static constexpr auto confirm_time = 100ms;
static constexpr auto reader_interval = 1s;
static constexpr auto lost_time = 15s; /* a module that can't be read for so long isn't ready */
/* If a range fails, its earlier bytes are kept up to this age, so that one failure loses nothing.
   For a slowly read range the age is longer by slow_interval. */
static constexpr std::chrono::seconds longest_kept{15};
static constexpr std::chrono::seconds time_to_repeat{5};
static constexpr int fast_tries = 10;
static constexpr int medium_tries = 12;
static constexpr std::chrono::seconds medium_pause{5};

/* A refused range is tried again after the first pause, then after longer ones. */
static constexpr auto first_pause = 1s;
static constexpr auto longest_pause = 1024s;
static constexpr auto pause_of_loggers = 60s; /* the least, where the driver logs each failure */

/* A reading without values is repeated at once, up to so many times. */
static constexpr uint32_t most_repeats = 3;

/* While the kernel uses the module for something else. */
static constexpr auto busy_interval = 2s;

/* Between looks at a cage that gives an error other than "empty". */
static constexpr auto cage_interval = 2s;
static constexpr auto lost_interval_of_loggers = 10s;
static constexpr auto rare_interval_of_loggers = 600s;

bool reading_task::add(const reading_step &step)
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
        pieces.push_back({.port = port, .range = part});
    }
    return true;
}

reading_task reading_task::behind(size_t count) const
{
    reading_task rest = *this;
    rest.ranges.erase(rest.ranges.begin(), rest.ranges.begin() + static_cast<ptrdiff_t>(count));
    return rest;
}

int reading_task::error_of(const ranged &read) const
{
    for (size_t i = read.first; i < read.first + read.count; i++) {
        const piece &part = pieces[i];
        if (part.error != 0)
            return part.error;
        if (part.interface != 0 && part.interface != interface)
            return ESTALE;
    }
    return 0;
}

std::vector<uint8_t> reading_task::bytes_of(const ranged &read) const
{
    std::vector<uint8_t> bytes;
    for (size_t i = read.first; i < read.first + read.count; i++)
        bytes.insert(bytes.end(), pieces[i].bytes.begin(),
                     pieces[i].bytes.begin() + pieces[i].range.length);
    return bytes;
}

polled_module::polled_module(uint32_t port, shared_by_modules &shared)
    : shared_(shared), number_(port)
{
}

void polled_module::trust_sums(bool trusted)
{
    if (memory_.trusts_sums() == trusted)
        return;
    memory_.trust_sums(trusted);
    if (where_ != stage::empty)
        begin_identity(duration(0));
}

void polled_module::identify_again()
{
    if (where_ != stage::in_use)
        return;
    old_identity_ = decode_module(memory_).identity;
    begin_identity(duration(0));
}

void polled_module::set_interface(int32_t index)
{
    if (interface_ == index)
        return;
    if (interface_ != 0)
        remove_module();
    interface_ = index;
    has_answered_ = was_looked_at_ = false;
    lost_at_.reset();
    look_due_ = shared_.now();
}

void polled_module::hint()
{
    look_due_ = std::min(look_due_, std::max(shared_.now(), looked_at_ + hint_spacing));
}

void polled_module::look_now()
{
    if (where_ == stage::in_use && failures_ == 0)
        return;
    hint();
    identity_due_ = std::min(identity_due_, std::max(shared_.now(), looked_at_ + hint_spacing));
}

void polled_module::link_changed()
{
    diagnostics_due_ = std::min(diagnostics_due_, shared_.now() + after_link_change);
}

void polled_module::diagnostics_wanted(duration wanted_age)
{
    const time_point now = shared_.now();
    if (now - diagnostics_at_ >= wanted_age && now - diagnostics_tried_at_ >= wanted_age)
        diagnostics_due_ = std::min(diagnostics_due_, now);
}

void polled_module::ask_rarely()
{
    if (failures_ >= failures_when_broken && where_ == stage::empty && !was_lost_lately())
        look_due_ = std::max(look_due_, shared_.now() + unlikely_interval);
}

bool polled_module::is_failing() const
{
    return failures_ >= failures_when_broken || (failures_ > 0 && where_ == stage::empty);
}

bool polled_module::was_lost_lately() const
{
    return lost_at_ && shared_.now() - *lost_at_ < watch_time;
}

polled_module::duration polled_module::look_pause() const
{
    return std::chrono::duration_cast<duration>(look_interval * std::min(pace_, most_look_pace));
}

polled_module::duration polled_module::diagnostics_pause() const
{
    return std::chrono::duration_cast<duration>(diagnostics_interval *
                                                std::min(pace_, most_diagnostics_pace));
}

polled_module::duration polled_module::slow_pause() const
{
    return std::chrono::duration_cast<duration>(slow_interval * std::min(pace_, most_slow_pace));
}

std::optional<polled_module::time_point> polled_module::next_due() const
{
    if (interface_ == 0)
        return {};
    if (where_ == stage::identifying)
        return std::min(look_due_, identity_due_);
    if (where_ == stage::in_use)
        return std::min({look_due_, diagnostics_due_, missing_due_});
    return look_due_;
}

const polled_module::refused_range *polled_module::find_refused(const memory_range &range) const
{
    const auto found = std::ranges::find(refused_, range, &refused_range::range);
    return found == refused_.end() ? nullptr : &*found;
}

/* When a missing or refused range of the plan is to be read; never if it was read. */
polled_module::time_point polled_module::due_of(const reading_step &step) const
{
    if (const refused_range *refused = find_refused(step.range))
        return refused->due;
    const auto read_at = memory_.read_at(step.range);
    if (!read_at)
        return time_point{};
    return step.when == reading_time::slowly ? *read_at + slow_pause() : time_point::max();
}

static bool is_part_of_identity(const reading_step &step)
{
    return step.when != reading_time::later && step.when != reading_time::slowly;
}

task_kind polled_module::due_kind(time_point now) const
{
    if (where_ == stage::identifying && identity_due_ <= now)
        return task_kind::identity;
    if (where_ == stage::in_use && diagnostics_due_ <= now + early_by)
        return task_kind::diagnostics;
    if (where_ == stage::in_use && missing_due_ <= now)
        return task_kind::missing;
    return task_kind::look;
}

/* Measured values and missing ranges are read before the identity bytes, which then prove that the
   module is still the same. Only one missing range is read at a time, as a failure ends the
   task. */
reading_task polled_module::make_task(time_point now) const
{
    reading_task made = {number_, interface_, due_kind(now)};
    const bool in_use = where_ == stage::in_use;
    const std::vector<reading_step> plan =
        made.kind == task_kind::look && !in_use ? reading_plan({}) : reading_plan(memory_);
    const auto add_if = [&](auto &&wanted) {
        for (const reading_step &step : plan)
            if (wanted(step) && !made.add(step))
                return;
    };
    const auto is_refused = [&](const reading_step &s) { return find_refused(s.range) != nullptr; };
    if (made.kind == task_kind::identity)
        add_if([&](const reading_step &s) {
            return is_part_of_identity(s) && !memory_.read_at(s.range) && !is_refused(s);
        });
    else if (!in_use)
        add_if([](const reading_step &) { return true; });
    if (made.kind == task_kind::diagnostics)
        add_if([&](const reading_step &s) {
            return s.when == reading_time::diagnostics && memory_.read_at(s.range) &&
                   !is_refused(s);
        });
    if (made.kind == task_kind::missing)
        add_if([&](const reading_step &s) { return made.ranges.empty() && due_of(s) <= now; });
    if (in_use)
        add_if([](const reading_step &s) { return s.when == reading_time::presence; });
    return made;
}

void polled_module::take(const reading_task &done)
{
    switch (done.kind) {
    case task_kind::look:
        return take_look(done);
    case task_kind::identity:
        return take_identity(done);
    case task_kind::diagnostics:
        return take_diagnostics(done);
    case task_kind::missing:
        return take_missing(done);
    }
}

bool is_unanswered(int error)
{
    return error == ENOTCONN || error == EPERM || error == EACCES || error == ESTALE ||
           error == module_is_leased;
}

/* Nothing answers, or the driver reports an empty cage. With all other errors, a module may be in a
   reset or an update, or another user may hold the bus. */
static bool says_empty(int error)
{
    return error == ENXIO || error == ENODEV || error == ENOENT || error == EREMOTEIO ||
           error == ENOMEDIUM || error == EOPNOTSUPP;
}

/* The driver can't read the module, now or ever. */
static bool says_unreadable(int error)
{
    return error == EOPNOTSUPP || error == ENOENT;
}

void polled_module::begin_identity(duration wait)
{
    where_ = stage::identifying;
    memory_.clear();
    refused_.clear();
    missing_due_ = time_point::max();
    tries_ = 0;
    identity_since_ = shared_.now();
    identity_due_ = shared_.now() + wait;
}

/* A module that is found at the first look counts as initialised already. */
void polled_module::take_look(const reading_task &done)
{
    const time_point now = shared_.now();
    looked_at_ = now;
    look_due_ = now + look_pause();
    for (const ranged &read : done.ranges)
        if (const int error = done.error_of(read))
            return take_failure(error);
    note_answer();
    if (where_ == stage::empty) {
        set_presence(module_presence::not_ready);
        begin_identity(was_looked_at_ ? duration(insertion_time) : duration(0));
        return;
    }
    if (where_ != stage::in_use)
        return;
    for (const ranged &read : done.ranges) {
        const auto known = memory_.bytes(read.range);
        const std::vector<uint8_t> bytes = done.bytes_of(read);
        if (!std::equal(bytes.begin(), bytes.end(), known.begin(), known.end())) {
            old_identity_ = decode_module(memory_).identity;
            return begin_identity(duration(0));
        }
    }
    set_presence(module_presence::ready);
}

void polled_module::take_identity(const reading_task &done)
{
    const time_point now = shared_.now();
    const std::vector<reading_step> plan = reading_plan(memory_);
    for (const ranged &read : done.ranges) {
        const auto step = std::find_if(plan.begin(), plan.end(), [&](const reading_step &one) {
            return one.range == read.range;
        });
        const int error = done.error_of(read);
        if (error == 0) {
            memory_.store(read.range, done.bytes_of(read), now);
        } else if (error == ECANCELED) {
            break; /* the reading is repeated with the next task */
        } else if (is_unanswered(error) || (error == EBUSY && old_identity_)) {
            identity_due_ = now + (error == EBUSY ? duration(busy_interval) : reader_interval);
            return take_failure(error);
        } else if (step != plan.end() && step->optional) {
            refuse(read.range);
        } else {
            retry_identity(says_empty(error) ? duration(0) : keep_time);
            return take_failure(error);
        }
    }
    note_answer();
    if (make_task(now).pieces.empty())
        finish_identity();
}

/* All ranges of the plan have been read. A module may need a second until its identity is right, so
   faults are reported only after that time. */
void polled_module::finish_identity()
{
    was_looked_at_ = true;
    const module_contents contents = decode_module(memory_);
    if (!contents.ready) {
        if (!old_identity_)
            shared_.listener.module_sampled(number_, memory_, contents);
        retry_identity(duration(0));
        if (tries_ == fast_tries)
            shared_.listener.module_doubted(number_, contents.doubts);
        return;
    }
    const bool is_same = old_identity_ && memcmp(&*old_identity_, &contents.identity,
                                                 sizeof(contents.identity)) == 0;
    if (old_identity_ && !is_same)
        set_presence(module_presence::absent);
    old_identity_.reset();
    has_values_ = has_values_ && is_same;
    use_module(contents);
}

void polled_module::use_module(const module_contents &contents)
{
    const time_point now = shared_.now();
    where_ = stage::in_use;
    look_due_ = now + look_pause();
    diagnostics_due_ = now + diagnostics_pause();
    blank_readings_ = 0;
    has_answered_ = true;
    for (const reading_step &step : reading_plan(memory_))
        if (!is_range_right(memory_, step.range) && find_refused(step.range) == nullptr)
            refuse(step.range);
    publish(contents);
    find_missing();
    set_presence(module_presence::ready);
}

/* If a reading has no values, the earlier values are kept; they get older, and are not returned
   once they are too old. The reading is repeated, since drivers return zeros for failed readings,
   and modules do so while they measure. */
void polled_module::publish(const module_contents &contents)
{
    const time_point now = shared_.now();
    const bool is_blank = contents.diagnostics == diagnostics_state::not_read;
    if (!is_blank || !has_values_ || blank_readings_ >= most_repeats)
        shared_.listener.module_sampled(number_, memory_, contents);
    blank_readings_ = is_blank ? blank_readings_ + 1 : 0;
    if (is_blank && blank_readings_ <= most_repeats)
        diagnostics_due_ = now + confirm_time;
    if (is_blank && has_values_) {
        if (blank_readings_ > most_repeats)
            shared_.listener.module_doubted(number_, contents.doubts);
        return;
    }
    has_values_ = contents.diagnostics == diagnostics_state::available;
    diagnostics_at_ = values_read_at();
    shared_.listener.module_read(number_, contents, diagnostics_at_);
}

/* The oldest part of the measured values, as some may be kept from an earlier reading. */
polled_module::time_point polled_module::values_read_at() const
{
    time_point oldest = shared_.now();
    for (const reading_step &step : reading_plan(memory_))
        if (step.when == reading_time::diagnostics)
            oldest = std::min(oldest, memory_.read_at(step.range).value_or(oldest));
    return oldest;
}

void polled_module::refuse(const memory_range &range)
{
    auto known = std::ranges::find(refused_, range, &refused_range::range);
    if (known == refused_.end())
        known = refused_.insert(
            refused_.end(),
            refused_range{range, is_range_right(memory_, range) && memory_.read_at(range), {}, {}});
    const bool is_logged = logs_failures_ && !known->was_there;
    const duration shortest = is_logged ? duration(pause_of_loggers) : first_pause;
    const duration longest = known->was_there ? diagnostics_interval : duration(longest_pause);
    known->pause = std::max(shortest, std::min(2 * known->pause, longest));
    known->due = shared_.now() + known->pause;
}

/* Drops the bytes of failing ranges if they are too old, or will be at the next try. Returns
   whether there were any. */
bool polled_module::forget_old()
{
    const std::vector<reading_step> plan = reading_plan(memory_);
    bool has_forgotten = false;
    for (const refused_range &its : refused_) {
        const auto step = std::ranges::find(plan, its.range, &reading_step::range);
        const auto read_at = memory_.read_at(its.range);
        if (!its.was_there || !read_at || step == plan.end())
            continue;
        const bool is_slow = step->when == reading_time::slowly;
        const duration most = is_slow ? slow_pause() + time_to_repeat : duration(longest_kept);
        if (std::max(its.due, shared_.now()) - *read_at <= most)
            continue;
        memory_.drop(its.range);
        has_forgotten = true;
    }
    return has_forgotten;
}

void polled_module::find_missing()
{
    missing_due_ = time_point::max();
    for (const reading_step &step : reading_plan(memory_))
        missing_due_ = std::min(missing_due_, due_of(step));
}

/* An answer came, but not a valid or complete identity. If a module was present before, it counts
   as removed once this has lasted for a second and for `patience`. */
void polled_module::retry_identity(duration patience)
{
    tries_++;
    was_looked_at_ = true;
    memory_.clear();
    refused_.clear();
    duration wait = unlikely_interval;
    if (tries_ <= fast_tries)
        wait = confirm_time;
    else if (tries_ <= fast_tries + medium_tries)
        wait = medium_pause;
    identity_due_ = shared_.now() + wait;
    if (tries_ < fast_tries || !old_identity_ || shared_.now() - identity_since_ < patience)
        return;
    old_identity_.reset();
    set_presence(module_presence::absent);
    set_presence(module_presence::not_ready);
}

/* Whether a lane has passed an alarm limit since the last reading. */
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

/* A sudden change may be a flipped bit on the bus: no reading of values has a checksum. */
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

/* Values are accepted only if the identity bytes that were read after them are right. A failure
   doesn't show whether the module is present, since a client may have caused the reading: the next
   look decides. */
void polled_module::take_diagnostics(const reading_task &done)
{
    const time_point now = shared_.now();
    diagnostics_tried_at_ = now;
    diagnostics_due_ = now + diagnostics_pause();
    for (const ranged &read : done.ranges) {
        const int error = done.error_of(read);
        if (is_unanswered(error) || error == EBUSY) {
            look_due_ = now + look_interval;
            return take_failure(error);
        }
        if (error == 0)
            continue;
        look_due_ = std::min(look_due_, now + confirm_time);
        if (read.range != done.ranges.back().range) {
            refuse(read.range);
            diagnostics_due_ = now + confirm_time;
        }
        return find_missing();
    }
    take_look(done.behind(done.ranges.size() - 1));
    if (where_ != stage::in_use)
        return;
    const module_memory before = memory_;
    for (const ranged &read : done.ranges)
        memory_.store(read.range, done.bytes_of(read), now);
    const module_contents contents = decode_module(memory_);
    const bool is_jump = has_jumped(decode_module(before), contents);
    const bool was_confirming = std::exchange(is_confirming_, false);
    if (is_jump && !was_confirming) {
        is_confirming_ = true;
        shared_.listener.reading_doubted(number_, memory_, contents);
        memory_ = before;
        diagnostics_due_ = now + confirm_time;
        return;
    }
    if (was_confirming && !is_jump)
        shared_.listener.reading_dropped(number_);
    publish(forget_old() ? decode_module(memory_) : contents);
}

/* Takes a range that was missing, which was read before the identity bytes. */
void polled_module::take_missing(const reading_task &done)
{
    const memory_range range = done.ranges.front().range;
    if (const int error = done.error_of(done.ranges.front())) {
        if (is_unanswered(error) || error == EBUSY) {
            missing_due_ = shared_.now() + (error == EBUSY ? busy_interval : reader_interval);
            return take_failure(error);
        }
        refuse(range);
        if (forget_old())
            publish(decode_module(memory_));
        look_due_ = std::min(look_due_, shared_.now() + confirm_time);
        return find_missing();
    }
    take_look(done.behind(1));
    if (where_ != stage::in_use || failures_ != 0)
        return;
    memory_.store(range, done.bytes_of(done.ranges.front()), shared_.now());
    if (is_range_right(memory_, range))
        std::erase_if(refused_, [&](const refused_range &one) { return one.range == range; });
    else
        refuse(range);
    const module_contents contents = decode_module(memory_);
    const std::vector<reading_step> plan = reading_plan(memory_);
    const auto step = std::ranges::find(plan, range, &reading_step::range);
    if (step != plan.end() && !is_part_of_identity(*step))
        shared_.listener.module_sampled(number_, memory_, contents);
    else
        publish(contents);
    find_missing();
}

void polled_module::note_answer()
{
    failures_ = empty_answers_ = 0;
    failing_since_.reset();
    answered_at_ = shared_.now();
    note_access(0);
}

/* No answer: the known state is kept for a while. */
void polled_module::note_silence()
{
    if (shared_.now() - answered_at_ > lost_time && reported_ == module_presence::ready)
        set_presence(module_presence::not_ready);
}

/* If the kernel refuses to read a module that is in use, or that is being read again, for example
   during a firmware update, the module isn't touched: it stays present, and is not ready if the
   refusals last. */
void polled_module::take_failure(int error)
{
    const time_point now = shared_.now();
    if (is_unanswered(error)) {
        if (error != module_is_leased)
            note_access(error == ESTALE ? 0 : error);
        return note_silence();
    }
    note_access(0);
    was_looked_at_ = true;
    if (error == EBUSY && (where_ == stage::in_use || old_identity_)) {
        look_due_ = now + busy_interval;
        diagnostics_due_ = std::max(diagnostics_due_, look_due_);
        return note_silence();
    }
    const bool is_empty = says_empty(error);
    if (is_empty && where_ == stage::empty) {
        look_due_ = now + pace_of_empty(error);
        return;
    }
    failures_++;
    empty_answers_ = is_empty ? empty_answers_ + 1 : 0;
    failing_since_ = failing_since_.value_or(now);
    if (where_ == stage::empty) {
        look_due_ = now + pace_of_empty(error);
        return;
    }
    if (is_empty || failures_ == 1)
        look_due_ = std::min(look_due_, now + confirm_time);
    const bool is_lost = !is_empty && now - *failing_since_ >= keep_time;
    if (!is_lost && empty_answers_ < answers_when_empty)
        return;
    remove_module();
    if (is_lost)
        lost_at_ = now;
}

/* The time until the next look at a port without a module. If the port never had one, the driver
   may have an error of its own for an empty cage. A driver that logs each failure is then asked
   only if there is a reason, and rarely if a module was lost, which may have come back. */
polled_module::duration polled_module::pace_of_empty(int error) const
{
    const bool was_lost = was_lost_lately();
    if (says_empty(error) && !says_unreadable(error))
        return look_pause();
    if (!logs_failures_)
        return was_lost ? duration(look_interval) : cage_interval;
    if (was_lost)
        return lost_interval_of_loggers;
    return has_answered_ ? duration(rare_interval_of_loggers) : time_point::max() - shared_.now();
}

void polled_module::remove_module()
{
    where_ = stage::empty;
    memory_.clear();
    refused_.clear();
    old_identity_.reset();
    has_values_ = is_confirming_ = false;
    missing_due_ = time_point::max();
    failures_ = empty_answers_ = 0;
    failing_since_.reset();
    look_due_ = shared_.now() + look_interval;
    set_presence(module_presence::absent);
}

void polled_module::set_presence(module_presence now)
{
    if (reported_ == now)
        return;
    const time_point time = shared_.now();
    if (time - reported_at_ < settle_time)
        shared_.settling.insert({time + settle_time, number_});
    reported_ = now;
    reported_at_ = time;
    shared_.listener.module_presence_changed(number_, now);
}

/* A missing right is reported for ports whose modules are read through the interface. An answer
   from a port on a bus of its own doesn't concern it. */
void polled_module::note_access(int error)
{
    const bool was_denied = std::exchange(was_denied_, error == EPERM);
    if (!by_reader_ || shared_.access_error == error)
        return;
    if (error == 0 && shared_.access_error == EPERM && !was_denied)
        return;
    shared_.access_error = error;
    shared_.listener.module_access_changed(error);
}

} // namespace linux_board
