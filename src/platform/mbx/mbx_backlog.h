/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_backlog - the signals that a ring had no room for, in order, and the bounds of what this
   process holds for others.

   A backlog is a list of pieces of memory from the system, in which the signals stand one behind
   the other. So it takes hardly more than the signals' bytes, whatever their sizes, and all of it
   goes back to the system when they are gone. Guarded by the connection's owner. */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

constexpr size_t held_for_one_at_most = size_t{8} << 20;
/* For all receivers together, less what the connections themselves take. Leaves some 20 MiB for
   what is not counted: 400 deaf peers took up to 77 MiB beyond idle where this was 64 MiB. */
constexpr size_t held_in_all_at_most = size_t{56} << 20;
/* As much may be held however many connections there are. */
constexpr size_t held_in_all_at_least = size_t{8} << 20;

/* Bytes of memory that the process holds for receivers that do not read: backlogs, and pages of
   rings. */
extern std::atomic<size_t> held_in_all;

/* Bytes that senders that are gone have left for mailboxes of this process. Each of them is a
   signal that the owner has yet to handle: with 56 MiB of short requests a server would be busy for
   more than a minute after a crowd of its clients was killed. */
constexpr size_t left_in_all_at_most = size_t{2} << 20;
extern std::atomic<size_t> left_in_all;

/* Bytes of the first pages of all connections, which are always resident. */
extern std::atomic<size_t> areas_in_all;

/* Bytes of rings' pages that are mapped here because signals were read from them. */
extern std::atomic<size_t> mapped_in_all;

/* Whether the bound of all receivers is passed. */
bool is_too_much_held();

/* One part of a sum; the destructor subtracts it. */
template <std::atomic<size_t> &sum>
class counted_bytes
{
  public:
    counted_bytes() = default;
    counted_bytes(const counted_bytes &) = delete;
    counted_bytes &operator=(const counted_bytes &) = delete;
    ~counted_bytes()
    {
        set(0);
    }
    void set(size_t bytes)
    {
        if (bytes == bytes_)
            return;
        sum += bytes - bytes_;
        bytes_ = bytes;
    }
    size_t get() const
    {
        return bytes_;
    }

  private:
    size_t bytes_ = 0;
};

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
