/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_ring - one direction of a connection in memory that two processes share: the positions of
   sender and receiver, and the rules by which one wakes the other. The meaning of the bytes between
   the two positions is defined in mbx_record.h.

   Positions count bytes since the connection was made, modulo 2^32, and are multiples of 8. Each
   side keeps its own position in private memory and only publishes it; of the other side's words it
   accepts only values that the rules allow.

   Waking the receiver. A receiver that finds the ring empty stores its position, with the lowest
   bit set, in `armed` and looks at `head` once more. A sender that has published looks at `armed`.
   If that holds a position other than the sender's own, the sender clears it (compare and exchange)
   and rings the bell. If it holds the sender's own position, as when the sender was delayed between
   publishing and looking, the receiver has taken the signal already and rests again: the bell is
   not rung, as there would be no signal to go with it. So each ring of the bell comes with
   something to read, and a receiver that has rested must not look at the ring before its bell has
   rung.

   Waking the sender. A sender that finds no room sets `wants_room` and looks at `tail` once more. A
   receiver that rests, or passes a half of the ring, looks at `wants_room`; if at most a quarter of
   the ring is in use, the receiver clears it and reports.

   Both are the same pattern: a store, a full fence, and a load of what the other side stores before
   its own fence, so that at least one of the two sees the other's store.

   The atomics are a template argument, and so are the memory orders: the model check of
   scripts/check-memory-order runs this header with the checker's atomics, and with each order
   weakened in turn to see that the check then fails. */
#pragma once

#include <atomic>
#include <cstdint>

/* The atomics that ship. */
struct process_atomics {
    using word = std::atomic<uint32_t>;

    static uint32_t load(const word &from, std::memory_order order)
    {
        return from.load(order);
    }
    static void store(word &to, uint32_t value, std::memory_order order)
    {
        to.store(value, order);
    }
    /* Returns whether the word held `expected` and holds `desired` now. */
    static bool replace(word &in, uint32_t expected, uint32_t desired, std::memory_order order)
    {
        return in.compare_exchange_strong(expected, desired, order, std::memory_order_relaxed);
    }
#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
/* ThreadSanitizer does not follow fences; it does not see the other process either. */
#pragma GCC diagnostic ignored "-Wtsan"
#endif
    static void fence(std::memory_order order)
    {
        std::atomic_thread_fence(order);
    }
#pragma GCC diagnostic pop
};

/* Every order that the protocol needs. All other accesses are relaxed. */
struct ring_orders {
    /* The sender stores head after it has written the bytes. */
    static constexpr auto publish = std::memory_order_release;
    /* The receiver loads head before it reads the bytes. */
    static constexpr auto find = std::memory_order_acquire;
    /* The receiver stores tail after it has read the bytes. */
    static constexpr auto release = std::memory_order_release;
    /* The sender loads tail before it writes over the bytes. */
    static constexpr auto reuse = std::memory_order_acquire;
    /* The sender's fence between head and armed. */
    static constexpr auto before_armed = std::memory_order_seq_cst;
    /* The receiver's fence between armed and tail on one side, head and wants_room on the other. */
    static constexpr auto before_resting = std::memory_order_seq_cst;
    /* The sender's fence between wants_room and tail. */
    static constexpr auto before_waiting = std::memory_order_seq_cst;
};

/* In shared memory, all 0 at first. `head`, which the sender writes for each record, and `tail`,
   which the receiver writes for each record, are in different cache lines. */
template <typename atomics>
struct ring_words {
    alignas(64) typename atomics::word head; /* the sender's position */
    typename atomics::word armed;            /* set by the receiver, cleared by the sender */
    alignas(64) typename atomics::word tail; /* the receiver's position */
    typename atomics::word wants_room;       /* set by the sender, cleared by the receiver */
};

/* The sender's end. One thread at a time. */
template <typename atomics, typename orders = ring_orders>
class ring_sender
{
  public:
    ring_sender() = default;
    /* `capacity` bytes, a power of two. */
    ring_sender(ring_words<atomics> *words, uint32_t capacity) : words_(words), capacity_(capacity)
    {
    }

