/* SPDX-License-Identifier: Apache-2.0 */
/* A subscription is looked at twice: when an event is queued, so that ports which nobody watches
   cost nothing, and when it is delivered, as it may have been given up in between. Both look at the
   one port that the event tells of. Raw events pass both times.

   An event that was delivered stays the desk's, in `out`, until it comes back; so the desk can tell
   one that never was out, and count those that were forgotten. */
#include "platform/dolm_ric/desk.h"

#include <algorithm>
#include <new>
#include <sys/eventfd.h>
#include <utility>

namespace board
{

void desk::open(uint32_t ports)
{
    held.assign(ports, {});
    orders.clear();
    calls = {};
    events.clear();
    events_queued = 0;
    open_now = true;
}

/* Where there is no memory for the last event, the wait ends with DOLM_RICERR_SHUTDOWN alone. */
void desk::close()
{
    try {
        queue({.type = DOLM_RICEVT_SHUTDOWN, .port_status = {}}, true);
    } catch (const std::bad_alloc &) {
    }
    open_now = false;
    changed.notify_all();
}

bool desk::is_open() const
{
    return open_now;
}

/* Calls that fail are counted, too: what people wait for is that somebody called. */
void desk::count_call(operation op)
{
    calls[static_cast<size_t>(op)]++;
    if (watcher >= 0)
        eventfd_write(watcher, 1);
}

/* Orders are few, and there are none unless somebody plays with them. */
int32_t desk::ordered_failure(operation op, uint32_t port)
{
    const auto found = std::find_if(orders.rbegin(), orders.rend(), [&](const failure &order) {
        return order.op == op && (order.ports.empty() || contains(order.ports, port));
    });
    if (found == orders.rend())
        return DOLM_RICERR_OK;
    const int32_t code = found->code;
    if (found->left != failure::always && --found->left == 0)
        orders.erase(std::next(found).base());
    return code;
}

/* The order may be for the wait that the event thread sits in. */
void desk::order_failure(failure order)
{
    orders.push_back(std::move(order));
    changed.notify_all();
}

size_t desk::withdraw_failures(std::optional<operation> op)
{
    return std::erase_if(orders, [op](const failure &order) { return !op || order.op == *op; });
}

void desk::subscribe(uint32_t port, subscription_kind kind)
{
    held[port].*kind += 1;
}

bool desk::unsubscribe(uint32_t port, subscription_kind kind)
{
    if (held[port].*kind == 0)
        return false;
    held[port].*kind -= 1;
    return true;
}

void desk::port_changed(const dolm_ric_port_status &now)
{
    queue({.type = DOLM_RICEVT_RIPORTSTATUS, .port_status = now}, false);
}

void desk::link_changed(const dolm_ric_link_status &now)
{
    queue({.type = DOLM_RICEVT_RILINKSTATUS, .link_status = now}, false);
}

void desk::queue_raw(const dolm_ric_event &event)
{
    queue(event, true);
}

/* The id of a link event stands where that of a port event does. */
bool desk::wanted(const dolm_ric_event &event) const
{
    const subscriptions &port = held[event.port_status.id & 0xffff];
    return (event.type == DOLM_RICEVT_RILINKSTATUS ? port.link : port.port) > 0;
}

void desk::queue(const dolm_ric_event &event, bool raw)
{
    if (!open_now || !(raw || wanted(event)))
        return;
    events.push_back({std::make_unique<dolm_ric_event>(event), raw});
    events_queued++;
    changed.notify_all();
}

std::unique_ptr<dolm_ric_event> desk::take_event()
{
    while (!events.empty()) {
        queued_event next = std::move(events.front());
        events.pop_front();
        if (next.raw || wanted(*next.event))
            return std::move(next.event);
    }
    return nullptr;
}

/* An ordered failure comes before the events, and out of the middle of a wait, so that whoever
   orders it needn't cause an event to see it. */
int32_t desk::wait_event(std::unique_lock<std::mutex> &guard, dolm_ric_event *&event)
{
    for (;;) {
        if (const int32_t code = ordered_failure(operation::waitevent, 0))
            return code;
        if (auto next = take_event()) {
            event = out.emplace_back(std::move(next)).get();
            return DOLM_RICERR_OK;
        }
        if (!open_now)
            return DOLM_RICERR_SHUTDOWN;
        event_thread_waits = true;
        changed.wait(guard);
        event_thread_waits = false;
    }
}

bool desk::free_event(const dolm_ric_event *event)
{
    return std::erase_if(out, [event](const auto &given) { return given.get() == event; }) > 0;
}

size_t desk::events_waiting() const
{
    return events.size();
}

size_t desk::events_out() const
{
    return out.size();
}

bool desk::idle() const
{
    return event_thread_waits && events.empty() && out.empty();
}

void desk::watch_calls(int eventfd)
{
    watcher = eventfd;
}

} // namespace board
