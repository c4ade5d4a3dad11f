/* SPDX-License-Identifier: Apache-2.0 */
/* module_memory_access - reads bytes of a module's memory in the three ways that the kernel offers.
   Each reading is short and was checked before; each function returns 0 or an errno. The reader has
   one thread. */
#pragma once

#include "platform/linux_interfaces/netlink.h"
#include "platform/linux_interfaces/reader_protocol.h"
#include "util/descriptor.h"

#include <cstdint>
#include <span>

namespace module_reader
{

/* Reads through the driver of a network interface: by netlink, or by the older ioctl if the kernel
   doesn't have that message (before Linux 5.13). */
class interface_modules
{
  public:
    /* Throws a std::system_error. */
    interface_modules();

    /* Reads `range` from the module of the interface with that index. `out` has the length of the
       range. */
    int read(int32_t index, const reader_request &range, std::span<uint8_t> out);

  private:
    int read_by_netlink(int32_t index, const reader_request &range, std::span<uint8_t> out);
    int read_by_ioctl(int32_t index, const reader_request &range, std::span<uint8_t> out);

    netlink::connection generic_;
    uint16_t family_; /* 0: the ioctl */
    util::descriptor socket_;
};

/* Opens an I2C bus. Returns the descriptor, or minus an errno. */
int open_bus(uint32_t bus);

/* Reads from an I2C bus without a kernel driver for the module. The only byte ever written is the
   offset, so pages other than 0 can't be reached: EOPNOTSUPP. `out` has the length of the range. */
int read_from_bus(int fd, const reader_request &range, std::span<uint8_t> out);

} // namespace module_reader
