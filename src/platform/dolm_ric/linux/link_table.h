/* SPDX-License-Identifier: Apache-2.0 */
/* link_table - assigns a network interface to each port, and makes events from the reports about
   these interfaces. Pure state with the time passed in. One thread.

   A port is bound to the first interface that matches its filter, and keeps that interface by the
   kernel's index, through renames, until the interface is deleted or moved to another namespace.
   Later the port accepts only an interface with the same parent device and port name whose name
   matches the filter or is the last name of the earlier interface: a port number never moves to
   another interface.

   The kernel merges its messages, so falls are counted by its carrier counters. The caller, which
   fills a filter by events, gets as many falls as the counters show, at most `max_falls` in one
   burst. Later changes of the burst are held back until it is over or has lasted for another
   `settle_time`: then one fall and the present state are announced. So the number of events stays
   small although the caller reads the link for each event, and each read may find new falls.

   The caller treats "stopped" and "down" as one state and ignores an event without a change of
   state. So a change between these two gives no event, and a link whose speed changes while it
   stays up is announced as one fall, since it was negotiated again. */
#pragma once

#include "platform/dolm_ric/fall_facts.h"
#include "platform/linux_interfaces/link_report.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace linux_board
{

/* The values of dolm_ric_link_status. */
struct link_values {
    uint32_t state;
    uint32_t speed; /* a speed code; 0 while the link isn't operational */
    uint32_t lanes; /* number of lanes between port and module; 0: not known */

    bool operator==(const link_values &) const = default;
};

/* The server's filter is full after so many falls, and has room for another one after settle_time
   at the earliest. */
constexpr uint32_t max_falls = 5;

/* The states to announce for a link that was announced as `before`, fell `falls` times and is now
   `after`: operational and not operational in turn, with `after` at the end. */
std::vector<uint32_t> link_transitions(uint32_t before, uint32_t falls, uint32_t after);

struct link_speed {
    uint32_t code = 0;     /* 0: not known */
    uint32_t lanes = 0;    /* 0: not known */
    uint32_t megabits = 0; /* 0: not known */
    std::optional<bool> is_full_duplex = {};
    std::optional<bool> is_negotiated = {};
};

/* The kernel sends a notice of its own accord; it may be older than an answer, which is always the
   state of that moment. A notice is late if others were lost before it, or if it was queued for
   long. */
enum class report_origin : uint8_t { notice, late_notice, answer };

/* Called on the thread that passes the reports in. */
struct link_listener {
    virtual ~link_listener() = default;
    /* Each accepted report, with the growth of both counters since the previous one. */
    virtual void link_reported(uint32_t /*port*/, const link_report & /*now*/, uint32_t /*falls*/,
                               uint32_t /*rises*/, report_origin /*from*/)
    {
    }
    /* The interface leaves the port. */
    virtual void interface_leaves(uint32_t /*port*/, board::departure /*how*/)
    {
    }
    /* The speed that the kernel reported in an answer. */
    virtual void speed_reported(uint32_t /*port*/, const link_speed & /*now*/)
    {
    }
    /* Queues an event. From now on reads return its values. */
    virtual void link_changed(uint32_t port, const link_values &now) = 0;
    /* From now on reads return these values; the event is held back, or there is none. */
    virtual void link_known(uint32_t /*port*/, const link_values & /*now*/)
    {
    }
    /* The number of falls since the previous report, by the kernel's counters; called before the
       events. */
    virtual void link_fell(uint32_t /*port*/, uint32_t /*falls*/)
    {
    }
    /* A port got an interface, its interface was renamed, or the port lost its interface
       (nullptr). */
    virtual void interface_changed(uint32_t port, const link_report *now) = 0;
    /* A report about an interface that belongs to no port. */
    virtual void interface_left_out(const link_report & /*report*/)
    {
    }
};

class link_table
{
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using port_filter = std::function<bool(const link_report &)>;
    /* The speed of the interface with that index; nothing if it can't be requested now. */
    using speed_source = std::function<std::optional<link_speed>(int32_t index)>;

    /* When a link has been quiet for this time after a burst, its state is announced once more: a
       caller that handles queued events in another order gets the present state last, too. */
    static constexpr std::chrono::milliseconds settle_time{200};

    /* A speed that was taken longer ago counts as old, even if the link hasn't risen since. */
    static constexpr std::chrono::milliseconds speed_age{50};

    using origin = report_origin;

    /* `ask_speed` is called for a link that has risen, before the rise is announced. */
    explicit link_table(link_listener &listener, speed_source ask_speed = {});

    /* Adds a port without an interface; its link is down. */
    void add(uint32_t port, port_filter fits);
    /* Sets the filter that selects the port's interface; a new port is added. Returns false, and
       changes nothing, if the port has or had an interface that doesn't match; with `is_same`, the
       filter is the previous one and the interface isn't checked. */
    bool change(uint32_t port, port_filter fits, bool is_same);
    /* Takes the interface away from the port until change() is called for the port. */
    void take_out(uint32_t port, time_point now);

    void take(const link_report &report, origin from, time_point now);
    /* Stores the present speed of an interface. */
    void take_speed(int32_t index, const link_speed &speed, time_point now);
    /* Whether the port's link is operational and its speed isn't known, or is old. */
    bool is_speed_wanted(int32_t index, time_point now) const;
    /* Whether the interface belongs to a port and its link is operational. */
    bool is_up(int32_t index) const;
    /* Removes the interface from its port; the port's link is then down. */
    void forget(int32_t index, time_point now, board::departure how = board::departure::unknown);

    /* Ports whose interface isn't reported between begin_dump() and end_dump() have lost it. */
    void begin_dump();
    void end_dump(time_point now);

    /* When announce_settled() is due next; nothing if all links are settled. */
    std::optional<time_point> next_settling() const;
    void announce_settled(time_point now);

    /* The interface of a port, or 0. */
    int32_t index_of(uint32_t port) const;
    /* The interfaces of all ports. */
    std::set<int32_t> indices() const;
    /* The port of an interface. */
    std::optional<uint32_t> port_of(int32_t index) const;

  private:
    struct port_link {
        uint32_t number;
        port_filter fits;
        int32_t index = 0;
        bool is_out = false;
        std::optional<link_report> lost; /* last report of the interface that the port had */
        link_report last;
        uint32_t speed = 0; /* the last accepted report */
        uint32_t lanes = 0;
        std::optional<time_point> speed_at = {}; /* nothing if the link has risen since then */
        link_values announced;
        time_point announced_at = {};
        uint32_t falls_left = max_falls; /* falls of this burst that may still be announced */
        uint32_t falls_held = 0;
        bool is_held = false; /* an event */
        std::optional<time_point> settles_at;
    };

    static link_values values_of(const port_link &link, uint32_t state);
    void set_speed(port_link &link, const link_speed &speed, time_point now);
    port_link *find_free(const link_report &report);
    port_link *bind(const link_report &report);
    void update(port_link &link, const link_report &report, origin from, bool is_same,
                time_point now);
    void announce_or_hold(port_link &link, uint32_t falls, time_point now);
    bool announce(port_link &link, uint32_t falls, uint32_t state, time_point now);
    void settle(port_link &link, time_point now);

    link_listener &listener_;
    const speed_source ask_speed_;
    std::map<uint32_t, port_link> links_;
    std::map<int32_t, uint32_t> ports_; /* by index */
    std::set<int32_t> reported_;        /* interfaces reported since begin_dump() */
};

} // namespace linux_board
