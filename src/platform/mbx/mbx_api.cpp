/* SPDX-License-Identifier: Apache-2.0 */
/* The functions of mbx.h: what they are given is checked here, the work is done elsewhere. */
#pragma GCC visibility push(default)
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#pragma GCC visibility pop

#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_mailbox.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace std::chrono_literals;

constexpr int known_version = 5;
constexpr int descriptors_at_first = 4096;
constexpr auto linger_time = 1s;
constexpr int locate_ms = 5000;
constexpr auto locate_pause = 5ms;

bool initialized; /* guarded by registry_lock */

/* Whoever is interrupted by a signal handler that calls us finds its errno again. */
class errno_keeper
{
  public:
    errno_keeper() = default;
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;
    ~errno_keeper()
    {
        errno = saved_;
    }

  private:
    int saved_ = errno;
};

/* The kernel stalls a process with several threads while it grows the table of descriptors, so it
   is grown now. */
void make_room_for_descriptors()
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

/* A fork is made while nobody is inside, and the child drops what it has a copy of. */
void before_fork() /* in the order of the locks */
{
    helper_lock.lock();
    registry_lock.lock();
    for_each_mailbox([](mailbox &m) { m.lock.lock(); });
}

void unlock_all()
{
    for_each_mailbox([](mailbox &m) { m.lock.unlock(); });
    registry_lock.unlock();
    helper_lock.unlock();
}

void after_fork_in_child()
{
    forget_helper();
    for_each_mailbox(forget_mailbox);
    initialized = false;
    unlock_all();
}

bool register_fork_handlers()
{
    static bool registered; /* guarded by registry_lock */
    if (!registered)
        registered = pthread_atfork(before_fork, unlock_all, after_fork_in_child) == 0;
    return registered;
}

/* What lingers in deleted mailboxes, as far as it waits for a receiver to read. */
std::vector<pollfd> lingering()
{
    std::vector<pollfd> found;
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        m.connections.for_each([&](const connection &c) {
            found.push_back({c.tx.get(), POLLOUT, 0});
        });
    });
    return found;
}

void flush_lingering()
{
    for_each_mailbox([](mailbox &m) {
        std::lock_guard hold(m.lock);
        m.connections.for_each([&](connection &c) { flush_connection(m, c, INT32_MAX); });
    });
}

void end_lingering()
{
    for_each_mailbox([](mailbox &m) {
        std::lock_guard hold(m.lock);
        m.connections.for_each([&](connection &c) { end_connection(m, c); });
    });
}

/* The helper has ended, so this thread hands on what is left, as long as the time lasts. */
void linger()
{
    const time_point deadline = std::chrono::steady_clock::now() + linger_time;
    for (;;) {
        flush_lingering();
        std::vector<pollfd> waiting = lingering();
        const int left = milliseconds_until(deadline);
        if (waiting.empty() || left == 0)
            break;
        poll(waiting.data(), waiting.size(), left);
    }
    end_lingering();
}

/* A server answers from its helper, so that a busy one is located as fast as an idle one; the limit
   is for one that is stopped or drowned. */
time_point locate_deadline()
{
    const char *set = secure_getenv("MBX_LOCATE_MS");
    const long ms = set ? strtol(set, nullptr, 10) : 0;
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms > 0 ? ms : locate_ms);
}

/* Waits for the answer to our greeting. The connection itself has no time-out for reading, because
   a closed one is readable as well. */
std::optional<greeting> await_greeting(int control, time_point deadline)
{
    pollfd wanted{control, POLLIN, 0};
    int n;
    do {
        n = poll(&wanted, 1, milliseconds_until(deadline));
    } while (n < 0 && errno == EINTR);
    errno = ETIMEDOUT;
    return n > 0 ? receive_greeting(control) : std::nullopt;
}

/* Takes in the answer. Of two connections that crossed, the one made by the mailbox with the
   smaller token survives; both sides compare alike, and the other one is closed by who made it
   before it has carried anything. MBX_NO_MAILBOX when it has come to nothing. */
uint32_t settle(mailbox &m, uint32_t id, owned_fd control, owned_fd rx, greeting answer)
{
    std::lock_guard hold(m.lock);
    if (m.id != id)
        return MBX_NO_MAILBOX;
    if (answer.token == m.token)
        return id;
    connection *existing = find_peer(m, answer.token, peer_process(control.get()));
    if (existing && (answer.kind == greeting_kind::known || answer.token < m.token))
        return existing->id;
    if (answer.kind != greeting_kind::welcome)
        return MBX_NO_MAILBOX;
    connection *c =
        add_connection(m, std::move(control), std::move(rx), std::move(answer.tx), answer.token);
    return c ? c->id : MBX_NO_MAILBOX;
}

enum class attempt { done, again, failed }; /* failed: errno tells why */

