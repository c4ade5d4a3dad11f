/* SPDX-License-Identifier: Apache-2.0 */
/* A peer is dead when its end of the control connection is closed. A child process of the peer may
   still have that end, when it was made by a bare system call, so the peer's process is watched by
   a pidfd, too. The death of a peer that this process has located is reported even without a
   monitor, because the owner waits for its signals and would not learn that none will come.

   A monitor is the block with its notice. The block waits for the death in the connection, or, for
   a mailbox of this process, in that mailbox's `watchers`. */
#include "platform/mbx/mbx_peers.h"

#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_parting.h"

#include <cerrno>
#include <malloc.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

static constexpr auto time_to_trim = std::chrono::seconds(2);

/* After so many bytes have been freed, malloc_trim() releases the memory between the records that
   stay: 4,800 connections left 3.1 MiB without that, and 0.8 MiB with it. */
static constexpr size_t much_freed = size_t{128} << 10;

static std::atomic<bool> is_trim_wanted;
static std::atomic<size_t> freed;                /* bytes since the last trim */
static time_point trim_time = time_point::max(); /* guarded by helper_lock */

void want_trim()
{
    if (!is_trim_wanted.load(std::memory_order_relaxed) && !is_trim_wanted.exchange(true))
        helper_wake();
}

static void note_freed(size_t bytes)
{
    if ((freed += bytes) >= much_freed)
        want_trim();
}

/* An id may come back while its former source still has signals to give. */
static uint32_t free_id(const mailbox &m)
{
    uint32_t id;
    do {
        id = next_connection_id();
    } while (m.in.has(id));
    return id;
}

static connection *find_connection(mailbox &m, uint32_t id)
{
    const auto found = m.connections.find(id);
    return found != m.connections.end() ? &found->second : nullptr;
}

template <typename question>
static connection *find_connection_if(mailbox &m, question &&is_wanted)
{
    for (auto &[id, c] : m.connections)
        if (is_wanted(c))
            return &c;
    return nullptr;
}

/* Calls the function with each mailbox of the process, locked, and each of its connections, which
   the function may end. */
template <typename function>
static void for_each_connection(function &&call)
{
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        for (auto next = m.connections.begin(); next != m.connections.end();)
            call(m, next++->second);
    });
}

/* Where the owner's own thread makes the connection, the bell joins the mailbox's epoll at once.
   Otherwise the helper watches the bell for its first ring: a fresh bell is not writable, so the
   helper's epoll reports that ring and nothing before it. */
static bool watch_bell(mailbox &m, source &s)
{
    if (own_mailbox() == m.id)
        return m.in.watch_quietly(s);
    if (!s.ring.rest())
        return m.in.watch(s);
    return helper_watch(watch_first_ring, s.bell.get(), EPOLLOUT | EPOLLET, m.slot, s.id);
}

/* On an old kernel, which has no pidfd, only the control connection is watched. False, with ESRCH,
   if the process has ended while another process has its end of the control connection. */
static bool watch_process(mailbox &m, connection &c)
{
    if (c.peer.process <= 0)
        return true;
    c.life = owned_fd(static_cast<int>(syscall(SYS_pidfd_open, c.peer.process, 0)));
    return c.life ? helper_watch(watch_life, c.life.get(), EPOLLIN, m.slot, c.id) : errno != ESRCH;
}

uint32_t add_connection(mailbox &m, connection_parts &&parts)
{
    const uint32_t id = free_id(m);
    connection &c = m.connections.try_emplace(id, id, std::move(parts)).first->second;
    c.incoming = m.in.add(id, c.area, c.side, std::move(c.near_bell));
    if (c.incoming &&
        helper_watch(watch_control, c.control.get(), EPOLLIN | EPOLLRDHUP, m.slot, id) &&
        watch_process(m, c) && watch_bell(m, *c.incoming))
        return id;
    const errno_keeper keeper;
    c.was_located = false;
    end_connection(m, id, ended_by::peer);
    return 0;
}

