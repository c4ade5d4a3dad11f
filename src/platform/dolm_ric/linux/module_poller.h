/* SPDX-License-Identifier: Apache-2.0 */
/* module_poller - schedules the readings of all modules, and derives the presence of modules from
   them. State with a clock and an access passed in; one thread.

   Each second a few bytes of the identity are read: they show whether a module was inserted,
   removed or replaced. A replaced module is reported as a removal and an insertion. Diagnostics are
   read every few seconds and sooner on demand, always with the identity bytes behind them, so that
   no value is taken for that of another module.

   Values that no module reaches within one period are read again at once, before anybody sees them.

   Drivers answer for an empty cage with any error. So a port that never answered counts as an empty
   cage, and one that had a module keeps it for some seconds, unless the driver says that there is
   none. No client's read counts for that.

   An optional range that can't be read or can't be true is tried again, after pauses that grow.

   Readings are made one at a time. A reading that fails slowly costs all ports time, so a port that
   fails so is set apart: such ports get a small share of the time. Of the others those whose
   readings take long are read less often, so that these together take a hundredth of the time, as
   far as their values stay young enough to be given out. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"
#include "platform/dolm_ric/linux/module_access.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
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
    bool has_module;                            /* one was known of before */
};

/* Of errors that say nothing about the module, since nobody could ask it. */
bool is_unheard(int error);

struct module_listener {
    virtual ~module_listener() = default;
    /* The module of the port is left alone until then, by util::boot_time(), for another tool; a
       time in the past ends that. Called when it changes. */
    virtual void module_leased(uint32_t /*port*/, std::chrono::steady_clock::time_point /*until*/)
    {
    }
    /* Before the conclusions from these readings are reported. */
    virtual void module_cost(uint32_t /*port*/, const reading_cost & /*cost*/)
    {
    }
    /* A reading of the values isn't taken, and made again: its flags are lost otherwise. */
    virtual void reading_doubted(uint32_t /*port*/, const module_memory & /*memory*/,
                                 const module_contents & /*contents*/)
    {
    }
    /* It was dropped, as the second one disagreed with what it alone had. */
    virtual void reading_dropped(uint32_t /*port*/)
    {
    }
    /* What has been read of a module, and what that means, after each reading of its identity or
       values, those that `module_read` isn't called for among them. */
    virtual void module_sampled(uint32_t /*port*/, const module_memory & /*memory*/,
                                const module_contents & /*contents*/)
    {
    }
    /* `contents` is what the module holds now, read at that time. */
    virtual void module_read(uint32_t port, const module_contents &contents,
                             std::chrono::steady_clock::time_point read_at) = 0;
    /* What is wrong with the identity of a module that doesn't become ready, once for each module:
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

class module_poller
{
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;
    using clock = std::function<time_point()>;

    /* Older values are read again when a client reads them. */
    static constexpr std::chrono::seconds wanted_age{1};

    module_poller(module_access &access, module_listener &listener, clock now);
    ~module_poller();

    /* A port whose module is to be polled, from now on; by a reader that may be missing, or not. */
    void add(uint32_t port, bool by_reader);
    /* Wrong checksums of the port's modules are taken for right ones, or not any more. */
    void trust_sums(uint32_t port, bool trusted);
    /* Another tool may change what the port's module holds, its firmware for one: all of it is read
       again, as soon as it can be. */
    void identify_again(uint32_t port);
    /* The driver of the port's interface logs each reading that fails, or not: it is asked about an
       empty cage only when there is a reason. */
    void expect_logging(uint32_t port, bool logs_failures);

    /* The interface of a port: its index, or 0 while it isn't there; the port has no module then.
       Bytes that another interface gave are not taken, those of no interface are. */
    void set_interface(uint32_t port, int32_t index);

    /* A module may have been inserted or removed in some port: look at all ports soon. */
    void hint();
    /* The same for one port, as after any message about its interface: looks at once if it has no
       module that answers. */
    void look_now(uint32_t port);
    /* The link of a port changed, so its measured values did, too. */
    void link_changed(uint32_t port);
    /* A client reads the measured values of the port: reads the module again if they are older. */
    void diagnostics_wanted(uint32_t port);

    /* When step() has something to do. */
    time_point next_due() const;
    /* Makes what is due most urgently, at most most_pieces readings. */
    void step();

    /* Whether each port has been looked at once, with the module that was found there read. */
    bool is_first_look_over() const;

  private:
    struct polled;
    struct task;
    using queue = std::set<std::pair<time_point, uint32_t>>;

    void set_paces(time_point now);
    void schedule(polled &port);
    task make_task(polled &port) const;
    std::vector<task> choose_tasks(time_point now);
    void take_results(std::vector<task> &tasks, duration cost);
    void take_result(const task &done);
    void pause_apart(polled &port, bool was_known, bool slow, duration cost);

    void take_look(polled &port, const task &done);
    void take_identity(polled &port, const task &done);
    void take_diagnostics(polled &port, const task &done);
    void take_missing(polled &port, const task &done);
    void finish_identity(polled &port);
    void retry_identity(polled &port, duration patience);
    void begin_identity(polled &port, duration wait);
    void use_module(polled &port, const module_contents &contents);
    void publish(polled &port, const module_contents &contents);
    void refuse(polled &port, const memory_range &range);
    void find_missing(polled &port);
    void take_failure(polled &port, int error);
    duration pace_of_empty(const polled &port, int error) const;
    void note_answer(polled &port);
    void note_silence(polled &port);
    void remove_module(polled &port);
    void set_presence(polled &port, module_presence now);
    void announce_settled(time_point now);
    void note_access(polled &port, int error);

    module_access &access_;
    module_listener &listener_;
    clock now_;
    std::map<uint32_t, polled> ports_;
    queue prompt_queue_; /* ports that answer in time */
    queue apart_queue_;  /* ports that were never read, are slow, or fail */
    queue settling_;     /* presences that are reported once more at that time */
    time_point window_begin_ = {}, window_end_ = {}; /* of the shares of time */
    time_point apart_from_ = {};                     /* no port that is set apart is read before */
    int access_error_ = 0;
};

} // namespace linux_board
