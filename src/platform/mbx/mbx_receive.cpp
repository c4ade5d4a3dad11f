/* SPDX-License-Identifier: Apache-2.0 */
/* The receiving side of a mailbox: whose turn it is.

   The mailbox's descriptor is an epoll over all that signals come from: a semaphore for what is
   sent within the process, the receiving end of every connection, and an event that is up while
   signals wait in memory. When nobody's turn is left, one look at the epoll finds all that are
   ready, however many; the ones that have waited longest come first, and each gives one signal. So
   between a signal's arrival and its reception every other source is served once at most.

   The look costs as much as a signal. It is spared where there is nobody to be fair to: of the only
   connection of a mailbox a few signals are taken before the next look, and who is going to wait
   for it does not look first.

   From a connection that had several signals in a row a batch is read at once. What is read ahead
   keeps its place: the connection still gives one signal a turn, and the memory event holds the
   descriptor readable until the last one is taken. */
#include "platform/mbx/mbx_mailbox.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr uint32_t batch_at_most = 16;     /* signals that are read at once */
constexpr uint32_t calm_at_most = 64;      /* between two tries to read several */
constexpr size_t in_memory_at_most = 1024; /* no reading ahead beyond */
constexpr int events_at_most = 32;         /* after a wait, which is for the first one */
constexpr uint32_t unlooked_at_most = 7;   /* signals of one who is alone */
constexpr uint32_t looked_at_least = 64;   /* looks after a try without one was in vain */

} // namespace

/* Mapped, not allocated: pages that no signal has reached are not there. */
struct receive_buffers {
    mmsghdr messages[batch_at_most];
    iovec vectors[batch_at_most];
    alignas(4096) std::byte data[batch_at_most][MBX_LARGEST_SIGNAL];
};

void receive_buffers_deleter::operator()(receive_buffers *buffers) const
{
    munmap(buffers, sizeof(*buffers));
}

