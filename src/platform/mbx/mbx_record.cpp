/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_record.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>

static constexpr uint32_t head_bytes = 8;
static constexpr uint32_t skip_mark = UINT32_MAX; /* in the head's second word: the bytes */
/* Room for a mark is left there, because one behind it would touch a page of the rest. */
static constexpr uint32_t home_end = home_bytes - head_bytes;

static_assert(ring_bytes > 2 * (head_bytes + MBX_LARGEST_SIGNAL) + home_bytes,
              "an empty ring takes any signal");

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

/* The pages of the rest that the use of the ring up to `place` touches. */
static size_t pages_up_to(uint32_t place)
{
    if (place <= home_bytes)
        return 0;
    return (place - home_bytes + page_bytes - 1) / page_bytes * page_bytes;
}

/* A read maps the pages around it as well, where there are some. */
static size_t mapped_up_to(uint32_t place)
{
    constexpr size_t around = 16 * page_bytes;
    const size_t pages = pages_up_to(place);
    return std::min(pages == 0 ? 0 : (pages + around) / around * around, rest_span);
}

static void advise(const mapped_ring &ring, size_t touched, int advice)
{
    if (touched > 0)
        madvise(ring.rest, touched, advice);
}

/* How many bytes to leave out before a record, so that it lies in one piece, and, in a ring that
   has run empty, in the home if it fits there. */
static uint32_t bytes_to_skip(ring_sender<process_atomics> &end, uint32_t bytes)
{
    const uint32_t place = end.position() % ring_bytes;
    const bool is_home = place < home_bytes;
    const bool fits_home = bytes <= home_end;
    const uint32_t to_home = ring_bytes - place;
    if (place + bytes <= (is_home ? home_end : ring_bytes))
        return !is_home && fits_home && end.is_drained() ? to_home : 0;
    if (fits_home && (!is_home || (bytes <= place && end.is_drained())))
        return to_home;
    return is_home ? home_bytes - place : to_home + home_bytes;
}

record_sender::outcome record_sender::push(const void *signal, uint32_t size)
{
    const uint32_t bytes = record_bytes(size);
    const uint32_t skip = bytes_to_skip(end_, bytes);
    if (!end_.has_room(skip + bytes))
        return outcome::full;
    uint32_t place = end_.position() % ring_bytes;
    if (skip > 0) {
        unsigned char *mark = ring_.at(place);
        store_word(mark, skip_mark);
        store_word(mark + 4, skip);
        touched_ = std::max(touched_, pages_up_to(place + head_bytes));
        place = (place + skip) % ring_bytes;
    }
    unsigned char *record = ring_.at(place);
    store_word(record, size);
    std::memcpy(record + head_bytes, signal, size);
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
    const unsigned char *record = ring_.at(place);
    uint32_t size = load_word(record);
    uint32_t skip = 0;
    if (size == skip_mark) {
        skip = load_word(record + 4);
        if (skip % 8 != 0 || skip > there - head_bytes)
            return outcome::lie;
        place = (place + skip) % ring_bytes;
        record = ring_.at(place);
        size = load_word(record);
    }
    const uint32_t end = place < home_bytes ? home_bytes : ring_bytes;
    if (size > MBX_LARGEST_SIGNAL || record_bytes(size) > there - skip ||
        record_bytes(size) > end - place)
        return outcome::lie;
    out = block_take(std::max<size_t>(size, sizeof(mbx_signal)));
    out->signal()->number = 0;
    std::memcpy(static_cast<void *>(out->signal()), record + head_bytes, size);
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
