/* SPDX-License-Identifier: Apache-2.0 */
/* The thread waits in an epoll of its own. What an event is about is told by kind, slot and id, and
   looked up under the mailbox's lock, so that an event for something that has ended meanwhile finds
   nothing.

   Whoever connects greets with the sending end of its pair. It is answered with ours, or told that
   the two mailboxes are connected already; only then may signals flow. A connection that does not
   greet is closed after two seconds, and one process may have a few such at a time.

   When descriptors have run out, accepting would fail for as long as that lasts and the listener
   would stay readable: it is left alone for a moment and tried again. */
#include "platform/mbx/mbx_helper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

std::mutex helper_lock;

namespace
{

using namespace std::chrono_literals;

constexpr auto time_to_greet = 2s;
constexpr auto time_to_retry = 100ms;
constexpr size_t ungreeted_at_most = 16; /* of one process */
constexpr int accepts_at_once = 64;
constexpr int flushes_at_once = 32;
constexpr int events_at_most = 32;
constexpr size_t stack_size = size_t{128} * 1024;

struct newcomer {
    uint32_t number;
    uint32_t mailbox_id;
    pid_t process;
    time_point deadline;
    owned_fd control;
};

struct helper {
    pthread_t thread;
    owned_fd poll;
    owned_fd stop;
    std::vector<newcomer> newcomers;
    uint32_t last_number = 0;
    std::vector<uint32_t> resting; /* mailboxes whose listener is left alone */
    time_point retry;
};

helper *running; /* guarded by registry_lock */
/* The same thread's epoll for those who hold a mailbox's lock only. */
std::atomic<int> helper_poll{-1};

struct subject {
    watch_kind kind;
    uint32_t slot;
    uint32_t id; /* of a mailbox, a connection, or a newcomer */
};

/* Kind, slot and id in the word that epoll gives back. */
constexpr uint64_t pack(subject s)
{
    return uint64_t{static_cast<uint8_t>(s.kind)} << 56 | uint64_t{s.slot} << 32 | s.id;
}

constexpr subject unpack(uint64_t word)
{
    return {static_cast<watch_kind>(word >> 56), static_cast<uint32_t>(word >> 32) & 0xffffff,
            static_cast<uint32_t>(word)};
}

bool control_epoll(int operation, int fd, uint32_t what, subject s)
{
    epoll_event event{};
    event.events = what;
    event.data.u64 = pack(s);
    return epoll_ctl(helper_poll, operation, fd, &event) == 0;
}

/* With the mailbox's lock held. Answers a greeting; what is not kept is closed on return. The
   connection stands before the answer goes out, so that the first signal finds it. */
void answer(mailbox &m, owned_fd control, greeting hello)
{
    const int answer_to = control.get();
    if (hello.token == m.token || find_peer(m, hello.token, peer_process(answer_to))) {
        send_greeting(answer_to, greeting_kind::known, m.token, -1);
        return;
    }
    datagram_pair pair = make_datagram_pair();
    if (!pair.rx)
        return;
    connection *c =
        add_connection(m, std::move(control), std::move(pair.rx), std::move(hello.tx), hello.token);
    if (c && !send_greeting(answer_to, greeting_kind::welcome, m.token, pair.tx.get()))
        end_connection(m, *c);
}

/* Returns whether it is settled: answered, or of no use. */
bool try_greeting(newcomer &n)
{
    std::optional<greeting> hello = receive_greeting(n.control.get());
    if (!hello)
        return errno != EAGAIN;
    helper_unwatch(n.control.get());
    mailbox *m = find_mailbox(n.mailbox_id);
    if (!m || hello->kind != greeting_kind::hello)
        return true;
    std::lock_guard hold(m->lock);
    if (m->id == n.mailbox_id)
        answer(*m, std::move(n.control), std::move(*hello));
    return true;
}

/* A client greets as soon as it is connected, so that mostly the greeting is there already and the
   connection never counts among those that are silent. */
void handle_newcomer(helper &h, owned_fd control, uint32_t mailbox_id)
{
    const pid_t process = peer_process(control.get());
    newcomer n{++h.last_number, mailbox_id, process,
               std::chrono::steady_clock::now() + time_to_greet, std::move(control)};
    if (try_greeting(n))
        return;
    const auto same = [&](const newcomer &other) { return other.process == process; };
    if (std::count_if(h.newcomers.begin(), h.newcomers.end(), same) >=
        static_cast<ptrdiff_t>(ungreeted_at_most))
        return;
    if (control_epoll(EPOLL_CTL_ADD, n.control.get(), EPOLLIN, {watch_kind::greeting, 0, n.number}))
        h.newcomers.push_back(std::move(n));
}

void remove_newcomer(helper &h, std::vector<newcomer>::iterator n)
{
    if (n->control)
        helper_unwatch(n->control.get());
    h.newcomers.erase(n);
}

void handle_greeting(helper &h, uint32_t number)
{
    const auto n = std::find_if(h.newcomers.begin(), h.newcomers.end(),
                                [&](const newcomer &other) { return other.number == number; });
    if (n != h.newcomers.end() && try_greeting(*n))
        remove_newcomer(h, n);
}

/* The wait for the next try is short enough for a client and long enough not to count. */
void rest_listener(helper &h, int listener, uint32_t mailbox_id)
{
    control_epoll(EPOLL_CTL_MOD, listener, 0,
                  {watch_kind::listener, slot_of(mailbox_id), mailbox_id});
    h.resting.push_back(mailbox_id);
    h.retry = std::chrono::steady_clock::now() + time_to_retry;
}

/* Empty when nobody else wants to connect, or nobody can now. */
owned_fd accept_one(helper &h, uint32_t mailbox_id)
{
    mailbox *m = find_mailbox(mailbox_id);
    if (!m)
        return {};
    std::lock_guard hold(m->lock);
    if (m->id != mailbox_id || !m->name.listener)
        return {};
    owned_fd control(
        accept4(m->name.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!control && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
        rest_listener(h, m->name.listener.get(), mailbox_id);
    return control;
}

void handle_listener(helper &h, uint32_t mailbox_id)
{
    for (int i = 0; i < accepts_at_once; i++) {
        owned_fd control = accept_one(h, mailbox_id);
        if (!control)
            return;
        handle_newcomer(h, std::move(control), mailbox_id);
    }
}

void wake_listeners(helper &h)
{
    for (uint32_t id : std::exchange(h.resting, {})) {
        mailbox *m = find_mailbox(id);
        if (!m)
            continue;
        std::lock_guard hold(m->lock);
        if (m->id == id)
            control_epoll(EPOLL_CTL_MOD, m->name.listener.get(), EPOLLIN,
                          {watch_kind::listener, slot_of(id), id});
    }
}

void handle_connection(subject s)
{
    mailbox *m = mailbox_in_slot(s.slot);
    if (!m)
        return;
    std::lock_guard hold(m->lock);
    connection *c = m->connections.find(s.id);
    if (!c || !c->alive())
        return;
    if (s.kind == watch_kind::control)
        end_connection(*m, *c);
    else
        flush_connection(*m, *c, flushes_at_once);
}

/* Returns false when the thread is to end. */
bool handle_event(helper &h, subject s)
{
    switch (s.kind) {
    case watch_kind::stop:
        return false;
    case watch_kind::listener:
        handle_listener(h, s.id);
        break;
    case watch_kind::greeting:
        handle_greeting(h, s.id);
        break;
    case watch_kind::control:
    case watch_kind::writable:
        handle_connection(s);
        break;
    }
    return true;
}

/* Newcomers stand in the order of their deadlines. */
void handle_time(helper &h)
{
    const time_point now = std::chrono::steady_clock::now();
    while (!h.newcomers.empty() && h.newcomers.front().deadline <= now)
        remove_newcomer(h, h.newcomers.begin());
    if (!h.resting.empty() && h.retry <= now)
        wake_listeners(h);
}

/* Until the next deadline; without one the thread sleeps until something happens. */
int time_to_wait(const helper &h)
{
    int wait = -1;
    const auto sooner = [&](time_point t) {
        const int left = milliseconds_until(t);
        wait = wait < 0 ? left : std::min(wait, left);
    };
    if (!h.newcomers.empty())
        sooner(h.newcomers.front().deadline);
    if (!h.resting.empty())
        sooner(h.retry);
    return wait;
}

void *run(void *argument)
{
    helper &h = *static_cast<helper *>(argument);
    pthread_setname_np(pthread_self(), "mbx-helper");
    for (bool going_on = true; going_on;) {
        epoll_event events[events_at_most];
        const int n = epoll_wait(h.poll.get(), events, events_at_most, time_to_wait(h));
        std::lock_guard hold(helper_lock);
        for (int i = 0; i < n && going_on; i++) {
            try {
                going_on = handle_event(h, unpack(events[i].data.u64));
            } catch (const std::bad_alloc &) {
                /* The connection in question is closed already: its parts close themselves. */
            }
        }
        handle_time(h);
    }
    return nullptr;
}

bool start_thread(helper &h)
{
    pthread_attr_t attributes;
    sigset_t all;
    sigfillset(&all);
    int error = pthread_attr_init(&attributes);
    if (error == 0) {
        pthread_attr_setstacksize(&attributes, stack_size);
        error = pthread_attr_setsigmask_np(&attributes, &all);
        if (error == 0)
            error = pthread_create(&h.thread, &attributes, run, &h);
        pthread_attr_destroy(&attributes);
    }
    errno = error;
    return error == 0;
}

} // namespace

bool start_helper()
{
    if (running)
        return true;
    auto h = std::make_unique<helper>();
    h->poll = owned_fd(epoll_create1(EPOLL_CLOEXEC));
    h->stop = owned_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    helper_poll = h->poll.get();
    if (!h->poll || !h->stop ||
        !control_epoll(EPOLL_CTL_ADD, h->stop.get(), EPOLLIN, {watch_kind::stop, 0, 0}) ||
        !start_thread(*h)) {
        helper_poll = -1;
        return false;
    }
    running = h.release();
    return true;
}

void stop_helper()
{
    helper *h;
    {
        std::lock_guard registry(registry_lock);
        h = std::exchange(running, nullptr);
    }
    if (!h)
        return;
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(h->stop.get(), &one, sizeof(one));
    pthread_join(h->thread, nullptr);
    helper_poll = -1;
    delete h;
}

void forget_helper()
{
    helper_poll = -1;
    delete std::exchange(running, nullptr);
}

bool helper_watch_listener(int listener, uint32_t mailbox_id)
{
    return control_epoll(EPOLL_CTL_ADD, listener, EPOLLIN,
                         {watch_kind::listener, slot_of(mailbox_id), mailbox_id});
}

bool helper_watch_connection(watch_kind kind, int fd, const mailbox &m, uint32_t connection_id)
{
    const uint32_t what = kind == watch_kind::writable ? EPOLLOUT : EPOLLIN | EPOLLRDHUP;
    return control_epoll(EPOLL_CTL_ADD, fd, what, {kind, slot_of(m.id), connection_id});
}

void helper_unwatch(int fd)
{
    epoll_ctl(helper_poll, EPOLL_CTL_DEL, fd, nullptr);
}
