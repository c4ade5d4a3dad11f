/* SPDX-License-Identifier: Apache-2.0 */
/* The functions of mbx.h: they check their arguments and call the other modules. */
#pragma GCC visibility push(default)
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#pragma GCC visibility pop

#include "platform/mbx/mbx_accept.h"
#include "platform/mbx/mbx_create.h"
#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_locate.h"
#include "platform/mbx/mbx_parting.h"
#include "platform/mbx/mbx_peers.h"
#include "platform/mbx/mbx_registry.h"
#include "platform/mbx/mbx_waker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/resource.h>

static constexpr int known_version = 5;
static constexpr int descriptors_at_first = 4096;
static constexpr auto linger_time = std::chrono::seconds(1);

static bool is_initialized; /* guarded by registry_lock */

static constexpr helper_duties duties{/* in the order of watch_kind */
                                      {handle_listener, handle_greeting, handle_control,
                                       handle_life, handle_first_ring, handle_hang_up, handle_ends},
                                      {trim_in_time, keep_time, look_again}};

/* Raises the limit of descriptors. The kernel stalls a process with several threads while the table
   of descriptors grows, so the table grows now. */
static void make_room_for_descriptors()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    const int last = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, descriptors_at_first)) - 1;
    const owned_fd any(open("/", O_PATH | O_CLOEXEC));
    const owned_fd highest(fcntl(any.get(), F_DUPFD_CLOEXEC, last));
}

/* A fork holds all locks, taken in their order (mbx_registry.h). */
static void before_fork()
{
    helper_lock.lock();
    registry_lock.lock();
    for_each_mailbox([](mailbox &m) { m.lock.lock(); });
    std::lock(parting_lock, accounts_lock, closer_lock, waker_lock);
}

static void after_fork()
{
    waker_lock.unlock();
    closer_lock.unlock();
    accounts_lock.unlock();
    parting_lock.unlock();
    for_each_mailbox([](mailbox &m) { m.lock.unlock(); });
    registry_lock.unlock();
    helper_lock.unlock();
}

static void after_fork_in_child()
{
    after_fork();
    forget_waker();
    forget_closer();
    forget_helper();
    end_accepting(true);
    for_each_mailbox(forget_mailbox);
    end_parting(true);
    forget_accounts();
    is_initialized = false;
}

static bool register_fork_handlers()
{
    static bool registered; /* guarded by registry_lock */
    if (!registered)
        registered = pthread_atfork(before_fork, after_fork, after_fork_in_child) == 0;
    return registered;
}

static block *take_over(mbx_signal **signal)
{
    if (!signal || !*signal)
        return nullptr;
    return block_of(std::exchange(*signal, nullptr));
}

/* A mailbox of the same process has no connection to watch: it notifies its watchers when it is
   deleted. */
static uint32_t monitor_local(uint32_t target, uint32_t watcher, block *notice)
{
    const uint32_t reference = next_connection_id();
    notice->word.store(reference, std::memory_order_relaxed);
    notice->sender = watcher;
    if (!with_mailbox(target, [&](mailbox &m) { m.watchers.push_back(*notice); }))
        push_local(watcher, notice, target);
    return reference;
}

static void unmonitor_local(uint32_t reference)
{
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        block *found = m.watchers.take_if(
            [=](const block &b) { return b.word.load(std::memory_order_relaxed) == reference; });
        if (found)
            block_give(found);
    });
}

int mbx_init(int version, int, int, int, int)
{
    if (version != known_version)
        return -1;
    std::lock_guard registry(registry_lock);
    if (is_initialized)
        return 0;
    if (!register_fork_handlers())
        return -1;
    make_room_for_descriptors();
    is_initialized = true;
    return 0;
}

void mbx_exit(void)
{
    {
        std::lock_guard registry(registry_lock);
        if (!is_initialized)
            return;
        is_initialized = false;
        for_each_mailbox([](mailbox &m) {
            if (m.id != 0)
                delete_mailbox(m);
        });
    }
    stop_helper();
    end_accepting(false);
    linger(std::chrono::steady_clock::now() + linger_time);
    end_parting(false);
    stop_waker();
}

