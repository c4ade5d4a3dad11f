/* SPDX-License-Identifier: Apache-2.0 */
/* polled_module - the module of one port, as its readings show it: whether one is there, which one,
   and its values. It makes no reading: it says which is due next, and takes what came of it. State
   with a clock passed in; used by the module_poller, on its thread.

   A port is empty, or its module is being identified, or the module is in use. A port whose
   identity bytes changed goes back to being identified, while its old module stays reported: the
   change may have been a disturbed reading. Only when another identity has been read, or nothing
   sensible for a second, is the old module reported as removed.

   Values that no module reaches within one period are read again at once, before anybody sees them.

   Drivers answer for an empty cage with any error. So a port that never answered counts as an empty
   cage, and one that had a module keeps it for some seconds, unless the driver says that there is
   none. No client's read counts for that.

   An optional range that can't be read or can't be true is tried again, after pauses that grow. */
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

/* Readings of one port that were made one behind the other. */
struct reading_cost {
    std::span<const piece> pieces; /* with their errors; ECANCELED is of one that wasn't made */
    std::chrono::steady_clock::duration time;   /* of all; shared out evenly within a packet */
    std::chrono::steady_clock::duration period; /* between two sweeps of the port, at present */
    bool is_sweep;                              /* a reading of all measured values */
    bool has_module;                            /* a module was known before these readings */
};

/* Whether the error is one of the way to the module, so that the module itself wasn't asked. */
bool is_unanswered(int error);

struct module_listener {
    virtual ~module_listener() = default;
    /* The module of the port is left alone until then, by util::boot_time(), for another tool; a
       time in the past ends that. Called when it changes. */
    virtual void module_leased(uint32_t /*port*/, std::chrono::steady_clock::time_point /*until*/)
    {
    }
    /* The cost of readings; called before the conclusions from them are reported. */
    virtual void module_cost(uint32_t /*port*/, const reading_cost & /*cost*/)
    {
    }
    /* A reading of the values is doubted and made again. Its flags must be taken now, since the
       module has cleared them. */
    virtual void reading_doubted(uint32_t /*port*/, const module_memory & /*memory*/,
                                 const module_contents & /*contents*/)
    {
    }
    /* A doubted reading was dropped, as the second one didn't confirm it. */
    virtual void reading_dropped(uint32_t /*port*/)
    {
    }
    /* The bytes read of a module, and the decoded contents, after each reading of its identity or
       values, also where `module_read` isn't called. */
    virtual void module_sampled(uint32_t /*port*/, const module_memory & /*memory*/,
                                const module_contents & /*contents*/)
    {
    }
    /* `contents` is what the module holds now, read at that time. */
    virtual void module_read(uint32_t port, const module_contents &contents,
                             std::chrono::steady_clock::time_point read_at) = 0;
    /* The faults in the identity of a module that doesn't become ready, once for each module:
       constant texts. */
    virtual void module_doubted(uint32_t port, const std::vector<const char *> &reasons) = 0;
    /* Reported on each change, after the contents of a module that is ready. When one change
       followed another closely the last is reported once more after a while, for a caller that
       handles queued events in another order. */
    virtual void module_presence_changed(uint32_t port, module_presence now) = 0;
    /* Readings fail because there is no reader or no right to read, or work again (0). Called once
       per change. */
    virtual void module_access_changed(int error) = 0;
};

/* The data that all modules of one poller share. */
struct shared_by_modules {
    using time_point = std::chrono::steady_clock::time_point;

    module_listener &listener;
    std::function<time_point()> now;
    std::set<std::pair<time_point, uint32_t>> settling = {}; /* ports whose presence is reported
                                                                once more at that time */
    int access_error = 0;                                    /* as reported last */
};

/* Readings due so soon are made together with those due now, which saves wake-ups. */
constexpr std::chrono::milliseconds early_by{50};

enum class task_kind : uint8_t { look, identity, diagnostics, missing };

/* A range and its pieces, which stand together in the packet. */
struct ranged {
    memory_range range;
    size_t first = 0;
    size_t count = 0;
};

/* Readings of one module that are made one behind the other, and their results. */
struct reading_task {
    uint32_t port;
    int32_t interface;
    task_kind kind = task_kind::look;
    std::vector<ranged> ranges = {};
    std::vector<piece> pieces = {};

    /* Cuts the range into pieces. False, and nothing added, if it doesn't fit any more. */
    bool add(const reading_step &step);
    /* This task without its first `count` ranges. */
    reading_task behind(size_t count) const;
    /* Of the first piece that failed; ESTALE if another interface answered; or 0. */
    int error_of(const ranged &read) const;
    std::vector<uint8_t> bytes_of(const ranged &read) const;
};

class polled_module
{
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;

    polled_module(uint32_t port, shared_by_modules &shared);

    /* By a reader that may be missing, or by something that is always there. */
    void read_by(bool a_reader)
    {
        by_reader_ = a_reader;
    }
    /* As the functions of the module_poller that have these names. */
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

    /* How many times longer than usual the pauses between its readings are, from 1 on. */
    void set_pace(double pace)
    {
        pace_ = pace;
    }
    /* For a port that only fails, and slowly: the next look comes late. */
    void ask_rarely();

    /* When a task is due; never while there is no interface. */
    std::optional<time_point> next_due() const;
    /* The readings that are due at that time. */
    reading_task make_task(time_point now) const;
    void take(const reading_task &done);
    /* Reports the presence once more, some while after two changes that came close together. */
    void report_presence() const
    {
        shared_.listener.module_presence_changed(number_, reported_);
    }

    bool was_looked_at() const
    {
        return was_looked_at_;
    }
    /* The first look needn't wait for this port. */
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
    /* Its readings have failed repeatedly. */
    bool is_failing() const;
    duration diagnostics_pause() const;

  private:
    enum class stage : uint8_t { empty, identifying, in_use };

    /* An optional range that could not be read, or could not be true, when it is tried again, and
       the pause until then. One that was there before is missed more. */
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
    bool was_denied_ = false;    /* the reader lacked the right to read it */
    bool logs_failures_ = false; /* the driver logs failures */
    int32_t interface_ = 0;
    stage where_ = stage::empty;
    module_presence reported_ = module_presence::absent;
    module_memory memory_;                      /* of the module that is identified or in use */
    std::vector<refused_range> refused_;        /* of that module */
    std::optional<dolm_sfp_info> old_identity_; /* of a module that may still be there */
    int tries_ = 0;                             /* to identify it */
    uint32_t failures_ = 0;                     /* one after the other */
    uint32_t empty_answers_ = 0;                /* among them, the last ones */
    uint32_t blank_readings_ = 0;               /* of measured values, one after the other */
    bool is_confirming_ = false;                /* a jump of the values */
    bool has_values_ = false;                   /* the listener has some of this module */
    bool has_answered_ = false;                 /* as a module, on this interface */
    bool was_looked_at_ = false;
    time_point looked_at_ = {};
    time_point look_due_ = {};
    time_point identity_due_ = {};
    time_point diagnostics_due_ = {};
    time_point diagnostics_at_ = {};
    time_point diagnostics_tried_at_ = {};
    time_point missing_due_ = time_point::max();
    time_point identity_since_ = {}; /* when the present attempts to read it began */
    std::optional<time_point> failing_since_ = {};
    std::optional<time_point> lost_at_ = {}; /* a module that kept failing was removed */
    time_point answered_at_ = {};
    time_point reported_at_ = {};
    double pace_ = 1;
};

} // namespace linux_board
