/* SPDX-License-Identifier: Apache-2.0 */
/* deadline - the end of a wait as a point in time. One thread at a time changes it. */
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace util
{

/* The time until `end` in milliseconds, as poll() takes it: rounded up, so that a poll doesn't
   return before `end`; 0 once `end` has passed. */
inline int milliseconds_until(std::chrono::steady_clock::time_point end) noexcept
{
    using namespace std::chrono;
    const auto rest = ceil<milliseconds>(end - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(rest, 0, INT_MAX));
}

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
    int poll_timeout() const noexcept
    {
        return milliseconds_until(end_);
    }

  private:
    clock::time_point end_;
};

} // namespace util
