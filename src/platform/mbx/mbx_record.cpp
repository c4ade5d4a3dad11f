/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_record.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>

static constexpr uint32_t head_bytes = 8;
static constexpr uint32_t wrap_mark = UINT32_MAX;
/* The part of the ring that lies in the first page. */
static constexpr uint32_t first_page = page_bytes - offsetof(shared_ring, data);

static_assert(ring_bytes > 2 * (head_bytes + MBX_LARGEST_SIGNAL), "an empty ring takes any signal");

static constexpr uint32_t record_bytes(uint32_t size)
{
    return head_bytes + ((size + 7) & ~7u);
}

static uint32_t load_word(const unsigned char *from)
{
    return __atomic_load_n(reinterpret_cast<const uint32_t *>(from), __ATOMIC_RELAXED);
}

static void store_word(unsigned char *to, uint32_t word)
{
    __atomic_store_n(reinterpret_cast<uint32_t *>(to), word, __ATOMIC_RELAXED);
}

/* What the use of the ring up to `place` adds to the pages beyond the first one. */
static size_t pages_up_to(uint32_t place)
{
    if (place <= first_page)
        return 0;
    return (place - first_page + page_bytes - 1) / page_bytes * page_bytes;
}

/* A read maps the pages around it as well, where there are some. */
static size_t mapped_up_to(uint32_t place)
{
    constexpr size_t around = 16 * page_bytes;
    const size_t pages = pages_up_to(place);
    return std::min(pages == 0 ? 0 : (pages + around) / around * around, ring_span - page_bytes);
}

static void advise(shared_ring *ring, size_t touched, int advice)
{
    if (touched > 0)
        madvise(reinterpret_cast<unsigned char *>(ring) + page_bytes, touched, advice);
}

/* How many bytes to leave out before a record, so that it lies in one piece, and, in a ring that
   has run empty, in the first page if it fits there. */
static uint32_t bytes_to_skip(ring_sender<process_atomics> &end, uint32_t bytes)
{
    const uint32_t place = end.position() % ring_bytes;
    const bool crosses_end = place + bytes > ring_bytes;
    const bool leaves_page = place + bytes > first_page && bytes <= place;
    return crosses_end || (leaves_page && end.is_drained()) ? ring_bytes - place : 0;
}

record_sender::outcome record_sender::push(const void *signal, uint32_t size)
{
    const uint32_t bytes = record_bytes(size);
    const uint32_t skip = bytes_to_skip(end_, bytes);
    if (!end_.has_room(skip + bytes))
        return outcome::full;
    if (skip > 0)
        store_word(ring_->data + end_.position() % ring_bytes, wrap_mark);
    const uint32_t place = (end_.position() + skip) % ring_bytes;
    store_word(ring_->data + place, size);
    std::memcpy(ring_->data + place + head_bytes, signal, size);
    touched_ = std::max(touched_, pages_up_to(place + bytes));
    return end_.publish(skip + bytes) ? outcome::to_ring : outcome::sent;
}

/* A hole reads as 0 and is filled again when it is written. */
void record_sender::trim()
{
    if (touched_ == 0 || !end_.is_drained())
        return;
    advise(ring_, touched_, MADV_REMOVE);
    touched_ = 0;
}

void record_sender::leave(bool is_receiver_gone)
{
    advise(ring_, touched_, is_receiver_gone ? MADV_REMOVE : MADV_DONTNEED);
    touched_ = 0;
}

record_receiver::outcome record_receiver::pop(block *&out, bool &asks)
{
    const uint32_t there = available();
    if (there == 0)
        return outcome::nothing;
    uint32_t place = end_.position() % ring_bytes;
    if (there > ring_bytes || there < head_bytes)
        return outcome::lie;
    uint32_t size = load_word(ring_->data + place);
    uint32_t skip = 0;
    if (size == wrap_mark) {
        skip = ring_bytes - place;
        place = 0;
        if (there < skip + head_bytes)
            return outcome::lie;
        size = load_word(ring_->data);
    }
    if (size > MBX_LARGEST_SIGNAL || record_bytes(size) > there - skip ||
        record_bytes(size) > ring_bytes - place)
        return outcome::lie;
    out = block_take(std::max<size_t>(size, sizeof(mbx_signal)));
    out->signal()->number = 0;
    std::memcpy(static_cast<void *>(out->signal()), ring_->data + place + head_bytes, size);
    touched_ = std::max(touched_, mapped_up_to(place + record_bytes(size)));
    asks = end_.consume(skip + record_bytes(size));
    return outcome::signal;
}

void record_receiver::finish()
{
    if (is_finished_)
        return;
    const uint32_t there = end_.available();
    last_ = end_.position() + (there <= ring_bytes ? there : 0);
    is_finished_ = true;
}

void record_receiver::drop()
{
    last_ = end_.position();
    is_finished_ = true;
}

void record_receiver::trim()
{
    advise(ring_, touched_, MADV_DONTNEED);
    touched_ = 0;
}
