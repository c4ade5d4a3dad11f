/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_record - signals as records in a ring (mbx_ring.h). The sender and the receiver of a ring are
   each used with the lock of their mailbox held.

   A record is a head of 8 bytes, whose first word is the signal's size, and the signal, padded to a
   multiple of 8. A record is contiguous: it lies either in the home of the ring, which is a part of
   the first page (mbx_area.h), or in the rest behind it. Where the next record would not be
   contiguous, the sender first writes a head with a mark in place of the size, and the number of
   bytes that the receiver skips.

   A ring whose receiver keeps up uses its home only, if each signal takes up to half of the home.
   Each side notes which pages of the rest it has touched. The sender releases the pages whose
   records have all been read. The receiver can't do that, as it could destroy a record that is just
   being written: it asks the kernel which pages are released, and releases them itself only once
   the sender is gone.

   A peer may change the memory at any time. So the receiver reads each word once and checks the
   value that it has read, and it copies a signal before it looks at its content. */
#pragma once

#include "platform/mbx/mbx_area.h"
#include "platform/mbx/mbx_block.h"

#include <bit>

class record_sender : private ring_sender<process_atomics>
{
  public:
    enum class outcome {
        full,   /* nothing was written */
        sent,   /* no ring is needed: the receiver is awake, is being woken, or has taken the signal
                   already */
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
    /* The bytes of the pages of the rest that were written and are not released yet. */
    size_t touched() const
    {
        return static_cast<size_t>(std::popcount(touched_)) * page_bytes;
    }
    /* Notes the present position for is_mark_read(). */
    void mark()
    {
        marked_ = position();
    }
    /* Whether the receiver has taken all that was in the ring at the last mark. */
    bool is_mark_read()
    {
        return position() - taken() <= position() - marked_;
    }
    /* Releases the pages of the rest whose records have all been read. */
    void trim();
    /* To be called once the receiver is gone: releases all pages of the rest. */
    void leave();
    /* The addresses that the next push() writes to, for a prefetch. */
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
    uint64_t touched_ = 0; /* the touched pages of the rest, one bit each */
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

    /* The next signal in a new block, whose sender is not set. A signal shorter than its number is
       filled up with zeros. Null when the ring is empty or the record is invalid. `asks` tells
       whether the caller has to call must_report_room(). */
    block *pop(bool &asks);
    bool is_empty() const
    {
        return there() == 0;
    }
    using ring_receiver::must_report_room, ring_receiver::rest;
    /* To be called once the sender is gone: from then on only the records that are in the ring now
       can be taken. */
    void finish();
    /* Discards what is in the ring, and finishes it. */
    void drop();
    bool is_finished() const
    {
        return is_finished_;
    }
    /* After finish(): the number of bytes that are still to be taken; 0 before. */
    size_t unread() const
    {
        return is_finished_ ? there() : 0;
    }
    /* The bytes of the pages of the rest that were read, without those that the last trim() found
       released. */
    size_t touched() const
    {
        return static_cast<size_t>(std::popcount(touched_)) * page_bytes;
    }
    /* Unmaps the touched pages from this process; their content stays. After finish(): releases all
       pages of the rest that have no unread record. */
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
