/* SPDX-License-Identifier: Apache-2.0 */
/* The thread waits for descriptors until the next timer is due. Then it calls the function of each
   ready descriptor, and all timers. */
#include "platform/mbx/mbx_helper.h"

#include "util/thread.h"

#include <atomic>
#include <cerrno>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>

std::mutex helper_lock;

static constexpr int helper_events = 32;
static constexpr size_t helper_stack = size_t{128} * 1024;

/* Open while the thread runs. helper_event wakes it, or stops it together with should_stop. */
static std::atomic<int> helper_poll{-1};
static std::atomic<int> helper_event{-1};
static std::atomic<bool> should_stop;
static pthread_t thread;
static const helper_duties *duties;

/* Returns the time at which the next timer is due: in 100 ms at the latest if a timer had no
   memory. */
static time_point run_timers()
{
    time_point next = time_point::max();
    const time_point now = std::chrono::steady_clock::now();
    for (const auto timer : duties->timers) {
        try {
            next = std::min(next, timer(now));
        } catch (const std::bad_alloc &) {
            next = std::min(next, now + std::chrono::milliseconds(100));
        }
    }
    return next;
}

static void handle_events(const epoll_event *events, int count)
{
    for (int i = 0; i < count && !should_stop; i++) {
        const uint64_t word = events[i].data.u64;
        const uint64_t kind = word >> 56;
        if (kind == watch_wake) {
            eventfd_t sum;
            eventfd_read(helper_event, &sum);
            continue;
        }
        try {
            duties->calls[kind](static_cast<uint32_t>(word >> 32) & 0xffffff,
                                static_cast<uint32_t>(word));
        } catch (const std::bad_alloc &) {
            /* The event is dropped. Descriptors that it has opened or received are closed by their
               owners. */
        }
    }
}

static void *run_helper(void *)
{
    pthread_setname_np(pthread_self(), "mbx-helper");
    time_point next = time_point::max();
    while (!should_stop) {
        epoll_event events[helper_events];
        const int wait = next == time_point::max() ? -1 : milliseconds_until(next);
        const int count = epoll_wait(helper_poll, events, helper_events, wait);
        std::lock_guard hold(helper_lock);
        handle_events(events, count);
        next = run_timers();
    }
    return nullptr;
}

void forget_helper()
{
    const owned_fd poll(helper_poll.exchange(-1));
    const owned_fd event(helper_event.exchange(-1));
}

bool start_helper(const helper_duties &its_duties)
{
    if (helper_poll != -1)
        return true;
    duties = &its_duties;
    helper_poll = epoll_create1(EPOLL_CLOEXEC);
    helper_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    should_stop = false;
    if (helper_poll != -1 && helper_event != -1 &&
        helper_watch(watch_wake, helper_event, EPOLLIN, 0, 0)) {
        errno = util::start_thread(thread, helper_stack, run_helper, nullptr);
        if (errno == 0)
            return true;
    }
    forget_helper();
    return false;
}

void stop_helper()
{
    if (helper_poll == -1)
        return;
    should_stop = true;
    helper_wake();
    pthread_join(thread, nullptr);
    forget_helper();
}

bool helper_watch(watch_kind kind, int fd, uint32_t events, uint32_t slot, uint32_t id)
{
    epoll_event event{events, {.u64 = uint64_t{kind} << 56 | uint64_t{slot} << 32 | id}};
    return epoll_ctl(helper_poll, EPOLL_CTL_ADD, fd, &event) == 0 ||
           (errno == EEXIST && epoll_ctl(helper_poll, EPOLL_CTL_MOD, fd, &event) == 0);
}

void helper_unwatch(int fd)
{
    epoll_ctl(helper_poll, EPOLL_CTL_DEL, fd, nullptr);
}

void helper_wake()
{
    eventfd_write(helper_event, 1);
}
