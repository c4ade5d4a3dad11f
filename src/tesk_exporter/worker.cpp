/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: start() makes the thread; wait() returns when the descriptor is readable, or
   must_stop() became true; stop() interrupts the system call in which the thread is blocked, if
   any, and joins it. */
#include "tesk_exporter/worker.h"

#include "util/poll.h"

#include <algorithm>
#include <csignal>
#include <poll.h>

namespace exporter
{

static bool is_readable(pollfd *polled, nfds_t count, int timeout)
{
    return util::poll_or_pause({polled, count}, timeout) > 0;
}

worker::~worker()
{
    stop();
}

/* Without SA_RESTART, so that the interrupted call returns. */
static void make_signal_interrupt()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
}

void worker::start(std::function<void()> body)
{
    make_signal_interrupt();
    /* noexcept: otherwise the task would store an exception, and nobody would notice the thread's
       end. */
    std::packaged_task<void()> task([body = std::move(body)]() noexcept { body(); });
    end_ = task.get_future();
    thread_ = std::thread(std::move(task));
}

/* The descriptor stays readable, so that every later wait returns at once. A signal that arrives
   just before a system call doesn't interrupt the call, so signals are sent repeatedly. */
void worker::stop()
{
    stop_.signal();
    if (!thread_.joinable())
        return;
    while (end_.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
        pthread_kill(thread_.native_handle(), SIGUSR1);
    thread_.join();
}

bool worker::must_stop() const
{
    pollfd polled{stop_.fd(), POLLIN, 0};
    return is_readable(&polled, 1, 0);
}

bool worker::wait(int fd, std::chrono::milliseconds at_most) const
{
    pollfd polled[] = {{stop_.fd(), POLLIN, 0}, {fd, POLLIN, 0}};
    const auto timeout = static_cast<int>(std::clamp<int64_t>(at_most.count(), 0, 3'600'000));
    return is_readable(polled, std::size(polled), timeout) && polled[1].revents != 0;
}

} // namespace exporter
