/* SPDX-License-Identifier: Apache-2.0 */
/* tesktmo - timers that deliver a signal.

   Pending timers stand in a map, ordered by the time at which they expire and, where that is the
   same, by the order of the requests. A timerfd is always set to the first of them, as a point in
   time, so that a point that has passed already makes it readable at once and none is lost by
   setting it again. The service's one thread sleeps in a read of that descriptor: whoever requests
   a timer that comes before all others just sets the descriptor anew, and to stop the thread it is
   set to a time long past.

   A tick is sent without the lock held. The service's state is on the heap and belongs to no
   destructor: a process that exits without stopping the service may do so under the running thread.

   Setting: TESKTMO_UNIT_MS, the unit in milliseconds, 1 to 100; a set-uid program has none. */
#include "platform/tesktmo/tesktmo.h"

#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <pthread.h>
#include <sys/timerfd.h>
#include <unistd.h>

static constexpr uint64_t ns_per_ms = 1'000'000, ns_per_s = 1'000'000'000;
static constexpr uint64_t longest_unit_ms = 100;
/* Enough for a send, and a small part of what a thread gets without asking. */
static constexpr size_t stack_size = size_t{128} * 1024;

struct pending_timer {
    mbx_signal *signal;
    uint32_t mailbox;
};

struct timer_service {
    uint64_t unit_ns;
    int timer_fd;
    pthread_t thread = {};
    bool is_stopping = false;
    /* By the time of expiry, in ns of CLOCK_MONOTONIC. */
    std::multimap<uint64_t, pending_timer> timers = {};
};

/* Guards what follows and everything in it. Null while no service runs. */
static std::mutex service_lock;
static timer_service *service;

static uint64_t read_unit_ns()
{
    const char *setting = secure_getenv("TESKTMO_UNIT_MS");
    if (setting == nullptr)
        return longest_unit_ms * ns_per_ms;
    uint64_t unit = 0;
    const char *end = setting + strlen(setting);
    const auto [rest, error] = std::from_chars(setting, end, unit);
    if (error != std::errc() || rest != end || unit < 1 || unit > longest_unit_ms) {
        fputs("libtesktmo: TESKTMO_UNIT_MS must be 1 to 100 milliseconds; 100 is used\n", stderr);
        unit = longest_unit_ms;
    }
    return unit * ns_per_ms;
}

static uint64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * ns_per_s + static_cast<uint64_t>(now.tv_nsec);
}

static void wake_at(const timer_service &its, uint64_t time_ns)
{
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(time_ns / ns_per_s);
    when.it_value.tv_nsec = static_cast<long>(time_ns % ns_per_s);
    timerfd_settime(its.timer_fd, TFD_TIMER_ABSTIME, &when, nullptr);
}

/* Takes out the first timer if it has expired. If none has, sets the descriptor to the next one, if
   there is one, and gives a null signal. */
static pending_timer take_expired(timer_service &its)
{
    const auto first = its.timers.begin();
    if (first == its.timers.end())
        return {nullptr, MBX_NO_MAILBOX};
    if (first->first > now_ns()) {
        wake_at(its, first->first);
        return {nullptr, MBX_NO_MAILBOX};
    }
    return its.timers.extract(first).mapped();
}

static void *run_service(void *argument)
{
    auto &its = *static_cast<timer_service *>(argument);
    pthread_setname_np(pthread_self(), "tesktmo");
    uint64_t expirations = 0;
    while (true) {
        std::unique_lock locked(service_lock);
        if (its.is_stopping)
            return nullptr;
        /* One at a time: between two of them the service can be stopped. */
        pending_timer expired = take_expired(its);
        locked.unlock();
        if (expired.signal != nullptr)
            mbx_send(&expired.signal, expired.mailbox, expired.mailbox);
        else if (read(its.timer_fd, &expirations, sizeof(expirations)) < 0)
            return nullptr;
    }
}

/* Starts the thread with all signals blocked, as a thread of a library must be: a handler of the
   program may not run where the program doesn't know of a thread. */
static bool start_thread(timer_service &its)
{
    pthread_attr_t attributes;
    sigset_t all, before;
    sigfillset(&all);
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setstacksize(&attributes, stack_size);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&its.thread, &attributes, run_service, &its);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return error == 0;
}

bool tmo_service_init(void)
{
    const std::lock_guard locked(service_lock);
    if (service != nullptr)
        return true;
    const int timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    if (timer_fd < 0)
        return false;
    service = new timer_service{.unit_ns = read_unit_ns(), .timer_fd = timer_fd};
    if (start_thread(*service))
        return true;
    close(timer_fd);
    delete service;
    service = nullptr;
    return false;
}

void tmo_service_stop(void)
{
    std::unique_lock locked(service_lock);
    timer_service *stopped = service;
    if (stopped == nullptr)
        return;
    service = nullptr;
    stopped->is_stopping = true;
    /* Not 0, which would disarm the descriptor. */
    wake_at(*stopped, 1);
    locked.unlock();
    pthread_join(stopped->thread, nullptr);
    for (auto &[time, timer] : stopped->timers)
        mbx_free(&timer.signal);
    close(stopped->timer_fd);
    delete stopped;
}

void tmo_request_sig(uint32_t interval, mbx_signal **signal)
{
    /* Asked of the caller's thread, and before the lock, as it is the mailbox library's business.
     */
    const uint32_t mailbox = mbx_own_mailbox();
    std::unique_lock locked(service_lock);
    if (service == nullptr || mailbox == MBX_NO_MAILBOX) {
        locked.unlock();
        mbx_free(signal);
        return;
    }
    const auto timer = service->timers.emplace(now_ns() + interval * service->unit_ns,
                                               pending_timer{*signal, mailbox});
    *signal = nullptr;
    /* Any other one is waited for already, behind those that come before it. */
    if (timer == service->timers.begin())
        wake_at(*service, timer->first);
}
