/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_fd - descriptors that close themselves, and points in time. No state. */
#pragma once

#include "util/descriptor.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

using owned_fd = util::descriptor;

using time_point = std::chrono::steady_clock::time_point;

/* Whole milliseconds until then, rounded up, 0 when it is past: for poll and epoll_wait. */
inline int milliseconds_until(time_point deadline)
{
    using namespace std::chrono;
    const auto left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT32_MAX));
}
