/* SPDX-License-Identifier: Apache-2.0 */
/* The main thread takes all facts at once and waits for its descriptors only, so that the queue is
   full only during a burst. */
#include "tesk_exporter/facts.h"

#include "util/boot_clock.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace exporter
{

steady_time steady_clock::now() noexcept
{
    return time_point(util::boot_time().time_since_epoch());
}

static int new_eventfd()
{
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd;
}

fact_queue::fact_queue() : fd_(new_eventfd())
{
}

fact_queue::~fact_queue()
{
    ::close(fd_);
}

void fact_queue::post(fact reported)
{
    std::unique_lock lock(mutex_);
    taken_.wait(lock, [this] { return closed_ || facts_.size() < capacity; });
    if (closed_)
        return;
    facts_.push_back(std::move(reported));
    if (facts_.size() == 1)
        eventfd_write(fd_, 1);
}

std::vector<fact> fact_queue::take()
{
    const std::lock_guard lock(mutex_);
    eventfd_t count = 0;
    eventfd_read(fd_, &count);
    taken_.notify_all();
    return std::exchange(facts_, {});
}

void fact_queue::close()
{
    const std::lock_guard lock(mutex_);
    closed_ = true;
    taken_.notify_all();
}

} // namespace exporter
