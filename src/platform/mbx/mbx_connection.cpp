/* SPDX-License-Identifier: Apache-2.0 */
/* The connections of a mailbox: made, written to, supervised, ended.

   Of each connection we hold the control socket, whose end tells the peer's death, the receiving
   end of our pair, and the sending end of the peer's. A process can leave its end of the control
   socket to a child that it made behind the library's back, so there is a pidfd too. A send goes
   straight to the kernel. What the kernel does not take is queued, and from then on everything for
   that receiver goes behind it; the helper hands it on as the receiver reads. The queues are
   bounded: past the bound the connection ends for both sides, so that a receiver sees a death but
   never a gap.

   A monitor is its notice, a block that waits for the death: of a mailbox elsewhere with the
   connection to it, of one in this process with the mailbox itself (its `watchers`), and of one
   that is dead already it goes on its way at once. The reference of a monitor is in the block's
   word. The first monitor of a connection bears the connection's id, so that the usual one, a
   single monitor of each client, is given up without a search.

   When a connection ends, our receiving end is shut first, so that nothing can follow; what the
   kernel had taken is read into memory, the notices go behind it, and the descriptors are closed at
   once. From then on a dead connection is memory only. */
#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_mailbox.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr size_t queued_at_most = size_t{8} << 20;         /* for one receiver */
constexpr size_t queued_in_all_at_most = size_t{64} << 20; /* in the process */

std::atomic<size_t> queued_in_all;

enum class outcome { sent, full, broken };

