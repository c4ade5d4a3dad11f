/* SPDX-License-Identifier: Apache-2.0 */
/* desk - what the library does for its caller whatever the ports are: who subscribes to what, the
   events that wait, the failures that somebody ordered, and how often each operation was called.

   One lock guards the desk and the port source behind it. Whoever calls a method or reads a member
   holds it. */
#pragma once

#include "platform/dolm_ric/port_source.h"
#include "platform/dolm_ric/simulator/board_text.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace board
{

/* How many subscriptions of each kind the caller holds on a port. */
struct subscriptions {
    uint32_t port = 0;
    uint32_t link = 0;
};
using subscription_kind = uint32_t subscriptions::*;

struct failure {
    static constexpr uint64_t always = UINT64_MAX;

    operation op;
    int32_t code;
    uint64_t left = always; /* calls that still fail */
    port_list ports = {};   /* empty: whatever the port */
};

class desk final : public port_events
{
  public:
    std::mutex lock;

    /* To be read only. */
    std::vector<subscriptions> held;
    std::vector<failure> orders;
    std::array<uint64_t, operation_count> calls = {};
    uint64_t events_queued = 0; /* since open */

    /* Starts afresh for a board with this many ports. */
    void open(uint32_t ports);
    /* Queues the event that ends the event thread; nothing is queued after it. */
    void close();
    bool is_open() const;

    void count_call(operation op);
    /* The code of the failure ordered last for this call, which uses it up; 0 if there is none. */
    int32_t ordered_failure(operation op, uint32_t port);
    void order_failure(failure order);
    /* Of one operation or of all. Returns how many orders there were. */
    size_t withdraw_failures(std::optional<operation> op);

    /* A port may be subscribed more than once. False for what isn't held. */
    void subscribe(uint32_t port, subscription_kind kind);
    bool unsubscribe(uint32_t port, subscription_kind kind);

    /* Queue an event where somebody subscribes. */
    void port_changed(const dolm_ric_port_status &now) override;
    void link_changed(const dolm_ric_link_status &now) override;
    /* Queues any event, whoever subscribes. */
    void queue_raw(const dolm_ric_event &event);

    /* Blocks, without the lock, until there is an event or a failure ordered for waitevent. After
       the last event it gives DOLM_RICERR_SHUTDOWN. */
    int32_t wait_event(std::unique_lock<std::mutex> &guard, dolm_ric_event *&event);
    /* Takes an event back; false if it isn't one that is out. */
    bool free_event(const dolm_ric_event *event);

    size_t events_waiting() const;
    size_t events_out() const;
    /* All events came back and the event thread waits for more. */
    bool idle() const;

    /* From now on each counted call wakes this eventfd; -1 for none. */
    void watch_calls(int eventfd);

  private:
    struct queued_event {
        std::unique_ptr<dolm_ric_event> event;
        bool raw;
    };

    bool wanted(const dolm_ric_event &event) const;
    void queue(const dolm_ric_event &event, bool raw);
    std::unique_ptr<dolm_ric_event> take_event();

    std::condition_variable changed;
    std::deque<queued_event> events;
    std::vector<std::unique_ptr<dolm_ric_event>> out;
    bool open_now = false;
    bool event_thread_waits = false;
    int watcher = -1;
};

} // namespace board