uint32_t mbx_create_mailbox(const char *name, uint32_t)
try {
    std::unique_lock registry(registry_lock);
    if (!is_initialized || own_mailbox() != MBX_NO_MAILBOX) {
        errno = is_initialized ? EEXIST : EINVAL;
        return MBX_NO_MAILBOX;
    }
    const bool is_started = start_helper(duties);
    if (!is_started && name)
        complain_about_name(name);
    const uint32_t id = is_started ? create_mailbox(name) : MBX_NO_MAILBOX;
    registry.unlock();
    if (id != MBX_NO_MAILBOX && name)
        report_limits();
    return id;
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return MBX_NO_MAILBOX;
}

void mbx_delete_mailbox(uint32_t id)
{
    std::lock_guard registry(registry_lock);
    if (mailbox *m = find_mailbox(id))
        delete_mailbox(*m);
}

int mbx_get_fd(void)
{
    mailbox *m = find_mailbox(own_mailbox());
    return m ? m->in.fd() : -1;
}

mbx_signal *mbx_alloc(size_t size, uint32_t number)
{
    const errno_keeper keeper;
    block *b = block_take(std::max(size, sizeof(mbx_signal)));
    std::memset(b->signal(), 0, b->size);
    b->signal()->number = number;
    return b->signal();
}

void mbx_send(mbx_signal **signal, uint32_t receiver, uint32_t sender)
{
    const errno_keeper keeper;
    block *b = take_over(signal);
    if (!b)
        return;
    if (sender == MBX_OWN_MAILBOX)
        sender = own_or_first_mailbox();
    if (!find_mailbox(sender))
        block_give(b);
    else if (receiver & mailbox_id_bit)
        push_local(receiver, b, sender);
    else
        send_to_connection(sender, receiver, b);
}

mbx_signal *mbx_receive(const uint32_t *filter, int timeout_ms, uint32_t sender)
{
    const uint32_t id = own_mailbox();
    mailbox *m = find_mailbox(id);
    if (!m) {
        errno = EINVAL;
        return nullptr;
    }
    std::unique_lock hold(m->lock);
    m->run.end();
    block *b = m->id == id ? m->in.receive(hold, filter, timeout_ms, sender) : nullptr;
    hold.unlock();
    shed();
    return b ? b->signal() : nullptr;
}

void mbx_free(mbx_signal **signal)
{
    const errno_keeper keeper;
    if (block *b = take_over(signal))
        block_give(b);
}

uint32_t mbx_sender(const mbx_signal *signal)
{
    return block_of(signal)->sender;
}

uint32_t mbx_size(const mbx_signal *signal)
{
    return block_of(signal)->size;
}

uint32_t mbx_monitor(uint32_t target, mbx_signal **signal)
{
    block *notice = take_over(signal);
    if (!notice)
        notice = block_take_number(MBX_MONITOR_DEFAULT_NO);
    const uint32_t own = own_or_first_mailbox();
    if (own == MBX_NO_MAILBOX) {
        block_give(notice);
        return 0;
    }
    return find_mailbox(target) ? monitor_local(target, own, notice)
                                : monitor_connection(own, target, notice);
}

void mbx_unmonitor(uint32_t reference)
{
    if (!unmonitor_connection(own_or_first_mailbox(), reference))
        unmonitor_local(reference);
}

uint32_t mbx_locate(const char *name)
try {
    const uint32_t own = own_or_first_mailbox();
    mailbox *m = find_mailbox(own);
    if (!m) {
        errno = EINVAL;
        return MBX_NO_MAILBOX;
    }
    return locate(*m, own, name);
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return MBX_NO_MAILBOX;
}

uint32_t mbx_own_mailbox(void)
{
    return own_mailbox();
}
