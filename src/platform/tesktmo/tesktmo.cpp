/* SPDX-License-Identifier: Apache-2.0 */
/* Pending timers are in a map, ordered by expiry and, for equal expiries, by request. A timerfd is
   always set to the first of them, as a point in time: a point that has already passed makes it
   readable at once, and no expiry is lost when it is set again. The service's one thread sleeps in
   a read of that descriptor. A request that comes before all others sets the descriptor, and so
   does a stop, to a time long past.

   A tick is sent with the lock released. The service's state is on the heap and has no destructor
   that runs at exit: a process may exit without stopping the service while the thread runs.

   Setting: TESKTMO_UNIT_MS, the unit in milliseconds, 1 to 100; a set-uid program has none. */
#include "platform/tesktmo/tesktmo.h"

#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#include "util/descriptor.h"
#include "util/thread.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sys/timerfd.h>
#include <unistd.h>

static constexpr uint64_t ns_per_ms = 1'000'000, ns_per_s = 1'000'000'000;
static constexpr uint64_t longest_unit_ms = 100;
/* Enough for a send; the default of several MiB is wasted here. */
static constexpr size_t stack_size = size_t{128} * 1024;

namespace
{

struct pending_timer {
    mbx_signal *signal;
    uint32_t mailbox;
};

struct timer_service {
    uint64_t unit_ns;
    util::descriptor timer;
    pthread_t thread = {};
    bool is_stopping = false;
    /* The pending timers by time of expiry, in ns of CLOCK_MONOTONIC. */
    std::multimap<uint64_t, pending_timer> timers = {};
};

} // namespace

/* Guards the pointer and the service that it points to. The pointer is null while no service
   runs. */
static std::mutex service_lock;
static timer_service *running;

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

static void wake_at(const timer_service &service, uint64_t time_ns)
{
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(time_ns / ns_per_s);
    when.it_value.tv_nsec = static_cast<long>(time_ns % ns_per_s);
    timerfd_settime(service.timer.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

/* Removes and returns the first timer if it has expired. Otherwise sets the timerfd to the first
   timer, if there is one, and returns a null signal. */
static pending_timer take_expired(timer_service &service)
{
    const auto first = service.timers.begin();
    if (first == service.timers.end())
        return {nullptr, MBX_NO_MAILBOX};
    if (first->first > now_ns()) {
        wake_at(service, first->first);
        return {nullptr, MBX_NO_MAILBOX};
    }
    return service.timers.extract(first).mapped();
}

static void *run_service(void *argument)
{
    auto &service = *static_cast<timer_service *>(argument);
    pthread_setname_np(pthread_self(), "tesktmo");
    uint64_t expirations = 0;
    while (true) {
        std::unique_lock locked(service_lock);
        if (service.is_stopping)
            return nullptr;
        /* One tick at a time: the service can be stopped between two ticks. */
        pending_timer expired = take_expired(service);
        locked.unlock();
        if (expired.signal != nullptr)
            mbx_send(&expired.signal, expired.mailbox, expired.mailbox);
        else if (read(service.timer.get(), &expirations, sizeof(expirations)) < 0)
            return nullptr;
    }
}

/* Not open if the timerfd can't be created or set. The second call tests setting by disarming the
   timer: otherwise a thread that can't be woken would delay the end of the process. */
static util::descriptor open_timer()
{
    const itimerspec never{};
    util::descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    if (timer && timerfd_settime(timer.get(), 0, &never, nullptr) == 0)
        return timer;
    fprintf(stderr, "libtesktmo: cannot make a timer: %s\n", strerror(errno));
    return {};
}

/* Null if there is no memory, descriptor or thread for the service. */
static timer_service *start_service()
{
    util::descriptor timer = open_timer();
    if (!timer)
        return nullptr;
    /* cppcheck-suppress legacyUninitvar */
    auto *service =
        new (std::nothrow) timer_service{.unit_ns = read_unit_ns(), .timer = std::move(timer)};
    if (service != nullptr &&
        util::start_thread(service->thread, stack_size, run_service, service) == 0)
        return service;
    delete service;
    return nullptr;
}

bool tmo_service_init(void)
{
    const std::lock_guard locked(service_lock);
    if (running == nullptr)
        running = start_service();
    return running != nullptr;
}

void tmo_service_stop(void)
{
    std::unique_lock locked(service_lock);
    timer_service *stopped = running;
    if (stopped == nullptr)
        return;
    running = nullptr;
    stopped->is_stopping = true;
    /* Not 0, which would disarm the descriptor. */
    wake_at(*stopped, 1);
    locked.unlock();
    pthread_join(stopped->thread, nullptr);
    for (auto &[time, timer] : stopped->timers)
        mbx_free(&timer.signal);
    delete stopped;
}

/* False if the timer can't be added, because no service runs or memory is exhausted. */
static bool add_timer(uint32_t interval, const pending_timer &added)
{
    const std::lock_guard locked(service_lock);
    if (running == nullptr)
        return false;
    try {
        const auto timer = running->timers.emplace(now_ns() + interval * running->unit_ns, added);
        /* If an earlier timer is first, the descriptor is set to that one already. */
        if (timer == running->timers.begin())
            wake_at(*running, timer->first);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

void tmo_request_sig(uint32_t interval, mbx_signal **signal)
{
    /* Called before the lock is taken, since the call enters another library. */
    const uint32_t mailbox = mbx_own_mailbox();
    if (mailbox != MBX_NO_MAILBOX && add_timer(interval, {*signal, mailbox}))
        *signal = nullptr;
    else
        mbx_free(signal);
}
