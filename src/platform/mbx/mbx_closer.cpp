/* SPDX-License-Identifier: Apache-2.0 */
/* The thread runs while there is something to close. It is never joined: a close may last until the
   process ends, and the kernel ends the thread with the process. */
#include "platform/mbx/mbx_closer.h"

#include "util/thread.h"

#include <deque>
#include <mutex>

namespace
{

struct closer {
    std::mutex lock;
    std::deque<to_close> waiting; /* the first one is being closed */
    bool is_running = false;
};

} // namespace

static constexpr size_t stack_bytes = size_t{64} * 1024;

/* Never destroyed: its thread uses it until the process ends. A forked child makes itself another.
 */
static closer *the_closer = new closer;

static void *run(void *argument)
{
    closer &c = *static_cast<closer *>(argument);
    pthread_setname_np(pthread_self(), "mbx-closer");
    std::unique_lock hold(c.lock);
    while (!c.waiting.empty()) {
        {
            const std::vector<owned_fd> fds = std::move(c.waiting.front().fds);
            const share held = std::move(c.waiting.front().held);
            hold.unlock();
        }
        hold.lock();
        c.waiting.pop_front();
    }
    c.is_running = false;
    return nullptr;
}

/* Without memory for a thread the descriptors wait for the next attempt. */
static bool start_thread(closer &c)
{
    pthread_t thread;
    return util::start_thread(thread, stack_bytes, run, &c) == 0 && pthread_detach(thread) == 0;
}

void close_later(to_close &&what)
{
    closer &c = *the_closer;
    std::lock_guard hold(c.lock);
    c.waiting.push_back(std::move(what));
    if (!c.is_running)
        c.is_running = start_thread(c);
}

bool is_closing_too_many(const peer_identity &peer)
{
    closer &c = *the_closer;
    std::lock_guard hold(c.lock);
    if (c.waiting.size() <= closing_at_most)
        return false;
    return std::any_of(c.waiting.begin(), c.waiting.end(),
                       [&](const to_close &one) { return one.peer.key() == peer.key(); });
}

void lock_closer()
{
    the_closer->lock.lock();
}

void unlock_closer()
{
    the_closer->lock.unlock();
}

/* The parent closes what waits. The child's copies go at its exec or its end: closed here, one of
   them could be the last one by then and block the child. */
void forget_closer()
{
    the_closer = new closer;
}
