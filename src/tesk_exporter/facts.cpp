/* SPDX-License-Identifier: Apache-2.0 */
/* The main thread takes all facts at once and waits for its descriptors only, so that the queue is
   full only during a burst. */
#include "tesk_exporter/facts.h"

#include "util/boot_clock.h"

#include <utility>

namespace exporter
{

steady_time steady_clock::now() noexcept
{
    return time_point(util::boot_time().time_since_epoch());
}

void fact_queue::post(fact reported)
{
    std::unique_lock lock(mutex_);
    taken_.wait(lock, [this] { return closed_ || facts_.size() < capacity; });
    if (closed_)
        return;
    facts_.push_back(std::move(reported));
    if (facts_.size() == 1)
        waiting_.signal();
}

std::vector<fact> fact_queue::take()
{
    const std::lock_guard lock(mutex_);
    waiting_.take();
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
