/* SPDX-License-Identifier: Apache-2.0 */
/* core - the part of libdolm_ric that is the same for all ports: the caller's subscriptions and the
   queue of events.

   One lock guards the core and the port source behind it. All methods but `lock` are called with
   that lock held. */
#pragma once

#include "platform/dolm_ric/port_source.h"

#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

namespace board
{

/* How many subscriptions of each kind the caller holds on a port. */
struct subscriptions {
    uint32_t port = 0;
    uint32_t link = 0;
};
using subscription_kind = uint32_t subscriptions::*;

/* Observes the operations, and lets them fail. Only the simulator has one. */
struct call_hook {
    virtual ~call_hook() = default;
    /* An operation with a valid handle begins. */
    virtual void call_begins(operation op) = 0;
    /* The result code with which this call fails, 0 if it doesn't. `port` is 0 for operations that
       aren't about a port. */
    virtual int32_t injected_fault(operation op, uint32_t port) = 0;
};

struct event_counts {
    uint64_t queued;    /* since `open` */
    size_t waiting;     /* in the queue */
    size_t outstanding; /* delivered by wait_event and not yet freed */
};

class core final : public port_events
{
  public:
    [[nodiscard]] std::unique_lock<std::mutex> lock() override;

    /* Ends all subscriptions and empties the queue. */
    void open();
    /* Queues the event that ends the event thread; nothing is queued after it. */
    void close();
    bool is_open() const;

    /* Sets the hook; null, the default, means no hook. The hook must outlive its use. */
    void set_call_hook(call_hook *hook);
    /* These two call the hook's function of the same name, if there is a hook. */
    void call_begins(operation op);
    int32_t injected_fault(operation op, uint32_t port);

    /* A port may be subscribed more than once. Throws std::bad_alloc; then nothing has changed. */
    void subscribe(uint32_t port, subscription_kind kind);
    /* False if the port isn't subscribed. */
    bool unsubscribe(uint32_t port, subscription_kind kind);
    uint32_t subscribed(uint32_t port, subscription_kind kind) const;
    /* The number of subscriptions of this kind, over all ports. */
    uint64_t subscribed(subscription_kind kind) const;

    void port_changed(const dolm_ric_port_status &now) override;
    void link_changed(const dolm_ric_link_status &now) override;
    /* Queues any event, whether or not its port is subscribed. */
    void queue_raw(const dolm_ric_event &event);

    /* Blocks, with the lock released, until there is an event or the hook injects a fault. Gives
       DOLM_RICERR_SHUTDOWN after the last event. */
    int32_t wait_event(std::unique_lock<std::mutex> &guard, dolm_ric_event *&event);
    /* Wakes wait_event, which then asks the hook for a fault again. */
    void wake_event_thread();
    /* False if the event isn't outstanding. */
    bool free_event(const dolm_ric_event *event);

    event_counts counts() const;
    /* Whether the queue is so long that a source which can wait should not add to it. */
    bool is_full() const;
    /* The queue is empty, no event is outstanding, and the event thread waits. */
    bool is_idle() const;

  private:
    struct queued_event {
        dolm_ric_event event;
        bool is_raw;
    };

    bool is_wanted(const queued_event &queued) const;
    void queue(const queued_event &queued);
    dolm_ric_event *take_event();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<subscriptions> subscribed_; /* by port; ports beyond the end have none */
    std::list<queued_event> queue_;
    std::list<queued_event> outstanding_;
    uint64_t queued_count_ = 0;
    call_hook *hook_ = nullptr;
    bool is_open_ = false;
    bool is_event_thread_waiting_ = false;
};

} // namespace board
