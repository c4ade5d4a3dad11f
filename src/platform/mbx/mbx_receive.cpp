/* The receiving side of a mailbox: whose turn it is.

   The mailbox's descriptor is an epoll over all that signals come from: a semaphore for what is
   sent within the process, the receiving end of every connection, and an event that is up while
   signals wait in memory. When nobody's turn is left, one look at the epoll finds who is ready; the
   ones that have waited longest come first, and each gives one signal. So between a signal's
   arrival and its reception every other source is served once at most.

   The look costs as much as a signal. It is spared where there is nobody to be fair to: while one
   connection has been the only one to send for some seconds, a few of its signals are taken before
   the next look. As soon as anybody else shows up, each signal has its look again.

   From a connection that had several signals in a row a batch is read at once. What is read ahead
   keeps its place: the connection still gives one signal a turn, and the memory event holds the
   descriptor readable until the last one is taken. */
#include "mbx_mailbox.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
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
constexpr int events_at_most = 32;
constexpr uint32_t unlooked_at_most = 7; /* signals of one who is alone */
constexpr auto rivalry_lasts = std::chrono::seconds(10);
static_assert(events_at_most <= turns_at_most);

} // namespace

/* Mapped, not allocated: pages that no signal has reached are not there. */
struct receive_buffers {
    mmsghdr messages[batch_at_most];
    iovec vectors[batch_at_most];
    alignas(4096) std::byte data[batch_at_most][MBX_LARGEST_SIGNAL];
};

void receive_buffers_deleter::operator()(receive_buffers *buffers) const
{
    munmap(buffers, sizeof *buffers);
}

namespace
{

/* To a tick of the kernel, but cheap. */
time_point coarse_now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &t);
    return time_point(std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec));
}

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

block *make_block(const connection &c, const std::byte *data, size_t size)
{
    block *b = block_take(size);
    b->sender = c.id;
    std::memcpy(b->signal(), data, size);
    return b;
}

block *read_one(mailbox &m, connection &c)
{
    receive_buffers &buffers = need_buffers(m);
    const ssize_t size = recv(c.rx.get(), buffers.data[0], MBX_LARGEST_SIGNAL, MSG_DONTWAIT);
    return size > 0 ? make_block(c, buffers.data[0], static_cast<size_t>(size)) : nullptr;
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
    if (read(m.local_event.get(), &one, sizeof one) != sizeof one)
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
    count_out_of_memory(m);
    std::erase(m.ahead, c.id);
    if (!c.ahead.empty())
        m.ahead.push_back(c.id);
    return b;
}

/* The connection may have ended since it was found ready, and a dead one ends here for good when
   its last signal is taken. */
block *take_from_connection(mailbox &m, uint32_t id)
{
    connection *c = find_connection(m, id);
    if (!c)
        return nullptr;
    block *b = nullptr;
    if (!c->ahead.empty())
        b = take_ahead(m, *c);
    else if (c->alive())
        b = read_some(m, *c);
    c->served = ++m.clock;
    if (!c->alive() && c->ahead.empty())
        m.connections.erase(id);
    return b;
}

/* A connection may be reported twice: it has something in the kernel and something ahead. */
void add_turn(mailbox &m, uint32_t source)
{
    const connection *c = source == source_local ? nullptr : find_connection(m, source);
    if (source != source_local && !c)
        return;
    const auto begin = m.turns.begin();
    const auto end = begin + static_cast<ptrdiff_t>(m.turn_end);
    if (m.turn_end == turns_at_most ||
        std::any_of(begin, end, [&](const turn &t) { return t.source == source; }))
        return;
    m.turns[m.turn_end++] = {c ? c->served : m.local_served, source};
}

/* Whether nobody but this connection has sent for a while. Then it may be served a few times
   without a look at the others. */
bool is_alone(mailbox &m, uint32_t source)
{
    if (source == source_local)
        return false;
    const time_point now = coarse_now();
    if (m.turn_end > 1 || source != m.favourite)
        m.rivalry = now;
    m.favourite = source;
    return m.connections.size() == 1 || now - m.rivalry > rivalry_lasts;
}

