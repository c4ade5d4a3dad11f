/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_helper.h"

#include "util/thread.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>

std::mutex helper_lock;

namespace
{

struct helper {
    pthread_t thread;
    owned_fd poll;
    owned_fd event; /* to wake or stop it */
    std::atomic<bool> should_stop{false};
};

} // namespace

static constexpr size_t kind_wake = 0;
static constexpr int events_at_once = 32;
static constexpr size_t stack_bytes = size_t{128} * 1024;

static std::array<helper_call, helper_kinds> calls;
static std::array<helper_timer, helper_timers> timers;
static std::atomic<helper *> running;
/* Of the same thread, for those who hold other locks only. */
static std::atomic<int> helper_poll{-1};
static std::atomic<int> helper_event{-1};

/* Kind, slot and id in the word that epoll gives back. */
static constexpr uint64_t pack(size_t kind, uint32_t slot, uint32_t id)
{
    return uint64_t{kind} << 56 | uint64_t{slot} << 32 | id;
}

static void call_for(uint64_t word)
{
    const size_t kind = word >> 56;
    if (kind != kind_wake && calls[kind])
        calls[kind](static_cast<uint32_t>(word >> 32) & 0xffffff, static_cast<uint32_t>(word));
}

static bool control(int operation, int fd, uint32_t events, uint64_t word)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = word;
    return epoll_ctl(helper_poll, operation, fd, &event) == 0;
}

/* Without memory it is called again soon. */
static time_point run_timer(helper_timer timer, time_point now)
try {
    return timer(now);
} catch (const std::bad_alloc &) {
    return now + std::chrono::milliseconds(100);
}

/* Returns when the next timer is due. */
static time_point run_timers()
{
    time_point next = time_point::max();
    const time_point now = std::chrono::steady_clock::now();
    for (helper_timer timer : timers)
        if (timer)
            next = std::min(next, run_timer(timer, now));
    return next;
}

static void handle_events(helper &h, const epoll_event *events, int count)
{
    for (int i = 0; i < count && !h.should_stop; i++) {
        try {
            if (events[i].data.u64 == pack(kind_wake, 0, 0)) {
                uint64_t sum;
                [[maybe_unused]] const ssize_t n = read(h.event.get(), &sum, sizeof(sum));
            }
            call_for(events[i].data.u64);
        } catch (const std::bad_alloc &) {
            /* The connection in question is closed already: its parts close themselves. */
        }
    }
}

static void *run(void *argument)
{
    helper &h = *static_cast<helper *>(argument);
    pthread_setname_np(pthread_self(), "mbx-helper");
    time_point next = time_point::max();
    while (!h.should_stop) {
        epoll_event events[events_at_once];
        const int wait = next == time_point::max() ? -1 : milliseconds_until(next);
        const int count = epoll_wait(h.poll.get(), events, events_at_once, wait);
        std::lock_guard hold(helper_lock);
        handle_events(h, events, count);
        next = run_timers();
    }
    return nullptr;
}

static bool start_thread(helper &h)
{
    errno = util::start_thread(h.thread, stack_bytes, run, &h);
    return errno == 0;
}

void helper_set_call(size_t kind, helper_call call)
{
    calls[kind] = call;
}

void helper_set_timer(size_t which, helper_timer timer)
{
    timers[which] = timer;
}

bool start_helper()
{
    if (running)
        return true;
    auto h = std::make_unique<helper>();
    h->poll = owned_fd(epoll_create1(EPOLL_CLOEXEC));
    h->event = owned_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    helper_poll = h->poll.get();
    helper_event = h->event.get();
    if (!h->poll || !h->event ||
        !control(EPOLL_CTL_ADD, h->event.get(), EPOLLIN, pack(kind_wake, 0, 0)) ||
        !start_thread(*h)) {
        helper_poll = helper_event = -1;
        return false;
    }
    running = h.release();
    return true;
}

void stop_helper()
{
    helper *h = running.exchange(nullptr);
    if (!h)
        return;
    h->should_stop = true;
    helper_wake();
    pthread_join(h->thread, nullptr);
    helper_poll = helper_event = -1;
    delete h;
}

void forget_helper()
{
    helper_poll = helper_event = -1;
    delete running.exchange(nullptr);
}

bool helper_watch(size_t kind, int fd, uint32_t events, uint32_t slot, uint32_t id)
{
    return control(EPOLL_CTL_ADD, fd, events, pack(kind, slot, id));
}

bool helper_watch_again(size_t kind, int fd, uint32_t events, uint32_t slot, uint32_t id)
{
    return control(EPOLL_CTL_MOD, fd, events, pack(kind, slot, id));
}

void helper_unwatch(int fd)
{
    epoll_ctl(helper_poll, EPOLL_CTL_DEL, fd, nullptr);
}

void helper_wake()
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(helper_event, &one, sizeof(one));
}
