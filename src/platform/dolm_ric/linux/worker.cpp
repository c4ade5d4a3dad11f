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
#include <unistd.h>
#include <utility>

namespace linux_board
{

worker::worker()
    : wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      later_fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      stop_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (wake_fd_ >= 0 && later_fd_ >= 0 && stop_fd_ >= 0)
        return;
    const int error = errno;
    close(wake_fd_);
    close(later_fd_);
    close(stop_fd_);
    throw std::system_error(error, std::generic_category(), "eventfd or timerfd");
}

worker::~worker()
{
    stop();
    close(wake_fd_);
    close(later_fd_);
    close(stop_fd_);
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
    eventfd_write(stop_fd_, 1);
    wake();
    thread_.join();
}

void worker::wake()
{
    eventfd_write(wake_fd_, 1);
}

void worker::wake_later()
{
    constexpr long delay_ns = 20'000'000;
    const itimerspec once = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_nsec = delay_ns}};
    if (timerfd_settime(later_fd_, 0, &once, nullptr) == 0)
        return;
    is_later_due_ = true;
    wake();
}

/* A timerfd is read like an eventfd. */
bool worker::clear_wake()
{
    eventfd_t count;
    eventfd_read(wake_fd_, &count);
    const bool is_due = is_later_due_.exchange(false);
    return eventfd_read(later_fd_, &count) == 0 || is_due;
}

} // namespace linux_board
