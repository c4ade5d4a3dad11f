/* SPDX-License-Identifier: Apache-2.0 */
/* boot_clock - the time since boot, including the time of a suspended machine. Ages of values are
   measured with it, since std::chrono::steady_clock stops while the machine is suspended and old
   values would look new. Any thread. */
#pragma once

#include <chrono>
#include <ctime>

namespace util
{

/* The time since boot as a time_point of steady_clock; compare it only with other results of this
   function. */
inline std::chrono::steady_clock::time_point boot_time() noexcept
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                                 std::chrono::nanoseconds(now.tv_nsec));
}

} // namespace util
