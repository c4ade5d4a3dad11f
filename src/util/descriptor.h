/* SPDX-License-Identifier: Apache-2.0 */
/* descriptor - owns a file descriptor and closes it. One thread at a time. */
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace util
{

class descriptor
{
  public:
    descriptor() = default;
    /* Takes ownership; a negative number is no descriptor. */
    explicit descriptor(int number) noexcept : number_(number)
    {
    }
    descriptor(descriptor &&other) noexcept : number_(other.release())
    {
    }
    descriptor &operator=(descriptor &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~descriptor()
    {
        reset();
    }

    int get() const noexcept
    {
        return number_;
    }
    bool is_open() const noexcept
    {
        return number_ >= 0;
    }
    explicit operator bool() const noexcept
    {
        return is_open();
    }
    /* Releases ownership. */
    int release() noexcept
    {
        return std::exchange(number_, -1);
    }
    /* Closes the descriptor. False, with errno, if the kernel reports that an earlier write failed;
       the descriptor is closed in any case. */
    bool close() noexcept
    {
        return ::close(release()) == 0;
    }
    /* Closes the descriptor and takes ownership of `number`. Keeps errno, so that the reason for
       closing survives. */
    void reset(int number = -1) noexcept
    {
        const int kept_errno = errno;
        const int closed = std::exchange(number_, number);
        if (closed >= 0)
            ::close(closed);
        errno = kept_errno;
    }

  private:
    int number_ = -1;
};

} // namespace util
