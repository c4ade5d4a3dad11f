/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_backlog - the signals that a ring had no room for, in order, each in memory of its own.
   With the lock of the connection's mailbox. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <new>
#include <span>
#include <vector>

class backlog
{
  public:
    using bytes = std::span<const unsigned char>;

    bool is_empty() const
    {
        return signals_.empty();
    }
    /* Copies the signal. False when memory is out. */
    bool push(bytes signal)
    try {
        signals_.emplace_back(signal.begin(), signal.end());
        memory_ += memory_of(signal);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
    /* The oldest one. Not to be called on an empty backlog. */
    bytes front() const
    {
        return signals_.front();
    }
    void pop()
    {
        memory_ -= memory_of(signals_.front());
        signals_.pop_front();
    }
    void clear()
    {
        signals_.clear();
        memory_ = 0;
    }
    /* Bytes of memory that it holds. */
    size_t memory() const
    {
        return memory_;
    }

  private:
    /* With the two allocations of a node and its bytes, each rounded up to 16 by the C library. */
    static size_t memory_of(bytes signal)
    {
        return signal.size() + 80;
    }

    std::list<std::vector<unsigned char>> signals_;
    size_t memory_ = 0;
};