namespace
{

receive_buffers &need_buffers(mailbox &m)
{
    if (m.buffers)
        return *m.buffers;
    void *memory = mmap(nullptr, sizeof(receive_buffers), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    auto *buffers = static_cast<receive_buffers *>(memory);
    for (uint32_t i = 0; i < batch_at_most; i++) {
        buffers->vectors[i] = {buffers->data[i], MBX_LARGEST_SIGNAL};
        buffers->messages[i].msg_hdr.msg_iov = &buffers->vectors[i];
        buffers->messages[i].msg_hdr.msg_iovlen = 1;
    }
    m.buffers.reset(buffers);
    return *buffers;
}

/* A datagram that is too short for a number came from no library of ours; what it lacks is 0. So
   whatever makes the end readable is a signal. */
block *make_block(const connection &c, const std::byte *data, size_t size)
{
    block *b = block_take(std::max(size, sizeof(mbx_signal)));
    b->sender = c.id;
    b->signal()->number = 0;
    std::memcpy(b->signal(), data, size);
    return b;
}

block *read_one(mailbox &m, connection &c)
{
    receive_buffers &buffers = need_buffers(m);
    const ssize_t size = recv(c.rx.get(), buffers.data[0], MBX_LARGEST_SIGNAL, MSG_DONTWAIT);
    return size >= 0 ? make_block(c, buffers.data[0], static_cast<size_t>(size)) : nullptr;
}

/* Returns the first and queues the rest. */
block *read_batch(mailbox &m, connection &c, uint32_t count, uint32_t &got)
{
    receive_buffers &buffers = need_buffers(m);
    const int n = recvmmsg(c.rx.get(), buffers.messages, count, MSG_DONTWAIT, nullptr);
    got = static_cast<uint32_t>(std::max(n, 0));
    if (got == 0)
        return nullptr;
    for (uint32_t i = 1; i < got; i++)
        queue_ahead(m, c, make_block(c, buffers.data[i], buffers.messages[i].msg_len));
    return make_block(c, buffers.data[0], buffers.messages[0].msg_len);
}

/* Reads one signal, or a batch where the last try found more than one. The batch doubles while it
   comes back full. A connection that had one signal only is tried for more every now and then,
   because a try that finds nothing costs a little. */
block *read_some(mailbox &m, connection &c)
{
    const bool calm = c.batch == 1 && c.calm > 0;
    if (calm)
        c.calm--;
    if (calm || m.in_memory >= in_memory_at_most)
        return read_one(m, c);
    const uint32_t want = std::min(2 * c.batch, batch_at_most);
    uint32_t got;
    block *b = read_batch(m, c, want, got);
    c.batch = std::max(got, 1u);
    if (c.batch == 1)
        c.calm = calm_at_most;
    return b;
}

/* The semaphore first: who has taken a count has a block. The stack, which has the latest on top,
   is turned round as a whole when the queue is used up. */
block *take_local(mailbox &m)
{
    uint64_t one;
    if (read(m.local_event.get(), &one, sizeof(one)) != sizeof(one))
        return nullptr;
    if (m.local.empty()) {
        block *oldest = nullptr;
        for (block *b = m.pushed.exchange(nullptr, std::memory_order_acquire); b;) {
            block *older = b->next;
            b->next = oldest;
            oldest = b;
            b = older;
        }
        while (oldest)
            m.local.push(std::exchange(oldest, oldest->next));
    }
    m.local_served = ++m.clock;
    return m.local.pop();
}

/* The connection goes to the end of those that have something ahead. */
block *take_ahead(mailbox &m, connection &c)
{
    block *b = c.ahead.pop();
    count_out_of_memory(m, 1);
    std::erase(m.ahead, c.id);
    if (!c.ahead.empty())
        m.ahead.push_back(c.id);
    return b;
}

/* The connection may have ended since it was found ready, and a dead one ends here for good when
   its last signal is taken. */
block *take_from_connection(mailbox &m, uint32_t id)
{
    connection *c = m.connections.find(id);
    if (!c)
        return nullptr;
    block *b = nullptr;
    if (!c->ahead.empty())
        b = take_ahead(m, *c);
    else if (c->alive())
        b = read_some(m, *c);
    c->served = ++m.clock;
    m.last = id;
    if (!c->alive() && c->ahead.empty())
        m.connections.remove(id);
    return b;
}

/* A connection may be reported twice: it has something in the kernel and something ahead. */
void add_turn(mailbox &m, uint32_t source)
{
    connection *c = source == source_local ? nullptr : m.connections.find(source);
    if (source != source_local && (!c || c->look == m.looks))
        return;
    if (c)
        c->look = m.looks;
    m.turns.push_back({c ? c->served : m.local_served, source});
}

/* Gives turns to what the epoll reported, the one that was served longest ago first. */
void give_turns(mailbox &m, const epoll_event *events, int count)
{
    m.turn_next = 0;
    m.turns.clear();
    m.looks++;
    bool memory = false;
    for (int i = 0; i < count; i++) {
        if (events[i].data.u32 == source_memory)
            memory = true;
        else
            add_turn(m, events[i].data.u32);
    }
    if (memory)
        for (const uint32_t id : m.ahead)
            add_turn(m, id);
    if (m.turns.size() > 1)
        std::sort(m.turns.begin(), m.turns.end(),
                  [](const turn &a, const turn &b) { return a.served < b.served; });
    m.credit = m.looked > 0 ? 0 : unlooked_at_most;
    m.looked -= m.looked > 0;
}

/* Tries the only connection without a look, unless something was sent within the process, which has
   its turn too. Who finds nothing there waits for each signal, as most clients do, and does not try
   again for a while. */
block *take_unlooked(mailbox &m)
{
    if (m.credit == 0 || !m.local.empty() || m.pushed.load(std::memory_order_relaxed))
        return nullptr;
    m.credit--;
    block *b = take_from_connection(m, m.last);
    if (!b) {
        m.credit = 0;
        m.looked = looked_at_least;
    }
    return b;
}

/* Null when nothing is there, or when the caller is going to wait and nothing is known to be. */
block *take_next(mailbox &m, bool waits)
{
    const bool alone = m.connections.size() == 1;
    if (alone && m.turn_next == m.turns.size())
        if (block *b = take_unlooked(m))
            return b;
    for (;;) {
        while (m.turn_next < m.turns.size()) {
            const uint32_t source = m.turns[m.turn_next++].source;
            block *b = source == source_local ? take_local(m) : take_from_connection(m, source);
            if (b)
                return b;
        }
        if (alone && waits)
            return nullptr;
        const int room = static_cast<int>(m.ready.size());
        give_turns(m, m.ready.data(), epoll_wait(m.poll.get(), m.ready.data(), room, 0));
        if (m.turns.empty())
            return nullptr;
    }
}

bool matches(const block *b, const uint32_t *filter, uint32_t sender)
{
    if (sender != MBX_ANY_SENDER && b->sender != sender)
        return false;
    if (!filter || filter[0] == 0)
        return true;
    const uint32_t *end = filter + 1 + filter[0];
    return std::find(filter + 1, end, b->number()) != end;
}

block *take_set_aside(mailbox &m, const uint32_t *filter, uint32_t sender)
{
    block *before = nullptr;
    for (block *b = m.set_aside.head; b; before = b, b = b->next) {
        if (!matches(b, filter, sender))
            continue;
        count_out_of_memory(m, 1);
        return m.set_aside.remove_after(before);
    }
    return nullptr;
}

size_t length(const block_queue &queue)
{
    size_t count = 0;
    for (const block *b = queue.head; b; b = b->next)
        count++;
    return count;
}

/* What does not match stays in the mailbox, in its order and before all that comes later. */
block *take_matching(mailbox &m, const uint32_t *filter, uint32_t sender, bool waits)
{
    if (block *b = take_set_aside(m, filter, sender))
        return b;
    for (;;) {
        block *b = take_next(m, waits);
        if (!b || matches(b, filter, sender))
            return b;
        m.set_aside.push(b);
        count_into_memory(m, 1);
    }
}

} // namespace

void make_room_for_turns(mailbox &m)
{
    constexpr size_t no_connections = 2; /* what is sent within the process, and the memory */
    m.ready.resize(m.connections.size() + 1 + no_connections);
    m.turns.reserve(m.ready.capacity());
}

/* Both under the lock, so that the event is up exactly while the count is not 0 for everybody who
   can see the two. */
void count_into_memory(mailbox &m, size_t signals)
{
    if (m.in_memory == 0 && signals > 0) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = write(m.memory_event.get(), &one, sizeof(one));
    }
    m.in_memory += signals;
}

