/* SPDX-License-Identifier: Apache-2.0 */
/* The thread runs while there is something to close. It is never joined: a close may last until the
   process ends, and the kernel ends the thread with the process. */
#include "platform/mbx/mbx_closer.h"

#include "util/thread.h"

#include <deque>

static constexpr size_t closer_stack = size_t{64} * 1024;

std::mutex closer_lock;
/* Guarded by closer_lock. The queue is never destroyed: the thread uses it until the process ends.
 */
static std::deque<to_close> *closing = new std::deque<to_close>; /* the first is being closed */
static bool is_running;

static void *run_closer(void *)
{
    pthread_setname_np(pthread_self(), "mbx-closer");
    std::unique_lock hold(closer_lock);
    while (!closing->empty()) {
        {
            /* The descriptors, which are destroyed first, count until they are closed. */
            const std::shared_ptr<entry> place = std::move(closing->front().place);
            const std::vector<owned_fd> fds = std::move(closing->front().fds);
            hold.unlock();
        }
        hold.lock();
        closing->pop_front();
    }
    is_running = false;
    return nullptr;
}

/* If no thread can be started, the descriptors wait until the next call starts one. */
void close_later(to_close &&what)
{
    std::lock_guard hold(closer_lock);
    closing->push_back(std::move(what));
    pthread_t thread;
    if (!is_running)
        is_running = util::start_thread(thread, closer_stack, run_closer, nullptr) == 0 &&
                     pthread_detach(thread) == 0;
}

bool is_closing_too_many(const peer_identity &peer)
{
    std::lock_guard hold(closer_lock);
    if (closing->size() <= closing_at_most)
        return false;
    return std::any_of(closing->begin(), closing->end(),
                       [&](const to_close &one) { return one.peer.key() == peer.key(); });
}

/* The parent closes the queued descriptors. The child's copies are closed at its exec or its end:
   if the child closed a copy here, that could be the last one by then, and the close could block.
   */
void forget_closer()
{
    closing = new std::deque<to_close>;
    is_running = false;
}
