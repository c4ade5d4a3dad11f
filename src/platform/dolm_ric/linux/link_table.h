/* SPDX-License-Identifier: Apache-2.0 */
/* link_table - which network interface each port is, and the events that the reports about those
   interfaces give. Pure state with the time passed in. One thread.

   A port is bound to the first interface that fits its name. From then on it follows that interface
   by the kernel's index, through renames, until the interface is deleted or moved to another
   namespace. Later it takes only an interface with the same parent device and port name, and with
   a name that fits or the one that its interface had last: the number of a port never moves.

   The kernel merges its messages, so falls are counted by its carrier counters. A caller that fills
   a filter by events gets as many falls as the counters, at most `max_falls` for one report, and
   then the true state. */
#pragma once

#include "platform/dolm_ric/linux/link_report.h"

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

/* The server's filter is full after so many falls. */
constexpr uint32_t max_falls = 5;

/* The states to announce for a link that was announced as `before`, fell so often and is now as
   `after`. Each state differs from the one before it; the last is `after`. */
std::vector<uint32_t> link_transitions(uint32_t before, uint32_t falls, uint32_t after);

/* Called in the thread that passes the reports in. */
struct link_listener {
    virtual ~link_listener() = default;
    virtual void link_changed(uint32_t port, const link_values &now) = 0;
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

    /* After a burst of events the state is announced once more when it has been quiet for so long:
       a caller that handles queued events in another order ends with the true state, too. */
    static constexpr std::chrono::milliseconds settle_time{200};

    /* A notice is sent by the kernel without a request and may be older than an answer, which is
       always the state of that moment. */
    enum class origin : uint8_t { notice, answer };

    explicit link_table(link_listener &listener);

    /* A port without an interface; its link is down. */
    void add(uint32_t port, port_filter fits);

    void take(const link_report &report, origin from, time_point now);
    /* The speed of an interface, as a code, and its lanes (0 if they aren't known). */
    void take_speed(int32_t index, uint32_t speed, uint32_t lanes, time_point now);
    /* The interface is gone. */
    void forget(int32_t index, time_point now);

    /* Ports whose interface isn't reported between the two calls have lost it. */
    void begin_dump();
    void end_dump(time_point now);

    /* When announce_settled is due next; nothing while all is settled. */
    std::optional<time_point> next_settling() const;
    void announce_settled(time_point now);

    /* The interface of a port, or 0. */
    int32_t index_of(uint32_t port) const;
    /* The port of an interface. */
    std::optional<uint32_t> port_of(int32_t index) const;

  private:
    struct port_link {
        uint32_t number;
        port_filter fits;
        int32_t index = 0;
        bool was_bound = false;
        std::string parent, port_name; /* of the first interface */
        std::string last_name;         /* of the interface that it has or had */
        link_report last;
        uint32_t speed = 0; /* as it was taken last */
        uint32_t lanes = 0;
        link_values announced;
        time_point announced_at = {};
        std::optional<time_point> settles_at;
    };

    static link_values values_of(const port_link &link, uint32_t state);
    port_link *find_free(const link_report &report);
    port_link *bind(const link_report &report);
    void update(port_link &link, const link_report &report, bool is_same, time_point now);
    void announce(port_link &link, const std::vector<uint32_t> &states, time_point now);

    link_listener &listener_;
    std::map<uint32_t, port_link> links_;
    std::map<int32_t, uint32_t> ports_; /* by index */
    std::set<int32_t> reported_;        /* since begin_dump */
};

} // namespace linux_board
