/* SPDX-License-Identifier: Apache-2.0 */
/* boot_clock - the time since boot, that of a suspended machine included. Ages of values are
   counted by it, since std::chrono::steady_clock stands still meanwhile and old values would
   look fresh. Any thread. */
#pragma once

#include <chrono>
#include <ctime>

namespace util
{

/* As a point in time of steady_clock, for comparison with others of this function only. */
inline std::chrono::steady_clock::time_point boot_time() noexcept
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                                 std::chrono::nanoseconds(now.tv_nsec));
}

} // namespace util