/* A token alone proves nothing, because any peer that received it could send it. So the process,
   which the kernel names, must be the same, too. */
connection *find_peer(mailbox &m, const mailbox_token &token, const peer_identity &peer)
{
    return find_connection_if(
        m, [&](const connection &c) { return c.token == token && c.peer.process == peer.process; });
}

/* A child process may have copies of our descriptors. Then an epoll entry outlives our close, so
   the entries are removed first. */
void end_connection(mailbox &m, uint32_t id, ended_by who)
{
    connection *c = find_connection(m, id);
    if (!c)
        return;
    helper_unwatch(c->control.get());
    if (c->life)
        helper_unwatch(c->life.get());
    if (c->incoming) {
        helper_unwatch(c->incoming->bell.get());
        block *notice = c->notice.release();
        if (!notice && c->was_located && c->monitor == 0)
            notice = block_take_number(MBX_MONITOR_DEFAULT_NO);
        if (notice)
            notice->sender = id;
        m.in.end(*c->incoming, notice);
    }
    note_freed(sizeof(*c) + c->waiting.memory());
    let_go(*c, who);
    if (m.sent_last == c)
        m.sent_last = nullptr;
    m.connections.erase(id);
}

/* An indication to many receivers is sent in the same order each time, and meanwhile the connection
   and the ring of each receiver have left the caches. So those of the next receiver are prefetched
   while a signal is sent to this one: without that a send takes 1.3 times as long with 100
   receivers, and 1.4 times with 1,000. */
static void expect_next(mailbox &m, connection &c)
{
    if (m.sent_last) {
        static_assert(sizeof(connection) > 128);
        const char *record = reinterpret_cast<const char *>(&c);
        m.sent_last->expected = {record, record + 64, record + 128, c.ring.words(), c.ring.place()};
    }
    m.sent_last = &c;
    for (const void *line : c.expected)
        __builtin_prefetch(line, 1);
}

void send_to_connection(uint32_t own, uint32_t receiver, block *b)
{
    with_mailbox(own, [&](mailbox &m) {
        connection *c = find_connection(m, receiver);
        if (!c || b->size > MBX_LARGEST_SIGNAL || b->number() == MBX_MONITOR_DEFAULT_NO)
            return;
        expect_next(m, *c);
        if (!deliver(*c, b, m.run))
            end_connection(m, receiver, ended_by::us);
        else if (c->held() > 0)
            want_trim();
    });
    block_give(b);
    shed();
}

/* A target that is dead already may have signals that are still to be received: then the notice
   comes behind them. */
uint32_t monitor_connection(uint32_t own, uint32_t target, block *notice)
{
    notice->sender = target;
    const uint32_t reference = next_connection_id();
    const bool is_there = with_mailbox(own, [&](mailbox &m) {
        if (connection *c = find_connection(m, target)) {
            c->notice.reset(notice);
            c->monitor = reference;
        } else if (!m.in.add_notice(target, notice)) {
            push_local(own, notice, target);
        }
    });
    if (!is_there)
        block_give(notice);
    return reference;
}

bool unmonitor_connection(uint32_t own, uint32_t reference)
{
    connection *c = nullptr;
    with_mailbox(own, [&](mailbox &m) {
        c = find_connection_if(m, [=](const connection &one) { return one.monitor == reference; });
        if (c)
            c->notice.reset();
    });
    return c != nullptr;
}

/* Returns whether pages are left that can't be released yet. */
static bool trim_all()
{
    bool is_left = false;
    for_each_connection([&](mailbox &, connection &c) { is_left |= trim(c); });
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        is_left |= m.in.trim();
    });
    return is_left;
}

/* Ends the connection with the greatest holding. False when no connection holds anything. */
static bool shed_one()
{
    mailbox *owner = nullptr;
    uint32_t id = 0;
    holding most{};
    const time_point now = std::chrono::steady_clock::now();
    for_each_connection([&](mailbox &m, const connection &c) {
        const holding its = weigh(c, now);
        if (its.own > 0 && its > most) {
            most = its;
            id = c.id;
            owner = &m;
        }
    });
    if (!owner)
        return false;
    std::lock_guard hold(owner->lock);
    end_connection(*owner, id, ended_by::us);
    return true;
}

