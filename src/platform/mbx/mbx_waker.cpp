/* SPDX-License-Identifier: Apache-2.0 */
/* The thread takes all bells that are due and rings them together. A bell that is retired while it
   is due is closed after it was rung. A bell is rung by reading it (mbx_area.h), here also with
   RWF_NOWAIT: the kernel answers such a read at once and never hands it to a worker of its own. */
#include "platform/mbx/mbx_waker.h"

#include "platform/mbx/mbx_area.h"
#include "util/thread.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <liburing.h>
#include <new>
#include <sched.h>
#include <span>
#include <sys/uio.h>
#include <utility>
#include <vector>

static constexpr size_t due_at_most = 1024;
static constexpr uint32_t reads_at_once = 256;
static constexpr size_t waker_stack = size_t{64} * 1024;

namespace
{

struct due_bell {
    int fd;
    owned_fd retired; /* owns fd once the bell is retired: closed after it is rung */
};

enum class waker_state {
    fresh,   /* there has been no fan-out */
    refused, /* there is no thread, as there is no io_uring, or no memory */
    running,
    stopping
};

struct waker {
    std::condition_variable changed;
    std::vector<due_bell> due;
    std::vector<due_bell> ringing; /* written with the lock held; the thread reads it without */
    io_uring reads{};              /* used by the thread alone while it runs */
    bool can_read = false;         /* used like `reads`: whether that is open */
    waker_state state = waker_state::fresh;
    pthread_t thread{};
};

} // namespace

std::mutex waker_lock;
/* Guarded by waker_lock, except for the members that the thread uses without it. Never destroyed:
   the thread uses it until the process ends. A forked child makes a new waker. */
static waker *the_waker = new waker;

/* A SCHED_BATCH thread preempts no other thread when it wakes up. A thread that has inherited a
   real-time priority keeps it, because it would starve behind its sender otherwise. */
static void give_way()
{
    const sched_param none{};
    if (sched_getscheduler(0) == SCHED_OTHER)
        sched_setscheduler(0, SCHED_BATCH, &none);
}

/* A kernel that takes this flag (5.18) has all else that is used here. */
static bool open_reads(waker &w)
{
    const char *set = secure_getenv("MBX_IO_URING");
    w.can_read = (!set || strcmp(set, "0") != 0) &&
                 io_uring_queue_init(reads_at_once, &w.reads, IORING_SETUP_SUBMIT_ALL) == 0;
    return w.can_read;
}

static void close_reads(waker &w)
{
    if (std::exchange(w.can_read, false))
        io_uring_queue_exit(&w.reads);
}

/* Rings up to reads_at_once bells by one submission. Returns how many reads the kernel has taken;
   if it has not taken all, the io_uring is closed. When the submission returns, each read that was
   taken has succeeded or failed. Only failed reads are reported, and their bells are rung one by
   one. */
static size_t read_together(waker &w, std::span<const due_bell> bells)
{
    static uint64_t count; /* the target of the reads; its value is not used */
    for (const due_bell &bell : bells) {
        io_uring_sqe *entry = io_uring_get_sqe(&w.reads);
        io_uring_prep_read(entry, bell.fd, &count, sizeof(count), UINT64_MAX);
        entry->flags = IOSQE_CQE_SKIP_SUCCESS;
        entry->rw_flags = RWF_NOWAIT;
        entry->user_data = static_cast<uint64_t>(bell.fd);
    }
    const int taken = io_uring_submit(&w.reads);
    for (io_uring_cqe *failed; io_uring_peek_cqe(&w.reads, &failed) == 0;) {
        ring_bell(static_cast<int>(failed->user_data));
        io_uring_cqe_seen(&w.reads, failed);
    }
    if (taken != static_cast<int>(bells.size()))
        close_reads(w);
    return static_cast<size_t>(std::max(taken, 0));
}

static void ring_all(waker &w, std::span<const due_bell> bells)
{
    while (!bells.empty()) {
        const auto some = bells.first(std::min<size_t>(bells.size(), reads_at_once));
        for (const due_bell &bell : some.subspan(w.can_read ? read_together(w, some) : 0))
            ring_bell(bell.fd);
        bells = bells.subspan(some.size());
    }
}

/* Retired bells are closed with the lock held: a bell was made by make_bell() or has passed
   may_be_bell(), so its close waits for no other process. */
static void *run_waker(void *argument)
{
    waker &w = *static_cast<waker *>(argument);
    pthread_setname_np(pthread_self(), "mbx-waker");
    give_way();
    std::unique_lock hold(waker_lock);
    for (;;) {
        w.changed.wait(hold, [&] { return w.state == waker_state::stopping || !w.due.empty(); });
        if (w.due.empty())
            break;
        w.ringing.swap(w.due);
        hold.unlock();
        ring_all(w, w.ringing);
        hold.lock();
        w.ringing.clear();
    }
    return nullptr;
}

/* With the lock held. */
static bool start(waker &w)
try {
    if (!open_reads(w))
        return false;
    w.due.reserve(due_at_most);
    w.ringing.reserve(due_at_most);
    return util::start_thread(w.thread, waker_stack, run_waker, &w) == 0;
} catch (const std::bad_alloc &) {
    return false;
}

bool ring_later(int bell)
{
    waker &w = *the_waker;
    std::unique_lock hold(waker_lock);
    if (w.state == waker_state::fresh)
        w.state = start(w) ? waker_state::running : waker_state::refused;
    if (w.state != waker_state::running || w.due.size() == due_at_most)
        return false;
    w.due.push_back({bell, {}});
    const bool may_sleep = w.due.size() == 1 && w.ringing.empty();
    hold.unlock();
    if (may_sleep)
        w.changed.notify_one();
    return true;
}

static bool keep_open(std::vector<due_bell> &bells, owned_fd &bell)
{
    const auto found = std::find_if(bells.begin(), bells.end(),
                                    [&](const due_bell &one) { return one.fd == bell.get(); });
    if (found == bells.end())
        return false;
    found->retired = std::move(bell);
    return true;
}

/* A bell that is due has a signal that goes with it. The receiver takes this signal in any case, at
   the latest when it notices the end of the connection, and a ring before that does no harm. */
void retire_bell(owned_fd bell)
{
    waker &w = *the_waker;
    const std::lock_guard hold(waker_lock);
    if (!keep_open(w.due, bell))
        keep_open(w.ringing, bell);
}

void stop_waker()
{
    waker &w = *the_waker;
    std::unique_lock hold(waker_lock);
    if (w.state == waker_state::running) {
        w.state = waker_state::stopping;
        hold.unlock();
        w.changed.notify_one();
        pthread_join(w.thread, nullptr);
        hold.lock();
    }
    close_reads(w);
    w.state = waker_state::fresh;
}

/* The parent rings the bells that are due. The child's copies of retired bells are closed at its
   exec or its end. */
void forget_waker()
{
    close_reads(*the_waker);
    the_waker = new waker;
}
