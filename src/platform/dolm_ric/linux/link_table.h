/* SPDX-License-Identifier: Apache-2.0 */
/* link_table - which network interface each port is, and the events that the reports about those
   interfaces give. Pure state with the time passed in. One thread.

   A port is bound to the first interface that fits its name. From then on it follows that interface
   by the kernel's index, through renames, until the interface is deleted or moved to another
   namespace. Later it takes only an interface with the same parent device and port name, and with
   a name that fits or the one that its interface had last: the number of a port never moves.

   The kernel merges its messages, so falls are counted by its carrier counters. A caller that fills
   a filter by events gets as many falls as the counters, at most `max_falls` in one burst. The
   changes that follow in the burst are held back until it is over or has lasted for another
   `settle_time`: one fall and the true state are announced then. A caller that reads the link for
   each event, while each read may find as many falls again, so ends up with a few events.

   That caller takes "stopped" and "down" for one state, and an event without a change of state for
   nothing to report. So the way from one of the two to the other gives no event, and a link whose
   speed changes while it stays up is announced as one fall: it was negotiated anew. */
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

/* As dolm_ric_link_status has them. */
struct link_values {
    uint32_t state;
    uint32_t speed; /* a code; 0 while the link isn't operational */
    uint32_t lanes; /* between port and module; 0 until they are known */

    bool operator==(const link_values &) const = default;
};

/* The server's filter is full after so many falls, and has room for one more after settle_time at
   the earliest. */
constexpr uint32_t max_falls = 5;

/* The states to announce for a link that was announced as `before`, fell so often and is now as
   `after`: in turn operational and not; the last is `after`. */
std::vector<uint32_t> link_transitions(uint32_t before, uint32_t falls, uint32_t after);

struct link_speed {
    uint32_t code = 0;     /* 0 if it isn't known */
    uint32_t lanes = 0;    /* 0 if not known */
    uint32_t megabits = 0; /* 0 if not known */
    std::optional<bool> is_full_duplex = {};
    std::optional<bool> is_negotiated = {};
};

/* A notice was sent by the kernel of its own accord and may be older than an answer, which is
   always the state of that moment. Before a late notice others were lost, or it waited for long. */
enum class report_origin : uint8_t { notice, late_notice, answer };

/* Called in the thread that passes the reports in. */
struct link_listener {
    virtual ~link_listener() = default;
    /* Each report that is taken, with the growth of both counters since the one before. */
    virtual void link_reported(uint32_t /*port*/, const link_report & /*now*/, uint32_t /*falls*/,
                               uint32_t /*rises*/, report_origin /*from*/)
    {
    }
    /* The interface of the port is leaving it. */
    virtual void interface_leaves(uint32_t /*port*/, board::departure /*how*/)
    {
    }
    /* An answer about the speed. */
    virtual void speed_reported(uint32_t /*port*/, const link_speed & /*now*/)
    {
    }
    /* Queues an event. Reads are answered with its values from now on. */
    virtual void link_changed(uint32_t port, const link_values &now) = 0;
    /* Reads are answered with these values from now on; the event is held back, or there is none.
     */
    virtual void link_known(uint32_t /*port*/, const link_values & /*now*/)
    {
    }
    /* The link fell so often since the report before, by the kernel's counters; before the events.
     */
    virtual void link_fell(uint32_t /*port*/, uint32_t /*falls*/)
    {
    }
    /* A port got an interface, that interface got another name, or the port lost it (nullptr). */
    virtual void interface_changed(uint32_t port, const link_report *now) = 0;
    /* A report is about an interface that no port has or takes. */
    virtual void interface_left_out(const link_report & /*report*/)
    {
    }
};

class link_table
{
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using port_filter = std::function<bool(const link_report &)>;
    /* The speed of the interface with that index; nothing if it can't be asked for now. */
    using speed_source = std::function<std::optional<link_speed>(int32_t index)>;

    /* After a burst of events the state is announced once more when it has been quiet for so long:
       a caller that handles queued events in another order ends with the true state, too. */
    static constexpr std::chrono::milliseconds settle_time{200};

    /* A speed that was taken so long ago is old, even if the link hasn't risen since. */
    static constexpr std::chrono::milliseconds speed_age{50};

    using origin = report_origin;

    /* `ask_speed` is called for a link that has risen, before its rise is announced. */
    explicit link_table(link_listener &listener, speed_source ask_speed = {});

    /* Adds a port without an interface, whose link is down. */
    void add(uint32_t port, port_filter fits);
    /* From now on that filter says which interface is the port's; a new port is added. False, and
       nothing is changed, if the port has or had another interface; not asked where the filter is
       the same as before. */
    bool change(uint32_t port, port_filter fits, bool is_same);
    /* Takes the interface away from the port until change() gives it back. */
    void take_out(uint32_t port, time_point now);

    void take(const link_report &report, origin from, time_point now);
    /* The speed that an interface has now. */
    void take_speed(int32_t index, const link_speed &speed, time_point now);
    /* Whether a port's link is operational and its speed isn't known, or is old. */
    bool is_speed_wanted(int32_t index, time_point now) const;
    /* Whether the interface belongs to a port and its link is operational. */
    bool is_up(int32_t index) const;
    /* Removes the interface from its port, whose link is then down. */
    void forget(int32_t index, time_point now, board::departure how = board::departure::unknown);

    /* Ports whose interface isn't reported between the two calls have lost it. */
    void begin_dump();
    void end_dump(time_point now);

    /* When announce_settled is due next; nothing while all is settled. */
    std::optional<time_point> next_settling() const;
    void announce_settled(time_point now);

    /* The interface of a port, or 0. */
    int32_t index_of(uint32_t port) const;
    /* All interfaces that are ports. */
    std::set<int32_t> indices() const;
    /* The port of an interface. */
    std::optional<uint32_t> port_of(int32_t index) const;

  private:
    struct port_link {
        uint32_t number;
        port_filter fits;
        int32_t index = 0;
        bool is_out = false;
        std::optional<link_report> lost; /* of the interface that it had */
        link_report last;
        uint32_t speed = 0; /* the last report that was taken */
        uint32_t lanes = 0;
        std::optional<time_point> speed_at = {}; /* nothing if the link has risen since */
        link_values announced;
        time_point announced_at = {};
        uint32_t falls_left = max_falls; /* of this burst */
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
    std::set<int32_t> reported_;        /* since begin_dump */
};

} // namespace linux_board
