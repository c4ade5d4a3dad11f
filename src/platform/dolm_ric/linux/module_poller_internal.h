/* SPDX-License-Identifier: Apache-2.0 */
/* The types that the two sources of module_poller share: the record of a port, and one task. Only
   the thread of the poller uses them. */
#pragma once

#include "platform/dolm_ric/linux/module_poller.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace linux_board
{

constexpr std::chrono::milliseconds look_interval{1000};
constexpr std::chrono::seconds diagnostics_interval{4}; /* the values are at most 5 s old */

/* A port whose readings cost much is read less often, so far that its values, which are given out
   for 15 s, don't get too old. */
constexpr double most_look_pace = 5;
constexpr double most_diagnostics_pace = 3;

constexpr std::chrono::seconds unlikely_interval{
    60}; /* for a port without a cage, or that only fails */

/* Between two readings of a range that is read slowly. */
constexpr std::chrono::seconds slow_interval{10};

constexpr bool is_part_of_identity(const reading_step &step)
{
    return step.when != reading_time::later && step.when != reading_time::slowly;
}

/* An answer that the driver gives so often in a row is no disturbance any more. */
constexpr uint32_t answers_when_empty = 2;
constexpr uint32_t failures_when_broken = 5;

/* A module is given up that fails for so long. Its port is looked at each second for a while then:
   a reset or an update of the firmware takes up to a minute. */
constexpr std::chrono::seconds keep_time{5};
constexpr std::chrono::minutes watch_time{1};

enum class stage : uint8_t { empty, identifying, in_use };
enum class task_kind : uint8_t { look, identity, diagnostics, missing };

/* An optional range that could not be read, or could not be true, when it is tried again, and the
   pause until then. One that was there before is missed more. */
struct refused_range {
    memory_range range;
    bool was_there;
    std::chrono::steady_clock::time_point due;
    std::chrono::steady_clock::duration pause;
};

struct module_poller::polled {
    uint32_t number = 0;
    bool by_reader = true;
    bool was_denied = false;    /* the reader lacked the right to read it */
    bool logs_failures = false; /* its driver does */
    int32_t interface = 0;
    stage where = stage::empty;
    module_presence reported = module_presence::absent;
    module_memory memory;                      /* of the module that is identified or in use */
    std::vector<refused_range> refused;        /* of that module */
    std::optional<dolm_sfp_info> old_identity; /* of a module that may still be there */
    int tries = 0;                             /* to identify it */
    uint32_t failures = 0;                     /* one after the other */
    uint32_t empty_answers = 0;                /* among them, the last ones */
    uint32_t blank_readings = 0;               /* of measured values, one after the other */
    bool is_confirming = false;                /* a jump of the values */
    bool has_values = false;                   /* the listener has some of this module */
    bool has_answered = false;                 /* as a module, on this interface */
    bool was_looked_at = false;
    bool is_apart = true;
    time_point looked_at = {};
    time_point look_due = {};
    time_point identity_due = {};
    time_point diagnostics_due = {};
    time_point diagnostics_at = {};
    time_point diagnostics_tried_at = {};
    time_point missing_due = time_point::max();
    time_point identity_since = {}; /* when the present attempts to read it began */
    std::optional<time_point> failing_since = {};
    std::optional<time_point> lost_at = {}; /* a module that failed was given up */
    time_point answered_at = {};
    time_point reported_at = {};
    std::optional<time_point> queued_at = {};
    duration spent{}; /* in the present window */
    double pace = 1;  /* how many times longer its pauses are */

    duration look_pause() const
    {
        return std::chrono::duration_cast<duration>(look_interval * std::min(pace, most_look_pace));
    }
    duration diagnostics_pause() const
    {
        return std::chrono::duration_cast<duration>(diagnostics_interval *
                                                    std::min(pace, most_diagnostics_pace));
    }

    refused_range *find_refused(const memory_range &range);
    /* When a range of the plan is to be read that is missing, or was refused; never if it is there.
     */
    time_point due_of(const reading_step &step) const;
    bool was_lost_lately(time_point now) const
    {
        return lost_at && now - *lost_at < watch_time;
    }
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
    /* The same without the first `count` ranges. */
    task behind(size_t count) const;
    int error_of(const ranged &read) const;
    std::vector<uint8_t> bytes_of(const ranged &read) const;
};

} // namespace linux_board