    uint32_t position() const
    {
        return head_;
    }
    /* Whether `bytes` bytes from the position on may be written. */
    bool has_room(uint32_t bytes)
    {
        if (room() < bytes)
            look();
        return room() >= bytes;
    }
    /* The position up to which the receiver has taken everything. */
    uint32_t taken()
    {
        look();
        return tail_;
    }
    /* Publishes `bytes` bytes. Returns whether the receiver's bell must be rung. */
    bool publish(uint32_t bytes)
    {
        head_ += bytes;
        atomics::store(words_->head, head_, orders::publish);
        atomics::fence(orders::before_armed);
        const uint32_t armed = atomics::load(words_->armed, std::memory_order_relaxed);
        return armed != 0 && armed != (head_ | 1) &&
               atomics::replace(words_->armed, armed, 0, std::memory_order_relaxed);
    }
    /* To be called when there is no room. True: the receiver will report room. False: at most a
       quarter of the ring is in use by now. */
    bool wait_for_room()
    {
        atomics::store(words_->wants_room, 1, std::memory_order_relaxed);
        atomics::fence(orders::before_waiting);
        look();
        return head_ - tail_ > capacity_ / 4;
    }

  private:
    uint32_t room() const
    {
        return capacity_ - (head_ - tail_);
    }
    /* Accepts a tail only between the last accepted one and head_. Any other value is ignored, so
       that the ring stays as full as it was, and each look that finds room leads to progress. */
    void look()
    {
        const uint32_t tail = atomics::load(words_->tail, orders::reuse);
        if (tail - tail_ <= head_ - tail_)
            tail_ = tail;
    }

    ring_words<atomics> *words_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t head_ = 0;
    uint32_t tail_ = 0; /* as last seen */
};

/* The receiver's end. One thread at a time. */
template <typename atomics, typename orders = ring_orders>
class ring_receiver
{
  public:
    ring_receiver() = default;
    ring_receiver(ring_words<atomics> *words, uint32_t capacity)
        : words_(words), capacity_(capacity)
    {
    }

    uint32_t position() const
    {
        return tail_;
    }
    /* How many bytes from the position on may be read. A number above the capacity shows that the
       sender breaks the protocol. */
    uint32_t available() const
    {
        return atomics::load(words_->head, orders::find) - tail_;
    }
    /* Releases `bytes` bytes to the sender. Returns whether must_report_room() is to be called:
       after each half of the ring, because a busy ring may never run empty. */
    bool consume(uint32_t bytes)
    {
        const uint32_t before = tail_;
        tail_ += bytes;
        atomics::store(words_->tail, tail_, orders::release);
        return ((before ^ tail_) & (capacity_ / 2)) != 0;
    }
    /* To be called when nothing is available. True: from now on the receiver is rung for the next
       signal, and must not look before. False: a signal has arrived for which the sender doesn't
       ring. */
    bool rest()
    {
        const uint32_t armed = tail_ | 1;
        atomics::store(words_->armed, armed, std::memory_order_relaxed);
        atomics::fence(orders::before_resting);
        return atomics::load(words_->head, std::memory_order_relaxed) == tail_ ||
               !atomics::replace(words_->armed, armed, 0, std::memory_order_relaxed);
    }
    /* Whether the caller must report room: the sender waits for it, and at most a quarter of the
       ring is in use. To be called after each rest(), whose fence stands between tail and
       wants_room, and when consume() returns true; a request that is missed then is seen after the
       next rest(). */
    bool must_report_room()
    {
        return atomics::load(words_->wants_room, std::memory_order_relaxed) != 0 &&
               atomics::load(words_->head, std::memory_order_relaxed) - tail_ <= capacity_ / 4 &&
               atomics::replace(words_->wants_room, 1, 0, std::memory_order_relaxed);
    }

  private:
    ring_words<atomics> *words_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t tail_ = 0;
};
