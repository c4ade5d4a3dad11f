/* SPDX-License-Identifier: Apache-2.0 */
/* Subscriptions are checked twice: when an event is queued, so that ports without subscribers cost
   nothing, and when it is delivered, as its port may have been unsubscribed in between. Raw events
   pass both checks.

   A delivered event moves from the queue to the list of outstanding events, which takes no memory:
   an event is never lost on its way to the caller. */
#include "platform/dolm_ric/core.h"

#include <algorithm>
#include <new>
#include <numeric>

namespace board
{

/* Has room for one event of every port of a usual board. */
static constexpr size_t many_waiting = 1024;

std::unique_lock<std::mutex> core::lock()
{
    return std::unique_lock(mutex_);
}

void core::open()
{
    subscribed_.clear();
    queue_.clear();
    queued_count_ = 0;
    is_open_ = true;
}

/* If there is no memory for the shutdown event, wait_event gives DOLM_RICERR_SHUTDOWN without
   it. */
void core::close()
{
    try {
        queue({.event = {.type = DOLM_RICEVT_SHUTDOWN, .port_status = {}}, .is_raw = true});
    } catch (const std::bad_alloc &) {
    }
    is_open_ = false;
    changed_.notify_all();
}

bool core::is_open() const
{
    return is_open_;
}

void core::set_call_hook(call_hook *hook)
{
    hook_ = hook;
}

void core::call_begins(operation op)
{
    if (hook_ != nullptr)
        hook_->call_begins(op);
}

int32_t core::injected_fault(operation op, uint32_t port)
{
    return hook_ != nullptr ? hook_->injected_fault(op, port) : DOLM_RICERR_OK;
}

void core::subscribe(uint32_t port, subscription_kind kind)
{
    if (port >= subscribed_.size())
        subscribed_.resize(port + 1);
    subscribed_[port].*kind += 1;
}

bool core::unsubscribe(uint32_t port, subscription_kind kind)
{
    if (subscribed(port, kind) == 0)
        return false;
    subscribed_[port].*kind -= 1;
    return true;
}

uint32_t core::subscribed(uint32_t port, subscription_kind kind) const
{
    return port < subscribed_.size() ? subscribed_[port].*kind : 0;
}

uint64_t core::subscribed(subscription_kind kind) const
{
    return std::transform_reduce(subscribed_.begin(), subscribed_.end(), uint64_t{0}, std::plus<>(),
                                 [kind](const subscriptions &one) { return one.*kind; });
}

void core::port_changed(const dolm_ric_port_status &now)
{
    queue({.event = {.type = DOLM_RICEVT_RIPORTSTATUS, .port_status = now}, .is_raw = false});
}

void core::link_changed(const dolm_ric_link_status &now)
{
    queue({.event = {.type = DOLM_RICEVT_RILINKSTATUS, .link_status = now}, .is_raw = false});
}

void core::queue_raw(const dolm_ric_event &event)
{
    queue({.event = event, .is_raw = true});
}

/* Both kinds of record begin with the port's id. */
bool core::is_wanted(const queued_event &queued) const
{
    const uint32_t port = queued.event.port_status.id & 0xffff;
    return queued.is_raw || (queued.event.type == DOLM_RICEVT_RILINKSTATUS
                                 ? subscribed(port, &subscriptions::link)
                                 : subscribed(port, &subscriptions::port)) > 0;
}

void core::queue(const queued_event &queued)
{
    if (!is_open_ || !is_wanted(queued))
        return;
    queue_.push_back(queued);
    queued_count_++;
    changed_.notify_all();
}

/* Null if the queue has no event that is still wanted. */
dolm_ric_event *core::take_event()
{
    while (!queue_.empty() && !is_wanted(queue_.front()))
        queue_.pop_front();
    if (queue_.empty())
        return nullptr;
    outstanding_.splice(outstanding_.end(), queue_, queue_.begin());
    return &outstanding_.back().event;
}

/* The hook is asked for a fault before the next event and after each wake-up of a wait, so that a
   test needs no event to see the fault. */
int32_t core::wait_event(std::unique_lock<std::mutex> &guard, dolm_ric_event *&event)
{
    for (;;) {
        if (const int32_t code = injected_fault(operation::waitevent, 0))
            return code;
        if (dolm_ric_event *next = take_event()) {
            event = next;
            return DOLM_RICERR_OK;
        }
        if (!is_open_)
            return DOLM_RICERR_SHUTDOWN;
        is_event_thread_waiting_ = true;
        changed_.wait(guard);
        is_event_thread_waiting_ = false;
    }
}

void core::wake_event_thread()
{
    changed_.notify_all();
}

bool core::free_event(const dolm_ric_event *event)
{
    return std::erase_if(outstanding_,
                         [event](const queued_event &one) { return &one.event == event; }) > 0;
}

event_counts core::counts() const
{
    return {.queued = queued_count_, .waiting = queue_.size(), .outstanding = outstanding_.size()};
}

bool core::is_full() const
{
    return queue_.size() >= many_waiting;
}

bool core::is_idle() const
{
    return is_event_thread_waiting_ && queue_.empty() && outstanding_.empty();
}

} // namespace board
