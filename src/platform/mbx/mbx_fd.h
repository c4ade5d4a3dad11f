/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_fd - descriptors with an owner, a guard that restores errno, and points in time. No state. */
#pragma once

#include "util/deadline.h"
#include "util/descriptor.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <sys/stat.h>

using owned_fd = util::descriptor;
using file_status = struct stat;

/* Restores errno at its end: a signal handler that calls the library leaves the errno of the code
   that it interrupted, and clean-up after a failure leaves the errno of the failure. */
class errno_keeper
{
  public:
    errno_keeper() = default;
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;
    ~errno_keeper()
    {
        errno = saved_;
    }

  private:
    int saved_ = errno;
};

using time_point = std::chrono::steady_clock::time_point;
using util::milliseconds_until;