/* Gives turns to what the epoll reported, the one that was served longest ago first. */
void give_turns(mailbox &m, const epoll_event *events, int count)
{
    m.turn_next = m.turn_end = 0;
    bool memory = false;
    for (int i = 0; i < count; i++) {
        if (events[i].data.u32 == source_memory)
            memory = true;
        else
            add_turn(m, events[i].data.u32);
    }
    if (memory) {
        const size_t enough = std::min<size_t>(m.ahead.size(), turns_at_most);
        for (size_t i = 0; i < enough; i++)
            add_turn(m, m.ahead[i]);
    }
    if (m.turn_end > 1)
        std::sort(m.turns.begin(), m.turns.begin() + static_cast<ptrdiff_t>(m.turn_end),
                  [](const turn &a, const turn &b) { return a.served < b.served; });
    m.credit = m.turn_end > 0 && is_alone(m, m.turns[0].source) ? unlooked_at_most : 0;
}

block *take_next(mailbox &m)
{
    if (m.turn_next == m.turn_end && m.credit > 0) {
        m.credit--;
        if (block *b = take_from_connection(m, m.favourite))
            return b;
    }
    for (;;) {
        while (m.turn_next < m.turn_end) {
            const uint32_t source = m.turns[m.turn_next++].source;
            block *b = source == source_local ? take_local(m) : take_from_connection(m, source);
            if (b)
                return b;
        }
        epoll_event events[events_at_most];
        give_turns(m, events, epoll_wait(m.poll.get(), events, events_at_most, 0));
        if (m.turn_end == 0)
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
        count_out_of_memory(m);
        return m.set_aside.remove_after(before);
    }
    return nullptr;
}

/* What does not match stays in the mailbox, in its order and before all that comes later. */
block *take_matching(mailbox &m, const uint32_t *filter, uint32_t sender)
{
    block *b = take_set_aside(m, filter, sender);
    while (!b && (b = take_next(m)) && !matches(b, filter, sender)) {
        m.set_aside.push(std::exchange(b, nullptr));
        count_into_memory(m);
    }
    return b;
}

} // namespace

/* Both under the lock, so that the event is up exactly while the count is not 0 for everybody who
   can see the two. */
void count_into_memory(mailbox &m)
{
    if (m.in_memory++ == 0) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = write(m.memory_event.get(), &one, sizeof one);
    }
}

void count_out_of_memory(mailbox &m)
{
    if (--m.in_memory == 0) {
        uint64_t sum;
        [[maybe_unused]] ssize_t n = read(m.memory_event.get(), &sum, sizeof sum);
    }
}

void queue_ahead(mailbox &m, connection &c, block *b)
{
    if (c.ahead.empty())
        m.ahead.push_back(c.id);
    c.ahead.push(b);
    count_into_memory(m);
}

void expect_rival(mailbox &m)
{
    m.rivalry = coarse_now();
    m.credit = 0;
}

void read_all(mailbox &m, connection &c)
{
    while (block *b = read_one(m, c))
        queue_ahead(m, c, b);
}

mbx_signal *receive_signal(mailbox &m, uint32_t id, const uint32_t *filter, int timeout_ms,
                           uint32_t sender)
{
    time_point deadline{};
    if (timeout_ms > 0)
        deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::unique_lock hold(m.lock);
    while (m.id == id) {
        if (block *b = take_matching(m, filter, sender))
            return b->signal();
        const int left = timeout_ms > 0 ? milliseconds_until(deadline) : timeout_ms;
        if (left == 0)
            break;
        const int poll = m.poll.get();
        epoll_event events[events_at_most];
        hold.unlock();
        const int count = epoll_wait(poll, events, events_at_most, left);
        hold.lock();
        if (m.id == id)
            give_turns(m, events, std::max(count, 0));
    }
    return nullptr;
}