/* Memory that the kernel is short of counts as a receiver that is full: it is tried again. */
outcome try_send(connection &c, block *b)
{
    if (send(c.tx.get(), b->signal(), b->size, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        return outcome::sent;
    return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM ? outcome::full : outcome::broken;
}

/* What a waiting signal counts for: the memory that it fills, not that of its size class. */
size_t cost_of(const block *b)
{
    return sizeof(*b) + b->size;
}

/* Takes the next block off the queue and out of the accounts. */
block *unqueue(connection &c)
{
    block *b = c.out.pop();
    if (b) {
        c.out_bytes -= cost_of(b);
        queued_in_all -= cost_of(b);
    }
    return b;
}

/* The first signal that waits wakes the helper's interest. Ends the connection when the queue is
   past its bound, or when nobody would ever hand it on. */
void enqueue(mailbox &m, connection &c, block *b)
{
    const size_t cost = cost_of(b);
    c.out.push(b);
    c.out_bytes += cost;
    queued_in_all += cost;
    if (!c.watched)
        c.watched = helper_watch_connection(watch_kind::writable, c.tx.get(), m, c.id);
    if (!c.watched || c.out_bytes > queued_at_most)
        end_connection(m, c);
}

/* Ends the connection with the longest queue of the process until all of them fit. Called without
   the sender's lock, because the longest queue may be another mailbox's. */
void shed_queues()
{
    while (queued_in_all > queued_in_all_at_most) {
        mailbox *owner = nullptr;
        uint32_t longest = 0;
        size_t bytes = 0;
        std::lock_guard registry(registry_lock);
        for_each_mailbox([&](mailbox &m) {
            std::lock_guard hold(m.lock);
            m.connections.for_each([&](const connection &c) {
                if (c.out_bytes > bytes) {
                    owner = &m;
                    longest = c.id;
                    bytes = c.out_bytes;
                }
            });
        });
        if (!owner)
            return;
        std::lock_guard hold(owner->lock);
        if (connection *c = owner->connections.find(longest))
            end_connection(*owner, *c);
    }
}

void release_descriptors(connection &c)
{
    /* A copy of a descriptor in somebody's child must neither keep the connection open nor our
       epoll entries alive: so these steps, before the close. */
    shutdown(c.control.get(), SHUT_RDWR);
    helper_unwatch(c.control.get());
    if (c.watched)
        helper_unwatch(c.tx.get());
    c.watched = false;
    if (c.life)
        helper_unwatch(c.life.get());
    c.control.reset();
    c.life.reset();
    c.tx.reset();
    c.rx.reset();
}

/* Many receivers of the same news are told in the same order each time, and of a thousand each
   one's connection has left the caches meanwhile. So the next one's is fetched while this one's
   signal is sent. */
void expect_next(mailbox &m, connection &c)
{
    if (connection *before = m.connections.find(m.sent_last))
        before->next = c.id;
    m.sent_last = c.id;
    m.connections.expect(c.next);
}

block *find_monitor(block_queue &monitors, uint32_t reference)
{
    block *b = monitors.head;
    while (b && b->word.load(std::memory_order_relaxed) != reference)
        b = b->next;
    return b;
}

} // namespace

/* Without a pidfd, which an old kernel may not have, the control connection does alone. */
connection *add_connection(mailbox &m, owned_fd control, owned_fd rx, owned_fd tx,
                           const mailbox_token &peer)
{
    make_room_for_turns(m);
    connection &c = m.connections.add();
    c.process = peer_process(control.get());
    c.peer = peer;
    c.control = std::move(control);
    c.life = owned_fd(static_cast<int>(syscall(SYS_pidfd_open, c.process, 0)));
    if (c.life)
        helper_watch_connection(watch_kind::control, c.life.get(), m, c.id);
    c.rx = std::move(rx);
    c.tx = std::move(tx);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = c.id;
    if (epoll_ctl(m.poll.get(), EPOLL_CTL_ADD, c.rx.get(), &event) == 0 &&
        helper_watch_connection(watch_kind::control, c.control.get(), m, c.id))
        return &c;
    const int error = errno;
    end_connection(m, c);
    errno = error;
    return nullptr;
}

/* A token alone proves nothing, because those who were told it could repeat it: the process, which
   the kernel vouches for, must be the same too. */
connection *find_peer(mailbox &m, const mailbox_token &peer, pid_t process)
{
    connection *found = nullptr;
    m.connections.for_each([&](connection &c) {
        if (c.alive() && c.peer == peer && c.process == process)
            found = &c;
    });
    return found;
}

void end_connection(mailbox &m, connection &c)
{
    if (!c.alive())
        return;
    if (c.rx && m.id != 0) {
        /* Shut, it counts as readable: the owner must not see that. */
        epoll_ctl(m.poll.get(), EPOLL_CTL_DEL, c.rx.get(), nullptr);
        shutdown(c.rx.get(), SHUT_RD);
        read_all(m, c);
    }
    release_descriptors(c);
    while (block *b = unqueue(c))
        block_give(b);
    while (block *notice = c.monitors.pop()) {
        notice->sender = c.id;
        queue_ahead(m, c, notice);
    }
    if (c.ahead.empty())
        m.connections.remove(c.id);
}

void forget_connections(mailbox &m)
{
    m.connections.for_each([](connection &c) {
        c.ahead.give_all();
        c.monitors.give_all();
        while (block *b = unqueue(c))
            block_give(b);
    });
    m.connections.clear();
}

void flush_connection(mailbox &m, connection &c, int at_most)
{
    while (at_most-- > 0 && !c.out.empty()) {
        switch (try_send(c, c.out.head)) {
        case outcome::sent:
            block_give(unqueue(c));
            break;
        case outcome::full:
            return;
        case outcome::broken:
            end_connection(m, c);
            return;
        }
    }
    if (!c.out.empty())
        return;
    helper_unwatch(c.tx.get());
    c.watched = false;
    /* The mailbox is deleted, and this was what it still had to hand over. */
    if (m.id == 0)
        end_connection(m, c);
}

void send_to_connection(mailbox &m, uint32_t id, uint32_t receiver, block *b)
{
    {
        std::lock_guard hold(m.lock);
        connection *c = m.id == id ? m.connections.find(receiver) : nullptr;
        if (!c || !c->alive() || b->size > MBX_LARGEST_SIGNAL) {
            block_give(b);
            return;
        }
        expect_next(m, *c);
        const outcome result = c->out.empty() ? try_send(*c, b) : outcome::full;
        if (result == outcome::full) {
            enqueue(m, *c, b);
        } else {
            block_give(b);
            if (result == outcome::broken)
                end_connection(m, *c);
            return;
        }
    }
    shed_queues();
}

uint32_t monitor_connection(mailbox &m, uint32_t id, uint32_t target, block *notice)
{
    std::unique_lock hold(m.lock);
    connection *c = m.id == id ? m.connections.find(target) : nullptr;
    const bool first = c && c->alive() && !find_monitor(c->monitors, target);
    const uint32_t reference = first ? target : next_connection_id();
    notice->word.store(reference, std::memory_order_relaxed);
    notice->sender = target;
    if (c && c->alive())
        c->monitors.push(notice);
    else if (c)
        queue_ahead(m, *c, notice);
    else
        push_local(id, notice, target);
    return reference;
}

bool unmonitor_connection(mailbox &m, uint32_t id, uint32_t reference)
{
    const auto remove = [&](connection &c) {
        block *before = nullptr;
        for (block *b = c.monitors.head; b; before = b, b = b->next)
            if (b->word.load(std::memory_order_relaxed) == reference) {
                block_give(c.monitors.remove_after(before));
                return true;
            }
        return false;
    };
    std::lock_guard hold(m.lock);
    if (m.id != id)
        return false;
    if (connection *c = m.connections.find(reference); c && remove(*c))
        return true;
    bool removed = false;
    m.connections.for_each([&](connection &c) { removed = removed || remove(c); });
    return removed;
}
