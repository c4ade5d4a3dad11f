/* SPDX-License-Identifier: Apache-2.0 */
/* deliver() writes a signal into the ring, or adds it to the backlog if the ring is full or the
   backlog is not empty. flush() moves the backlog to the ring when there is room. */
#include "platform/mbx/mbx_connection.h"

#include "platform/mbx/mbx_parting.h"

#include <algorithm>

/* In a fan-out the waker rings the bell. A side that can't ring sends a byte on the control
   connection. `run` is null for signals of the backlog, which belong to no fan-out. */
static void wake_receiver(connection &c, fan_out *run)
{
    if (run && run->includes(c.met) && ring_later(c.far_bell.get()))
        return;
    if (ring_bell(c.far_bell.get(), c.is_accepted()))
        return;
    if (run)
        run->end();
    send_wake(c.control.get(), wake::bell);
}

static bool push(connection &c, backlog::bytes signal, fan_out *run)
{
    const record_sender::outcome result =
        c.ring.push(signal.data(), static_cast<uint32_t>(signal.size()));
    if (result == record_sender::outcome::to_ring)
        wake_receiver(c, run);
    return result != record_sender::outcome::full;
}

static void count_held(connection &c)
{
    c.area->count(held_sent, c.held());
}

/* Only a receiver that has taken all that was in the ring at the last mark counts as having read.
   That it reports room, or has taken a part, does not count. */
static void note_read(connection &c, bool is_first)
{
    if (!is_first && !c.ring.is_mark_read())
        return;
    c.ring.mark();
    c.marked = std::chrono::steady_clock::now();
}

/* The inbox keeps the area mapped while the peer's signals are unread. On the accepting side part()
   keeps it, too, if the peer may still read. Descriptors that the peer has passed over the control
   connection are closed by the closing thread. */
void let_go(connection &c, ended_by who)
{
    c.waiting.clear();
    if (who == ended_by::peer)
        c.ring.leave();
    count_held(c);
    std::shared_ptr<entry> place = c.area->place();
    if (c.is_accepted())
        leave_bell(c.far_bell.get(), place);
    retire_bell(std::move(c.far_bell));
    if (c.is_accepted()) {
        part(std::move(c.control), std::move(c.area), std::move(place), c.peer,
             who == ended_by::us);
        return;
    }
    c.area.reset();
    hang_up(std::move(c.control), {}, c.peer, std::move(place));
}

bool deliver(connection &c, const block *b, fan_out &run)
{
    const backlog::bytes signal{reinterpret_cast<const unsigned char *>(b + 1), b->size};
    if (c.ring.touched() > 0 && is_much_held())
        c.ring.trim();
    const bool is_first = c.held() == 0;
    const bool is_next = c.waiting.is_empty();
    const bool is_sent = is_next && push(c, signal, &run);
    if (!is_sent && !c.waiting.push(signal))
        return false;
    if (!is_sent || c.ring.touched() > 0) {
        count_held(c);
        note_read(c, is_first);
    }
    if (is_sent)
        return true;
    if (is_next)
        while (flush(c)) {
        }
    return c.held() <= held_for_one_at_most;
}

/* wait_for_room() returns false only when the ring has room for any signal: so each call makes
   progress, or the receiver will report room. */
bool flush(connection &c)
{
    size_t budget = ring_bytes;
    bool is_full = false;
    while (!c.waiting.is_empty() && budget > 0 && !is_full) {
        const backlog::bytes signal = c.waiting.front();
        budget -= std::min(budget, signal.size() + 8);
        is_full = !push(c, signal, nullptr);
        if (!is_full)
            c.waiting.pop();
    }
    count_held(c);
    note_read(c, false);
    return !c.waiting.is_empty() && !(is_full && c.ring.wait_for_room());
}

bool trim(connection &c)
{
    c.ring.trim();
    count_held(c);
    note_read(c, false);
    return c.ring.touched() > 0;
}

/* A receiver is late when a signal has stayed in its ring for longer than time_to_read. A receiver
   that is sent much at once, and reads it soon, is not late. */
holding weigh(const connection &c, time_point now)
{
    static constexpr auto time_to_read = std::chrono::milliseconds(100);
    const std::shared_ptr<entry> &place = c.area->place();
    return place ? place->weigh(now - c.marked > time_to_read) : holding{};
}
