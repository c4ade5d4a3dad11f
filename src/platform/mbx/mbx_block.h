/* mbx_block - the memory of signals: blocks with a header in front, from lock-free free lists.
   Everything here may be called in a signal handler and from any thread, except that a block_queue
   belongs to whoever guards it. */
#pragma once

#include "mbx.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

/* What stands in front of a signal. A block is never given back to the system while it belongs to
   a size class, so a stale pointer to its header can still be read. */
struct block {
    uint32_t size;   /* of the signal, the number included */
    uint32_t sender; /* a mailbox id */
    uint32_t place;  /* where the block lies, and its size class */
    /* The next free block while this one is free; the reference while it is a monitor's. */
    std::atomic<uint32_t> word;
    block *next; /* in a queue or on a stack */

    mbx_signal *signal()
    {
        return reinterpret_cast<mbx_signal *>(this + 1);
    }
    uint32_t number() const
    {
        return reinterpret_cast<const mbx_signal *>(this + 1)->number;
    }
};
static_assert(sizeof(block) == 24);

inline block *block_of(mbx_signal *signal)
{
    return reinterpret_cast<block *>(signal) - 1;
}
inline const block *block_of(const mbx_signal *signal)
{
    return reinterpret_cast<const block *>(signal) - 1;
}

/* A block for a signal of `size` bytes, its content undefined. Never null: the process ends with a
   message when memory is out. */
block *block_take(size_t size);
void block_give(block *b);

/* The bytes of memory that the block takes up. */
size_t block_cost(const block *b);

/* First in, first out, through the blocks themselves. */
struct block_queue {
    block *head = nullptr;
    block *tail = nullptr;

    bool empty() const
    {
        return head == nullptr;
    }
    void push(block *b);
    block *pop();
    /* Takes out the block after `before`, the first one if null. */
    block *remove_after(block *before);
    void give_all();
};
