/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_record - signals as records in a ring (mbx_ring.h). Each end is used with the
   lock of its mailbox.

   A record is a head of 8 bytes, whose first word is the signal's size, and the signal, padded to a
   multiple of 8. It lies in one piece, in the home of the ring (mbx_area.h) or in its rest: where
   it would not, a head with a mark in place of the size tells how many bytes the receiver skips.

   A ring that keeps running empty stays within its home, if its signals take up to half of it. Each
   side counts the pages of the rest that it has touched. The sender gives those back in which
   nothing is unread. The receiver, who could only destroy what is just being written, looks whether
   the sender has done so, and gives them back itself once the sender is gone.

   The receiver reads each word once, checks it, and copies a signal out before it looks at it. */
#pragma once

#include "platform/mbx/mbx_area.h"
#include "platform/mbx/mbx_block.h"

#include <bit>

class record_sender : private ring_sender<process_atomics>
{
  public:
    enum class outcome {
        full,   /* nothing was written */
        sent,   /* the receiver is awake, or will be woken by someone else's ring */
        to_ring /* sent, and the caller must ring */
    };

    record_sender() = default;
    explicit record_sender(const mapped_ring &ring)
        : ring_sender(ring.words, ring_bytes), ring_(ring)
    {
    }

    /* `size` is at most MBX_LARGEST_SIGNAL. */
    outcome push(const void *signal, uint32_t size);
    using ring_sender::wait_for_room;
    /* Bytes of the rest's pages that are in use. */
    size_t touched() const
    {
        return static_cast<size_t>(std::popcount(touched_)) * page_bytes;
    }
    /* Remembers what is in the ring now. */
    void mark()
    {
        marked_ = position();
    }
    /* Whether the receiver has taken all that was in the ring at the last mark. */
    bool is_mark_read()
    {
        return position() - taken() <= position() - marked_;
    }
    /* Gives the pages of the rest back in which the receiver has nothing to take. */
    void trim();
    /* At the end, where the receiver is gone: gives all of them back. */
    void leave();
    /* What the next push writes to, to be fetched ahead. */
    const void *words() const
    {
        return ring_.words;
    }
    const void *place() const
    {
        return ring_.at(position() % ring_bytes);
    }

  private:
    uint32_t bytes_to_skip(uint32_t bytes);

    mapped_ring ring_;
    uint64_t touched_ = 0; /* the pages of the rest, one bit each */
    uint32_t marked_ = 0;
};

class record_receiver : private ring_receiver<process_atomics>
{
  public:
    record_receiver() = default;
    explicit record_receiver(const mapped_ring &ring)
        : ring_receiver(ring.words, ring_bytes), ring_(ring)
    {
    }

    /* The next signal, a new block that has no sender yet; shorter ones than a number are filled up
       with 0. Null when there is none, or the record is impossible. `asks` becomes true when
       must_report_room should be asked. */
    block *pop(bool &asks);
    bool is_empty() const
    {
        return there() == 0;
    }
    using ring_receiver::must_report_room, ring_receiver::rest;
    /* The sender is gone: what is in the ring now is all that comes out of it. */
    void finish();
    /* Nothing more comes out of it. */
    void drop();
    bool is_finished() const
    {
        return is_finished_;
    }
    /* After finish(): bytes that are still to be taken. */
    size_t unread() const
    {
        return is_finished_ ? there() : 0;
    }
    /* Bytes of the pages behind the home that were read from and that are in memory, as of the last
       trim(). */
    size_t touched() const
    {
        return static_cast<size_t>(std::popcount(touched_)) * page_bytes;
    }
    /* Unmaps them from this process. The content stays, but for what was taken after finish(). */
    void trim();

  private:
    uint32_t there() const
    {
        return is_finished_ ? last_ - position() : available();
    }

    mapped_ring ring_;
    uint64_t touched_ = 0;
    uint32_t last_ = 0; /* the position at which it ends, once it is finished */
    bool is_finished_ = false;
};