attempt try_to_locate(mailbox &m, uint32_t id, const char *name, time_point deadline, uint32_t &out)
{
    owned_fd control = connect_to_name(name, deadline);
    if (!control)
        return attempt::failed;
    datagram_pair pair = make_datagram_pair();
    if (!pair.rx)
        return attempt::failed;
    if (!send_greeting(control.get(), greeting_kind::hello, m.token, pair.tx.get()))
        return attempt::again;
    pair.tx.reset();
    std::optional<greeting> answer = await_greeting(control.get(), deadline);
    if (!answer || answer->kind == greeting_kind::hello)
        return attempt::again;
    out = settle(m, id, std::move(control), std::move(pair.rx), std::move(*answer));
    return out == MBX_NO_MAILBOX ? attempt::again : attempt::done;
}

/* Somebody listened but did not answer well, be it that he ends or that he is short of descriptors:
   tried again until the time is over. */
uint32_t locate(mailbox &m, uint32_t id, const char *name)
{
    const time_point deadline = locate_deadline();
    for (;;) {
        uint32_t out = MBX_NO_MAILBOX;
        switch (try_to_locate(m, id, name, deadline, out)) {
        case attempt::done:
            return out;
        case attempt::failed:
            return MBX_NO_MAILBOX;
        case attempt::again:
            break;
        }
        if (milliseconds_until(deadline) == 0) {
            errno = ETIMEDOUT;
            return MBX_NO_MAILBOX;
        }
        std::this_thread::sleep_for(locate_pause);
    }
}

block *take_over(mbx_signal **signal)
{
    if (!signal || !*signal)
        return nullptr;
    return block_of(std::exchange(*signal, nullptr));
}

/* A mailbox of the same process has no connection to watch: it tells its watchers when it goes. */
uint32_t monitor_local(mailbox &target, uint32_t id, uint32_t watcher, block *notice)
{
    const uint32_t reference = next_connection_id();
    notice->word.store(reference, std::memory_order_relaxed);
    notice->sender = watcher;
    {
        std::lock_guard hold(target.lock);
        if (target.id == id) {
            target.watchers.push(notice);
            return reference;
        }
    }
    push_local(watcher, notice, id);
    return reference;
}

void unmonitor_local(uint32_t reference)
{
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        block *before = nullptr;
        for (block *b = m.watchers.head; b; before = b, b = b->next)
            if (b->word.load(std::memory_order_relaxed) == reference) {
                block_give(m.watchers.remove_after(before));
                return;
            }
    });
}

} // namespace

int mbx_init(int version, int, int, int, int)
{
    if (version != known_version)
        return -1;
    std::lock_guard registry(registry_lock);
    if (initialized)
        return 0;
    if (!register_fork_handlers())
        return -1;
    make_room_for_descriptors();
    initialized = true;
    return 0;
}

void mbx_exit(void)
{
    {
        std::lock_guard registry(registry_lock);
        if (!initialized)
            return;
        initialized = false;
        for_each_mailbox([](mailbox &m) {
            if (m.id != 0)
                delete_mailbox(m);
        });
    }
    stop_helper();
    linger();
}

uint32_t mbx_create_mailbox(const char *name, uint32_t)
try {
    std::lock_guard registry(registry_lock);
    if (!initialized || own_mailbox() != MBX_NO_MAILBOX) {
        errno = initialized ? EEXIST : EINVAL;
        return MBX_NO_MAILBOX;
    }
    return start_helper() ? create_mailbox(name) : MBX_NO_MAILBOX;
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
    return m ? m->poll.get() : -1;
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
    mailbox *from = find_mailbox(sender);
    if (!from)
        block_give(b);
    else if (receiver & mailbox_id_bit)
        push_local(receiver, b, sender);
    else
        send_to_connection(*from, sender, receiver, b);
}

mbx_signal *mbx_receive(const uint32_t *filter, int timeout_ms, uint32_t sender)
{
    const uint32_t id = own_mailbox();
    mailbox *m = find_mailbox(id);
    if (!m) {
        errno = EINVAL;
        return nullptr;
    }
    return receive_signal(*m, id, filter, timeout_ms, sender);
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
    if (!notice) {
        mbx_signal *plain = mbx_alloc(sizeof(mbx_signal), MBX_MONITOR_DEFAULT_NO);
        notice = block_of(plain);
    }
    const uint32_t id = own_or_first_mailbox();
    mailbox *m = find_mailbox(id);
    if (!m) {
        block_give(notice);
        return 0;
    }
    if (mailbox *local = find_mailbox(target))
        return monitor_local(*local, target, id, notice);
    return monitor_connection(*m, id, target, notice);
}

void mbx_unmonitor(uint32_t reference)
{
    const uint32_t id = own_or_first_mailbox();
    mailbox *m = find_mailbox(id);
    if (m && !unmonitor_connection(*m, id, reference))
        unmonitor_local(reference);
}

uint32_t mbx_locate(const char *name)
try {
    const uint32_t id = own_or_first_mailbox();
    mailbox *m = find_mailbox(id);
    if (!m) {
        errno = EINVAL;
        return MBX_NO_MAILBOX;
    }
    return locate(*m, id, name);
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return MBX_NO_MAILBOX;
}

uint32_t mbx_own_mailbox(void)
{
    return own_mailbox();
}
