/* SPDX-License-Identifier: Apache-2.0 */
/* deadline - a point in time up to which something is waited for. One thread at a time changes
   it. */
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace util
{

class deadline
{
  public:
    using clock = std::chrono::steady_clock;

    explicit deadline(std::chrono::milliseconds from_now) noexcept : end_(clock::now() + from_now)
    {
    }

    clock::time_point end() const noexcept
    {
        return end_;
    }
    bool has_passed() const noexcept
    {
        return clock::now() >= end_;
    }
    /* The rest in milliseconds as poll() takes it: rounded up, so that a poll with it doesn't end
       before the deadline; 0 once that has passed. */
    int poll_timeout() const noexcept
    {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end_ - clock::now()).count();
        return static_cast<int>(std::clamp<long long>(rest, 0, INT_MAX));
    }

  private:
    clock::time_point end_;
};

} // namespace util
