/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_uring - rings many bells by one system call, through an io_uring. One thread.

   A bell is rung by reading it (mbx_area.h), here as there with RWF_NOWAIT: the kernel answers such
   a read at once, whatever the other side has done to the bell, and never hands it to a worker of
   its own. The system calls of io_uring are few, so no library stands between. */
#pragma once

#include "platform/mbx/mbx_fd.h"

#include <cstdint>
#include <linux/io_uring.h>
#include <span>

constexpr uint32_t reads_at_once = 256; /* a power of two */

struct due_bell {
    int fd;
    bool is_retired; /* to be closed when it is rung */
};

/* An io_uring for reads that never wait. */
class bell_reader
{
  public:
    bell_reader() = default;
    bell_reader(const bell_reader &) = delete;
    bell_reader &operator=(const bell_reader &) = delete;
    /* False when the system refuses it. */
    bool open();
    void close();
    /* Rings all, those that can't be read through an io_uring one by one. */
    void ring(std::span<const due_bell> bells);

  private:
    uint32_t *word(uint32_t offset) const
    {
        return reinterpret_cast<uint32_t *>(rings_ + offset);
    }
    /* Up to reads_at_once. Returns how many are rung; fewer than all if it is of no use any more.
     */
    size_t read(std::span<const due_bell> bells);
    void ring_failed(std::span<const due_bell> bells);

    owned_fd fd_;
    io_uring_params layout_{};
    unsigned char *rings_ = nullptr;
    size_t ring_bytes_ = 0;
    io_uring_sqe *entries_ = nullptr;
    uint64_t sink_ = 0; /* the counts that are read */
};
