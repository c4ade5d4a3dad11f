/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_fd - descriptors that close themselves, and points in time. No state. */
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <unistd.h>
#include <utility>

class owned_fd
{
  public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd)
    {
    }
    owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~owned_fd()
    {
        reset();
    }
    void reset()
    {
        if (fd_ >= 0)
            close(std::exchange(fd_, -1));
    }
    int get() const
    {
        return fd_;
    }
    /* The caller closes it. */
    int release()
    {
        return std::exchange(fd_, -1);
    }
    explicit operator bool() const
    {
        return fd_ >= 0;
    }

  private:
    int fd_ = -1;
};

using time_point = std::chrono::steady_clock::time_point;

/* Whole milliseconds until then, rounded up, 0 when it is past: for poll and epoll_wait. */
inline int milliseconds_until(time_point deadline)
{
    using namespace std::chrono;
    const auto left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT32_MAX));
}
