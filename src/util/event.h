/* SPDX-License-Identifier: Apache-2.0 */
/* event - an eventfd with which one thread wakes another thread that polls. */
#pragma once

#include "util/descriptor.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>

namespace util
{

class event
{
  public:
    /* Throws a std::system_error. */
    event() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (!descriptor_)
            throw std::system_error(errno, std::generic_category(), "eventfd");
    }

    /* The descriptor is readable from signal() until take(). Any thread. */
    int fd() const noexcept
    {
        return descriptor_.get();
    }
    void signal() const noexcept
    {
        eventfd_write(fd(), 1);
    }
    /* Whether signal() was called since the last take(). Never waits. */
    bool take() const noexcept
    {
        eventfd_t count = 0;
        return eventfd_read(fd(), &count) == 0;
    }

  private:
    descriptor descriptor_;
};

} // namespace util
