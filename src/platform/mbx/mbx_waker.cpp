/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_waker.h"

#include "platform/mbx/mbx_area.h"
#include "platform/mbx/mbx_uring.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <vector>

static constexpr size_t due_at_most = 1024;
static constexpr size_t stack_bytes = size_t{64} * 1024;

namespace
{

struct waker {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<due_bell> due;
    std::vector<due_bell> ringing; /* written by the thread, under the lock */
    std::vector<due_bell> rung;    /* the thread's */
    bell_reader reader;            /* the same */
    bool is_started = false;
    bool should_stop = false;
    std::atomic<bool> is_refused{false};
    pthread_t thread{};
};

} // namespace

/* Never destroyed: its thread uses it until the process ends. A forked child makes itself another.
 */
static waker *the_waker = new waker;

/* A thread of this class preempts no other when it wakes up, and is preempted at once. One that has
   inherited a priority keeps it, so as not to starve behind its sender. */
static void give_way()
{
    const sched_param none{};
    if (sched_getscheduler(0) == SCHED_OTHER)
        sched_setscheduler(0, SCHED_BATCH, &none);
}

/* Returns whether the next ones can be rung in the same way. */
static bool ring_all(bell_reader &reader, const std::vector<due_bell> &bells, bool is_usable)
{
    for (size_t at = 0; at < bells.size(); at += reads_at_once) {
        const size_t count = std::min<size_t>(bells.size() - at, reads_at_once);
        if (is_usable) {
            is_usable = reader.read(&bells[at], static_cast<uint32_t>(count));
            continue;
        }
        for (size_t i = at; i < at + count; i++)
            ring_bell(bells[i].fd);
    }
    return is_usable;
}

/* A bell that is off the lists is the thread's to close. */
static void finish(waker &w, std::unique_lock<std::mutex> &hold)
{
    w.rung.swap(w.ringing);
    hold.unlock();
    for (const due_bell &bell : w.rung)
        if (bell.is_retired)
            close(bell.fd);
    w.rung.clear();
    hold.lock();
}

static void *run(void *argument)
{
    waker &w = *static_cast<waker *>(argument);
    pthread_setname_np(pthread_self(), "mbx-waker");
    give_way();
    bool is_usable = w.reader.open();
    std::unique_lock hold(w.lock);
    for (;;) {
        w.is_refused = !is_usable;
        w.changed.wait(hold, [&] { return w.should_stop || !is_usable || !w.due.empty(); });
        if (w.due.empty())
            break;
        w.ringing.swap(w.due);
        hold.unlock();
        is_usable = ring_all(w.reader, w.ringing, is_usable);
        hold.lock();
        finish(w, hold);
    }
    w.reader.close();
    if (!w.should_stop) { /* not joined in this case */
        w.is_started = false;
        pthread_detach(pthread_self());
    }
    return nullptr;
}

static bool is_wanted()
{
    const char *set = secure_getenv("MBX_IO_URING");
    return !set || strcmp(set, "0") != 0;
}

/* With the lock held. */
static bool start_thread(waker &w)
try {
    w.due.reserve(due_at_most);
    w.ringing.reserve(due_at_most);
    w.rung.reserve(due_at_most);
    pthread_attr_t attributes;
    sigset_t all;
    sigfillset(&all);
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setstacksize(&attributes, stack_bytes);
    const bool is_started = pthread_attr_setsigmask_np(&attributes, &all) == 0 &&
                            pthread_create(&w.thread, &attributes, run, &w) == 0;
    pthread_attr_destroy(&attributes);
    return is_started;
} catch (const std::bad_alloc &) {
    return false;
}

bool ring_later(int bell)
{
    waker &w = *the_waker;
    if (w.is_refused.load(std::memory_order_relaxed))
        return false;
    std::unique_lock hold(w.lock);
    if (!w.is_started && !w.is_refused) {
        w.is_started = is_wanted() && start_thread(w);
        w.is_refused = !w.is_started;
    }
    if (w.is_refused || w.should_stop || w.due.size() == due_at_most)
        return false;
    w.due.push_back({bell, false});
    const bool may_sleep = w.due.size() == 1 && w.ringing.empty();
    hold.unlock();
    if (may_sleep)
        w.changed.notify_one();
    return true;
}

static bool mark_retired(std::vector<due_bell> &bells, int fd)
{
    const auto found = std::find_if(bells.begin(), bells.end(),
                                    [fd](const due_bell &bell) { return bell.fd == fd; });
    if (found == bells.end())
        return false;
    found->is_retired = true;
    return true;
}

/* A bell that is due has a signal to go with it: its receiver takes that in any case, at the
   latest when it notices the end of the connection, and a ring in between does no harm. */
void retire_bell(owned_fd bell)
{
    waker &w = *the_waker;
    const std::lock_guard hold(w.lock);
    if (mark_retired(w.due, bell.get()) || mark_retired(w.ringing, bell.get()))
        bell.release();
}

void stop_waker()
{
    waker &w = *the_waker;
    std::unique_lock hold(w.lock);
    if (w.is_started) {
        w.should_stop = true;
        hold.unlock();
        w.changed.notify_one();
        pthread_join(w.thread, nullptr);
        hold.lock();
    }
    w.is_started = false;
    w.should_stop = false;
    w.is_refused = false;
}

void lock_waker()
{
    the_waker->lock.lock();
}

void unlock_waker()
{
    the_waker->lock.unlock();
}

/* The parent rings what is due; the child's copies of retired bells go at its exec or its end. */
void forget_waker()
{
    the_waker->reader.close();
    the_waker = new waker;
}
