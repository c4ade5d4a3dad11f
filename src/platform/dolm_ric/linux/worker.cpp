/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: start() blocks all process signals for the new thread; wake() and wake_later()
   make its descriptors readable; stop() sets the flag, wakes the thread and joins it. */
#include "platform/dolm_ric/linux/worker.h"

#include "util/thread.h"

#include <cerrno>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <system_error>
#include <utility>

namespace linux_board
{

worker::worker() : later_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))
{
    if (!later_)
        throw std::system_error(errno, std::generic_category(), "timerfd");
}

worker::~worker()
{
    stop();
}

void worker::start(const char *name, std::function<void()> run)
{
    thread_ = util::start_thread(name, std::move(run));
}

void worker::stop()
{
    if (!thread_.joinable())
        return;
    stopping_ = true;
    stop_.signal();
    wake();
    thread_.join();
}

void worker::wake()
{
    wake_.signal();
}

void worker::wake_later()
{
    constexpr long delay_ns = 20'000'000;
    const itimerspec once = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_nsec = delay_ns}};
    if (timerfd_settime(later_.get(), 0, &once, nullptr) == 0)
        return;
    is_later_due_ = true;
    wake();
}

/* A timerfd is read like an eventfd. */
bool worker::clear_wake()
{
    wake_.take();
    const bool is_due = is_later_due_.exchange(false);
    eventfd_t count = 0;
    return eventfd_read(later_.get(), &count) == 0 || is_due;
}

} // namespace linux_board