void count_out_of_memory(mailbox &m, size_t signals)
{
    if (m.in_memory == signals && signals > 0) {
        uint64_t sum;
        [[maybe_unused]] ssize_t n = read(m.memory_event.get(), &sum, sizeof(sum));
    }
    m.in_memory -= signals;
}

void queue_ahead(mailbox &m, connection &c, block *b)
{
    if (c.ahead.empty())
        m.ahead.push_back(c.id);
    c.ahead.push(b);
    count_into_memory(m, 1);
}

void read_all(mailbox &m, connection &c)
{
    while (block *b = read_one(m, c))
        queue_ahead(m, c, b);
}

/* Those that were passed over don't count while their owner waits for another one: they would keep
   the wait from waiting. */
mbx_signal *receive_signal(mailbox &m, uint32_t id, const uint32_t *filter, int timeout_ms,
                           uint32_t sender)
{
    time_point deadline{};
    if (timeout_ms > 0)
        deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::unique_lock hold(m.lock);
    while (m.id == id) {
        if (block *b = take_matching(m, filter, sender, timeout_ms != 0))
            return b->signal();
        const int left = timeout_ms > 0 ? milliseconds_until(deadline) : timeout_ms;
        if (left == 0)
            break;
        epoll_event events[events_at_most];
        const int poll = m.poll.get();
        const size_t passed_over = length(m.set_aside);
        count_out_of_memory(m, passed_over);
        hold.unlock();
        const int count = epoll_wait(poll, events, events_at_most, left);
        hold.lock();
        if (m.id != id)
            break;
        count_into_memory(m, passed_over);
        give_turns(m, events, std::max(count, 0));
    }
    return nullptr;
}
