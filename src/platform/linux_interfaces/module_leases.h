/* SPDX-License-Identifier: Apache-2.0 */
/* module_leases - modules that are not read because another tool has leased them. A lease is a file
   in the folder of the reader's socket, "lease.N" for the interface with index N: one line with the
   nanoseconds of CLOCK_BOOTTIME until which it lasts. A process that may write to that folder may
   lease a module; nothing but the clock is needed to end a lease. One thread. */
#pragma once

#include "util/descriptor.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace linux_board
{

class module_leases
{
  public:
    using time_point = std::chrono::steady_clock::time_point;

    /* A file with a later end is ignored, since a mistake would last too long. */
    static constexpr std::chrono::seconds longest{3600};

    /* The folder of leases; `reader` is the `where` of reader_client. */
    static std::string folder_of(const std::string &reader);
    static std::string path_in(const std::string &folder, uint32_t interface);

    explicit module_leases(std::string folder);

    /* Readable after a lease was added or removed; -1 while the folder can't be watched. */
    int fd() const
    {
        return events_.get();
    }

    /* Whether leases may have come or gone since the last call. */
    bool has_changed();

    /* When the lease of an interface ends, by util::boot_time(); the clock's epoch if there is no
       lease. */
    time_point end_of(int32_t interface) const;

  private:
    void watch();

    const std::string folder_;
    util::descriptor events_;
    time_point looked_at_ = {}; /* while the folder isn't watched */
};

} // namespace linux_board
