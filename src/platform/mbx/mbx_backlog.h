/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_backlog - the signals that a ring had no room for, in order.

   A backlog is a list of pieces of memory from the system, in which the signals stand one behind
   the other. So it takes hardly more than the signals' bytes, whatever their sizes, and all of it
   goes back to the system when they are gone. Guarded by the connection's owner. */
#pragma once

#include <cstddef>
#include <cstdint>

class backlog
{
  public:
    backlog() = default;
    backlog(const backlog &) = delete;
    backlog &operator=(const backlog &) = delete;
    ~backlog()
    {
        clear();
    }

    bool is_empty() const
    {
        return first_ == nullptr;
    }
    /* Copies the signal, of at most MBX_LARGEST_SIGNAL bytes. False when memory is out. */
    bool push(const void *signal, uint32_t size);
    /* The oldest one, and its size. Not to be called on an empty backlog. */
    const void *front(uint32_t &size) const;
    void pop();
    void clear();
    /* Bytes of memory that it holds. */
    size_t memory() const
    {
        return memory_;
    }

  private:
    struct piece;
    bool add_piece();
    void remove_piece();

    piece *first_ = nullptr;
    piece *last_ = nullptr;
    size_t memory_ = 0;
};