/* Pages whose signals are read are released first, then the unread signals of ended connections,
   and then connections end. */
void shed()
{
    if (!is_too_much_held())
        return;
    std::lock_guard registry(registry_lock);
    trim_all();
    do {
        if (is_too_much_held())
            give_back_parting();
    } while (is_too_much_held() && shed_one());
}

/* Calls the function with the mailbox in that slot locked, whether it is deleted or not, and then
   ends connections if too much is held. */
template <typename function>
static void with_slot(uint32_t slot, function &&call)
{
    if (mailbox *m = mailbox_in_slot(slot)) {
        std::lock_guard hold(m->lock);
        call(*m);
    }
    shed();
}

/* Moves a part of the backlog to the ring. Returns whether to call it again. The connection of a
   deleted mailbox ends when its backlog is empty. */
static bool flush_some(mailbox &m, uint32_t id)
{
    connection *c = find_connection(m, id);
    if (!c)
        return false;
    const size_t before = c->waiting.memory();
    const bool is_more = flush(*c);
    note_freed(before - c->waiting.memory());
    if (c->waiting.is_empty() && m.id == 0)
        end_connection(m, id, ended_by::us);
    return is_more;
}

/* Returns whether the peer has room again. */
static bool take_control(mailbox &m, uint32_t id)
{
    connection *c = find_connection(m, id);
    if (!c)
        return false;
    std::vector<owned_fd> passed;
    switch (receive_wake(c->control.get(), passed)) {
    case control_event::nothing:
        return false;
    case control_event::room:
        return true;
    case control_event::bell:
        if (c->incoming)
            m.in.wake(*c->incoming);
        return false;
    case control_event::end:
        break;
    }
    if (!passed.empty())
        close_later({std::move(passed), c->peer, c->area->place()});
    end_connection(m, id, ended_by::peer);
    return false;
}

void handle_control(uint32_t slot, uint32_t id)
{
    bool has_room = false;
    with_slot(slot, [&](mailbox &m) { has_room = take_control(m, id); });
    while (has_room)
        with_slot(slot, [&](mailbox &m) { has_room = flush_some(m, id); });
}

void handle_life(uint32_t slot, uint32_t id)
{
    with_slot(slot, [&](mailbox &m) { end_connection(m, id, ended_by::peer); });
}

void handle_first_ring(uint32_t slot, uint32_t id)
{
    with_slot(slot, [&](mailbox &m) {
        const connection *c = find_connection(m, id);
        if (!c || !c->incoming)
            return;
        helper_unwatch(c->incoming->bell.get());
        if (!m.in.watch(*c->incoming))
            end_connection(m, id, ended_by::us);
    });
}

time_point trim_in_time(time_point now)
{
    if (trim_time <= now) {
        is_trim_wanted = false;
        trim_time = time_point::max();
        if (trim_all())
            is_trim_wanted = true;
        if (freed.exchange(0) >= much_freed)
            malloc_trim(0);
    }
    if (is_trim_wanted && trim_time == time_point::max())
        trim_time = now + time_to_trim;
    return trim_time;
}

/* The helper has ended, so this thread reads the control connections. */
void linger(time_point deadline)
{
    for (;;) {
        std::vector<pollfd> waiting;
        for_each_connection([&](mailbox &m, const connection &it) {
            const uint32_t id = it.id;
            if (take_control(m, id))
                while (flush_some(m, id)) {
                }
            if (const connection *c = find_connection(m, id))
                waiting.push_back({c->control.get(), POLLIN, 0});
        });
        const int left = milliseconds_until(deadline);
        if (waiting.empty() || left == 0)
            break;
        poll(waiting.data(), waiting.size(), left);
    }
    for_each_connection(
        [](mailbox &m, const connection &c) { end_connection(m, c.id, ended_by::us); });
}
