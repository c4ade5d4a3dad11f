/* SPDX-License-Identifier: Apache-2.0 */
/* poll - waits for descriptors in a loop that must neither end nor spin. Any thread. */
#pragma once

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <span>

namespace util
{

/* Calls poll(). If the system refuses that call, as a sandbox may, the function waits up to 100 ms
   and reports everything as ready that was requested; this is safe since the caller's descriptors
   don't block. */
inline int poll_or_pause(std::span<pollfd> wanted, int timeout_ms) noexcept
{
    static constexpr int longest_pause_ms = 100;
    const int count = poll(wanted.data(), wanted.size(), timeout_ms);
    if (count >= 0 || errno == EINTR)
        return count;
    const int pause_ms = timeout_ms < 0 ? longest_pause_ms : std::min(timeout_ms, longest_pause_ms);
    const timespec pause = {.tv_sec = 0, .tv_nsec = pause_ms * 1'000'000L};
    nanosleep(&pause, nullptr);
    for (pollfd &each : wanted)
        each.revents = each.events;
    return static_cast<int>(wanted.size());
}

} // namespace util
