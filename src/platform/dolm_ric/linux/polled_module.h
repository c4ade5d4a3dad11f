/* SPDX-License-Identifier: Apache-2.0 */
/* polled_module - the state of one port's module, by its readings: present or not, its identity and
   its values. It chooses the next reading and takes its result; the module_poller makes it. State
   with a clock passed in; used by the module_poller, on its thread.

   A port is empty, or its module is being identified, or the module is in use. If the identity
   bytes change, the module is identified again while the old one stays reported: the reading may
   have been disturbed. The old module is reported as removed only when another identity has been
   read, or no valid one for a second.

   Values that no module can reach within one period are read again at once, before they are
   reported.

   For an empty cage drivers may give any error. So a port that never answered counts as an empty
   cage, and after an answer the module counts as present for some seconds more, unless the driver
   says that there is none. Readings that a client caused don't count here.

   An optional range that can't be read, or is invalid, is tried again after pauses that grow. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"
#include "platform/dolm_ric/linux/module_access.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace linux_board
{

enum class module_presence : uint8_t { absent, not_ready, ready };

/* Consecutive readings of one port. */
struct reading_cost {
    std::span<const piece> pieces; /* with their errors; ECANCELED: this one wasn't read */
    std::chrono::steady_clock::duration time;   /* of all pieces; divided evenly within a packet */
    std::chrono::steady_clock::duration period; /* present time between two sweeps of the port */
    bool is_sweep;                              /* these are a reading of all measured values */
    bool has_module;                            /* a module was known before these readings */
};

/* Whether the error means that the module itself wasn't asked. */
bool is_unanswered(int error);

struct module_listener {
    virtual ~module_listener() = default;
    /* Until that time, by util::boot_time(), the port's module is not read, as another tool has
       leased it; a time in the past ends the lease. Called when it changes. */
    virtual void module_leased(uint32_t /*port*/, std::chrono::steady_clock::time_point /*until*/)
    {
    }
    /* The cost of readings; called before their results are reported. */
    virtual void module_cost(uint32_t /*port*/, const reading_cost & /*cost*/)
    {
    }
    /* A reading of the values is doubted and repeated. Its flags must be taken now, since the
       reading has cleared them in the module. */
    virtual void reading_doubted(uint32_t /*port*/, const module_memory & /*memory*/,
                                 const module_contents & /*contents*/)
    {
    }
    /* A doubted reading was dropped, as the second reading didn't confirm it. */
    virtual void reading_dropped(uint32_t /*port*/)
    {
    }
    /* The bytes read of a module, and the decoded contents, after each reading of its identity or
       values; also called where `module_read` isn't. */
    virtual void module_sampled(uint32_t /*port*/, const module_memory & /*memory*/,
                                const module_contents & /*contents*/)
    {
    }
    /* `contents` are the module's present contents; `read_at` is when they were read. */
    virtual void module_read(uint32_t port, const module_contents &contents,
                             std::chrono::steady_clock::time_point read_at) = 0;
    /* The faults in the identity of a module that doesn't become ready: constant texts, reported
       once for each module. */
    virtual void module_doubted(uint32_t port, const std::vector<const char *> &reasons) = 0;
    /* Called on each change; for a module that became ready, after its contents. When two changes
       were close together, the last one is reported again after a while, for a caller that handles
       queued events in another order. */
    virtual void module_presence_changed(uint32_t port, module_presence now) = 0;
    /* Readings fail because there is no reader or no right to read; 0: they work again. Called once
       per change. */
    virtual void module_access_changed(int error) = 0;
};

/* The data that all modules of one poller share. */
struct shared_by_modules {
    using time_point = std::chrono::steady_clock::time_point;

    module_listener &listener;
    std::function<time_point()> now;
    std::set<std::pair<time_point, uint32_t>> settling = {}; /* ports to report again, and when */
    int access_error = 0;                                    /* the error reported last */
};

/* Readings due within this time are made together with those due now, which saves wake-ups. */
constexpr std::chrono::milliseconds early_by{50};

enum class task_kind : uint8_t { look, identity, diagnostics, missing };

/* A range and its pieces, which are consecutive in the packet. */
struct ranged {
    memory_range range;
    size_t first = 0;
    size_t count = 0;
};

/* Consecutive readings of one module, and their results. */
struct reading_task {
    uint32_t port;
    int32_t interface;
    task_kind kind = task_kind::look;
    std::vector<ranged> ranges = {};
    std::vector<piece> pieces = {};

    /* Cuts the range into pieces. Returns false, and adds nothing, if there is no room. */
    bool add(const reading_step &step);
    /* This task without its first `count` ranges. */
    reading_task behind(size_t count) const;
    /* The error of the first failed piece; ESTALE if another interface answered; or 0. */
    int error_of(const ranged &read) const;
    std::vector<uint8_t> bytes_of(const ranged &read) const;
};

