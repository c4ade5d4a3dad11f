/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: ring_later() adds a bell to those that are due; the thread takes all of them and
   rings them together; a bell that retires meanwhile is closed behind that. */
#include "platform/mbx/mbx_waker.h"

#include "platform/mbx/mbx_uring.h"
#include "util/thread.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sched.h>
#include <utility>
#include <vector>

static constexpr size_t due_at_most = 1024;
static constexpr size_t stack_bytes = size_t{64} * 1024;

namespace
{

struct waker {
    std::condition_variable changed;
    std::vector<due_bell> due;
    std::vector<due_bell> ringing; /* written by the thread, under the lock */
    bell_reader reader;            /* the thread's */
    bool was_started = false;      /* with or without success */
    bool is_running = false;
    bool should_stop = false;
    pthread_t thread{};
};

} // namespace

std::mutex waker_lock;
/* What it holds but the reader is guarded by waker_lock. Never destroyed: its thread uses it until
   the process ends. A forked child makes itself another. */
static waker *the_waker = new waker;

/* A thread of this class preempts no other when it wakes up, and is preempted at once. One that has
   inherited a priority keeps it, so as not to starve behind its sender. */
static void give_way()
{
    const sched_param none{};
    if (sched_getscheduler(0) == SCHED_OTHER)
        sched_setscheduler(0, SCHED_BATCH, &none);
}

static bool may_use_uring()
{
    const char *set = secure_getenv("MBX_IO_URING");
    return !set || strcmp(set, "0") != 0;
}

/* The close of a bell, which is a file of the kernel's own, waits for nobody. */
static void *run(void *argument)
{
    waker &w = *static_cast<waker *>(argument);
    pthread_setname_np(pthread_self(), "mbx-waker");
    give_way();
    std::unique_lock hold(waker_lock);
    for (;;) {
        w.changed.wait(hold, [&] { return w.should_stop || !w.due.empty(); });
        if (w.due.empty())
            break;
        w.ringing.swap(w.due);
        hold.unlock();
        w.reader.ring(w.ringing);
        hold.lock();
        for (const due_bell &bell : w.ringing)
            if (bell.is_retired)
                close(bell.fd);
        w.ringing.clear();
    }
    return nullptr;
}

/* With the lock held. */
static bool start(waker &w)
try {
    if (!may_use_uring() || !w.reader.open())
        return false;
    w.due.reserve(due_at_most);
    w.ringing.reserve(due_at_most);
    return util::start_thread(w.thread, stack_bytes, run, &w) == 0;
} catch (const std::bad_alloc &) {
    return false;
}

bool ring_later(int bell)
{
    waker &w = *the_waker;
    std::unique_lock hold(waker_lock);
    if (!std::exchange(w.was_started, true))
        w.is_running = start(w);
    if (!w.is_running || w.should_stop || w.due.size() == due_at_most)
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
    const std::lock_guard hold(waker_lock);
    if (mark_retired(w.due, bell.get()) || mark_retired(w.ringing, bell.get()))
        bell.release();
}

void stop_waker()
{
    waker &w = *the_waker;
    std::unique_lock hold(waker_lock);
    if (w.is_running) {
        w.should_stop = true;
        hold.unlock();
        w.changed.notify_one();
        pthread_join(w.thread, nullptr);
        hold.lock();
    }
    w.reader.close();
    w.was_started = w.is_running = w.should_stop = false;
}

/* The parent rings what is due; the child's copies of retired bells go at its exec or its end. */
void forget_waker()
{
    the_waker->reader.close();
    the_waker = new waker;
}
