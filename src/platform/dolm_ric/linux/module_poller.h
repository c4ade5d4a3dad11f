/* SPDX-License-Identifier: Apache-2.0 */
/* module_poller - schedules the readings of all modules; polled_module interprets them. State with
   a clock and an access passed in; one thread.

   Each second a few bytes of the identity are read: they show whether a module was inserted,
   removed or replaced. A replaced module is reported as a removal and an insertion. Diagnostics are
   read every few seconds, and sooner on demand. The identity bytes are read after them each time,
   so that values are never assigned to another module.

   Readings are made one at a time. A reading that fails slowly delays all ports, so a port with
   such failures is set apart: these ports get a small share of the time. Of the other ports, slow
   ones are read less often, so that all together take at most a hundredth of the time, as long as
   their values stay young enough to be returned. */
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

    /* If the values are older, a client's read causes a new reading. */
    static constexpr std::chrono::seconds wanted_age{1};

    module_poller(module_access &access, module_listener &listener, clock now);

    /* Starts polling the port's module; `by_reader`: through a reader, which may be missing. */
    void add(uint32_t port, bool by_reader);
    /* Sets whether wrong checksums of the port's modules are ignored. */
    void trust_sums(uint32_t port, bool trusted);
    /* Another tool may change the content of the port's module, such as its firmware: all of it is
       read again as soon as possible. */
    void identify_again(uint32_t port);
    /* Sets whether the driver of the port's interface logs each failed reading: if so, it is asked
       about an empty cage only when there is a reason. */
    void expect_logging(uint32_t port, bool logs_failures);

    /* Sets the index of the port's interface; 0: there is none, and so no module. Bytes from
       another interface are refused; bytes that come from no interface are accepted. */
    void set_interface(uint32_t port, int32_t index);

    /* A module may have been inserted or removed in some port: all ports are looked at soon. */
    void hint();
    /* A module may have been inserted into this port, as after any message about its interface: the
       port is looked at soon, unless its module answers. */
    void look_now(uint32_t port);
    /* The link of a port changed, so its measured values changed, too. */
    void link_changed(uint32_t port);
    /* A client reads the measured values of the port: the module is read again if they are older
       than wanted_age. */
    void diagnostics_wanted(uint32_t port);

    /* When step() has something to do. */
    time_point next_due() const;
    /* Makes the most urgent readings, at most most_pieces. */
    void step();

    /* Whether each port has been looked at once, and each module that was found has been read. */
    bool is_first_look_over() const;

  private:
    struct polled {
        polled_module module;
        bool is_apart = true;
        std::optional<time_point> queued_at = {};
        duration spent{}; /* time that readings took in the present window */
        double pace = 1;  /* as set by polled_module::set_pace() */
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
    queue prompt_queue_; /* ports that answer quickly */
    queue apart_queue_;  /* ports that were never read, are slow, or fail */
    time_point window_begin_ = {}, window_end_ = {}; /* in which shares of time are measured */
    time_point apart_from_ = {};                     /* no earlier reading of ports set apart */
};

} // namespace linux_board
