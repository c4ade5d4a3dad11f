/* SPDX-License-Identifier: Apache-2.0 */
/* module_poller - schedules the readings of all modules; what they mean is polled_module's. State
   with a clock and an access passed in; one thread.

   Each second a few bytes of the identity are read: they show whether a module was inserted,
   removed or replaced. A replaced module is reported as a removal and an insertion. Diagnostics are
   read every few seconds and sooner on demand, always with the identity bytes behind them, so that
   no value is taken for that of another module.

   Readings are made one at a time. A reading that fails slowly costs all ports time, so a port that
   fails so is set apart: such ports get a small share of the time. Of the others those whose
   readings take long are read less often, so that these together take a hundredth of the time, as
   far as their values stay young enough to be given out. */
#pragma once

#include "platform/dolm_ric/linux/module_access.h"
#include "platform/dolm_ric/linux/polled_module.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace linux_board
{

class module_poller
{
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;
    using clock = std::function<time_point()>;

    /* Older values are read again when a client reads them. */
    static constexpr std::chrono::seconds wanted_age{1};

    module_poller(module_access &access, module_listener &listener, clock now);

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
    /* A module may have been inserted into this port, as after any message about its interface:
       look at it soon, unless it has a module that answers. */
    void look_now(uint32_t port);
    /* The link of a port changed, so its measured values did, too. */
    void link_changed(uint32_t port);
    /* A client reads the measured values of the port: reads the module again if they are older. */
    void diagnostics_wanted(uint32_t port);

    /* When step() has something to do. */
    time_point next_due() const;
    /* Makes the readings that are most urgent, at most most_pieces of them. */
    void step();

    /* Whether each port has been looked at once, with the module that was found there read. */
    bool is_first_look_over() const;

  private:
    struct polled {
        polled_module module;
        bool is_apart = true;
        std::optional<time_point> queued_at = {};
        duration spent{}; /* in the present window */
        double pace = 1;  /* as set for the module */
    };
    using queue = std::set<std::pair<time_point, uint32_t>>;

    void with(uint32_t port, const std::function<void(polled_module &)> &what);
    void schedule(uint32_t number, polled &port);
    void set_paces(time_point now);
    std::vector<reading_task> choose_tasks(time_point now);
    void take_results(const std::vector<reading_task> &tasks, duration cost);
    void pause_apart(polled_module &its, bool was_known, bool slow, duration cost);
    void announce_settled(time_point now);

    module_access &access_;
    shared_by_modules shared_;
    std::map<uint32_t, polled> ports_;
    queue prompt_queue_; /* ports that answer in time */
    queue apart_queue_;  /* ports that were never read, are slow, or fail */
    time_point window_begin_ = {}, window_end_ = {}; /* of the shares of time */
    time_point apart_from_ = {};                     /* no port that is set apart is read before */
};

} // namespace linux_board
