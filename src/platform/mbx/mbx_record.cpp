/* SPDX-License-Identifier: Apache-2.0 */
/* push() skips to a place where the record lies in one piece; pop() checks the place of a record
   and copies its signal out. */
#include "platform/mbx/mbx_record.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>

static constexpr uint32_t head_bytes = 8;
/* In place of the size; the head's second word is the number of bytes to skip then. */
static constexpr uint32_t skip_mark = UINT32_MAX;
/* The last bytes of the home are left for a mark: a mark behind the home would touch a page of the
   rest. */
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

static constexpr uint32_t rest_pages = rest_span / page_bytes;
static_assert(rest_pages == 64, "one bit each");

/* The pages of the rest on which the bytes from place `begin` to place `end` lie, one bit each. */
static uint64_t pages_of(uint32_t begin, uint32_t end)
{
    if (end <= home_bytes || begin >= end)
        return 0;
    constexpr uint32_t page = page_bytes;
    const uint32_t first = begin <= home_bytes ? 0 : (begin - home_bytes) / page;
    const uint32_t last = (end - home_bytes - 1) / page;
    return ~uint64_t{0} << first & ~uint64_t{0} >> (rest_pages - 1 - last);
}

/* The pages of the rest on which the bytes between two positions lie. */
static uint64_t pages_between(uint32_t from, uint32_t to)
{
    const uint32_t begin = from % ring_bytes;
    const uint32_t bytes = std::min(to - from, ring_bytes);
    if (begin + bytes <= ring_bytes)
        return pages_of(begin, begin + bytes);
    return pages_of(begin, ring_bytes) | pages_of(0, begin + bytes - ring_bytes);
}

static void advise(const mapped_ring &ring, uint64_t pages, int advice)
{
    while (pages != 0) {
        const auto first = static_cast<size_t>(std::countr_zero(pages));
        const auto count = static_cast<size_t>(std::countr_one(pages >> first));
        madvise(ring.rest + first * page_bytes, count * page_bytes, advice);
        pages &= pages + (uint64_t{1} << first); /* without the pages just advised */
    }
}

/* The pages of the rest that are in memory, because either side has written or read them; all of
   them if mincore() fails. */
static uint64_t pages_in_memory(const mapped_ring &ring)
{
    unsigned char is_there[rest_pages];
    if (mincore(ring.rest, rest_span, is_there) != 0)
        return ~uint64_t{0};
    uint64_t pages = 0;
    for (uint32_t page = 0; page < rest_pages; page++)
        pages |= uint64_t{is_there[page] & 1u} << page;
    return pages;
}

/* The number of bytes to skip in front of a record, so that it is contiguous. An empty ring returns
   to its home if the record fits there, unless the record would overlap the bytes that are skipped.
   */
uint32_t record_sender::bytes_to_skip(uint32_t bytes)
{
    const auto is_drained = [&] { return taken() == position(); };
    const uint32_t place = position() % ring_bytes;
    const bool is_home = place < home_bytes;
    const bool fits_home = bytes <= home_end;
    const uint32_t to_home = ring_bytes - place;
    if (place + bytes <= (is_home ? home_end : ring_bytes))
        return !is_home && fits_home && is_drained() ? to_home : 0;
    if (fits_home && (!is_home || (bytes <= place && is_drained())))
        return to_home;
    return is_home ? home_bytes - place : to_home + home_bytes;
}

record_sender::outcome record_sender::push(const void *signal, uint32_t size)
{
    const uint32_t bytes = record_bytes(size);
    const uint32_t skip = bytes_to_skip(bytes);
    if (!has_room(skip + bytes))
        return outcome::full;
    uint32_t place = position() % ring_bytes;
    if (skip > 0) {
        unsigned char *mark = ring_.at(place);
        store_word(mark, skip_mark);
        store_word(mark + 4, skip);
        touched_ |= pages_of(place, place + head_bytes);
        place = (place + skip) % ring_bytes;
    }
    unsigned char *record = ring_.at(place);
    store_word(record, size);
    std::memcpy(record + head_bytes, signal, size);
    touched_ |= pages_of(place, place + bytes);
    return publish(skip + bytes) ? outcome::to_ring : outcome::sent;
}

/* A released page reads as 0, and the kernel provides a new one at the next access. */
void record_sender::trim()
{
    if (touched_ == 0)
        return;
    const uint64_t read = touched_ & ~pages_between(taken(), position());
    advise(ring_, read, MADV_REMOVE);
    touched_ &= ~read;
}

void record_sender::leave()
{
    advise(ring_, touched_, MADV_REMOVE);
    touched_ = 0;
}

block *record_receiver::pop(bool &asks)
{
    const uint32_t there = this->there();
    uint32_t place = position() % ring_bytes;
    if (there > ring_bytes || there < head_bytes)
        return nullptr;
    const unsigned char *record = ring_.at(place);
    uint32_t size = load_word(record);
    uint32_t skip = 0;
    if (size == skip_mark) {
        skip = load_word(record + 4);
        if (skip % 8 != 0 || skip > there - head_bytes)
            return nullptr;
        place = (place + skip) % ring_bytes;
        record = ring_.at(place);
        size = load_word(record);
    }
    const uint32_t end = place < home_bytes ? home_bytes : ring_bytes;
    /* No signal has size 0: that is read from a page that the sender has released. */
    if (size == 0 || size > MBX_LARGEST_SIGNAL || record_bytes(size) > there - skip ||
        record_bytes(size) > end - place)
        return nullptr;
    block *out = block_take(std::max<size_t>(size, sizeof(mbx_signal)));
    out->signal()->number = 0;
    std::memcpy(static_cast<void *>(out->signal()), record + head_bytes, size);
    touched_ |= pages_of(place, place + record_bytes(size));
    asks = consume(skip + record_bytes(size));
    return out;
}

void record_receiver::finish()
{
    if (is_finished_)
        return;
    const uint32_t there = available();
    last_ = position() + (there <= ring_bytes ? there : 0);
    is_finished_ = true;
}

void record_receiver::drop()
{
    last_ = position();
    is_finished_ = true;
}

void record_receiver::trim()
{
    if (is_finished_) {
        advise(ring_, ~pages_between(position(), last_), MADV_REMOVE);
    } else if (touched_ == 0) {
        return;
    } else {
        advise(ring_, touched_, MADV_DONTNEED);
    }
    touched_ &= pages_in_memory(ring_);
}