class polled_module
{
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;

    polled_module(uint32_t port, shared_by_modules &shared);

    /* Whether a reader, which may be missing, reads the module. */
    void read_by(bool a_reader)
    {
        by_reader_ = a_reader;
    }
    /* See the functions of module_poller with these names. */
    void trust_sums(bool trusted);
    void identify_again();
    void expect_logging(bool logs_failures)
    {
        logs_failures_ = logs_failures;
    }
    void set_interface(int32_t index);
    void hint();
    void look_now();
    void link_changed();
    void diagnostics_wanted(duration wanted_age);

    /* Sets how many times longer than usual the pauses between readings are, from 1 on. */
    void set_pace(double pace)
    {
        pace_ = pace;
    }
    /* Delays the next look; for a port whose readings only fail, and slowly. */
    void ask_rarely();

    /* When a task is due; nothing while there is no interface. */
    std::optional<time_point> next_due() const;
    /* The readings that are due at the time `now`. */
    reading_task make_task(time_point now) const;
    void take(const reading_task &done);
    /* Reports the presence again, some time after two changes that were close together. */
    void report_presence() const
    {
        shared_.listener.module_presence_changed(number_, reported_);
    }

    bool was_looked_at() const
    {
        return was_looked_at_;
    }
    /* Whether the first look needn't wait for this port. */
    bool is_out_of_reach() const
    {
        return interface_ == 0 || (by_reader_ && shared_.access_error != 0);
    }
    bool is_empty() const
    {
        return where_ == stage::empty;
    }
    bool is_identifying() const
    {
        return where_ == stage::identifying;
    }
    bool is_in_use() const
    {
        return where_ == stage::in_use;
    }
    /* Whether its readings have failed repeatedly. */
    bool is_failing() const;
    duration diagnostics_pause() const;

  private:
    enum class stage : uint8_t { empty, identifying, in_use };

    /* An optional range that could not be read, or was invalid, with the time of the next try and
       the pause before it. A range that could be read before is tried more often. */
    struct refused_range {
        memory_range range;
        bool was_there;
        time_point due;
        duration pause;
    };

    void take_look(const reading_task &done);
    void take_identity(const reading_task &done);
    void take_diagnostics(const reading_task &done);
    void take_missing(const reading_task &done);
    void finish_identity();
    void retry_identity(duration patience);
    void begin_identity(duration wait);
    void use_module(const module_contents &contents);
    void publish(const module_contents &contents);
    const refused_range *find_refused(const memory_range &range) const;
    void refuse(const memory_range &range);
    bool forget_old();
    time_point values_read_at() const;
    void find_missing();
    time_point due_of(const reading_step &step) const;
    task_kind due_kind(time_point now) const;
    void take_failure(int error);
    duration look_pause() const;
    duration slow_pause() const;
    duration pace_of_empty(int error) const;
    bool was_lost_lately() const;
    void note_answer();
    void note_silence();
    void remove_module();
    void set_presence(module_presence now);
    void note_access(int error);

    shared_by_modules &shared_;
    uint32_t number_;
    bool by_reader_ = true;
    bool was_denied_ = false;    /* the reader had no right to read the module */
    bool logs_failures_ = false; /* the driver logs failed readings */
    int32_t interface_ = 0;
    stage where_ = stage::empty;
    module_presence reported_ = module_presence::absent;
    module_memory memory_;                      /* of the module that is identified or in use */
    std::vector<refused_range> refused_;        /* refused ranges of that module */
    std::optional<dolm_sfp_info> old_identity_; /* of a module that may still be present */
    int tries_ = 0;                             /* tries to identify the module */
    uint32_t failures_ = 0;                     /* failures in a row */
    uint32_t empty_answers_ = 0;                /* "empty" answers at the end of these */
    uint32_t blank_readings_ = 0;               /* readings without values in a row */
    bool is_confirming_ = false;                /* a jump of the values is being confirmed */
    bool has_values_ = false;                   /* the listener has values of this module */
    bool has_answered_ = false;                 /* a module has answered on this interface */
    bool was_looked_at_ = false;
    time_point looked_at_ = {};
    time_point look_due_ = {};
    time_point identity_due_ = {};
    time_point diagnostics_due_ = {};
    time_point diagnostics_at_ = {};
    time_point diagnostics_tried_at_ = {};
    time_point missing_due_ = time_point::max();
    time_point identity_since_ = {}; /* when the present attempts to read the identity began */
    std::optional<time_point> failing_since_ = {};
    std::optional<time_point> lost_at_ = {}; /* when a module was removed because it kept failing */
    time_point answered_at_ = {};
    time_point reported_at_ = {};
    double pace_ = 1;
};

} // namespace linux_board
