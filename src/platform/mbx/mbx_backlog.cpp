/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: push() writes a signal behind the last one, into a new piece of memory where the
   last piece is full; pop() removes the first, and a piece with it that has nothing left. */
#include "platform/mbx/mbx_backlog.h"

#include <cstring>
#include <new>
#include <sys/mman.h>

/* Begins a mapping of piece_bytes. It holds the pages that were written until all of it is taken.
 */
struct backlog::piece {
    piece *next;
    size_t written; /* bytes of the mapping, these ones included */
    size_t taken;

    unsigned char *at(size_t offset)
    {
        return reinterpret_cast<unsigned char *>(this) + offset;
    }
    size_t memory() const
    {
        constexpr size_t page = 4096;
        return (written + page - 1) / page * page;
    }
};

static constexpr size_t piece_bytes = size_t{128} * 1024; /* more than the largest record */
static constexpr size_t head_bytes = 8;

static size_t record_bytes(uint32_t size)
{
    return head_bytes + ((size_t{size} + 7) & ~size_t{7});
}

bool backlog::add_piece()
{
    void *memory = mmap(nullptr, piece_bytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    piece *added = new (memory) piece{nullptr, sizeof(piece), sizeof(piece)};
    (last_ ? last_->next : first_) = added;
    last_ = added;
    memory_ += added->memory();
    return true;
}

void backlog::remove_piece()
{
    piece *old = first_;
    first_ = old->next;
    if (!first_)
        last_ = nullptr;
    memory_ -= old->memory();
    munmap(old, piece_bytes);
}

bool backlog::push(const void *signal, uint32_t size)
{
    const size_t bytes = record_bytes(size);
    if ((!last_ || last_->written + bytes > piece_bytes) && !add_piece())
        return false;
    unsigned char *record = last_->at(last_->written);
    std::memcpy(record, &size, sizeof(size));
    std::memcpy(record + head_bytes, signal, size);
    memory_ -= last_->memory();
    last_->written += bytes;
    memory_ += last_->memory();
    return true;
}

const void *backlog::front(uint32_t &size) const
{
    const unsigned char *record = first_->at(first_->taken);
    std::memcpy(&size, record, sizeof(size));
    return record + head_bytes;
}

void backlog::pop()
{
    uint32_t size;
    front(size);
    first_->taken += record_bytes(size);
    if (first_->taken == first_->written)
        remove_piece();
}

void backlog::clear()
{
    while (first_)
        remove_piece();
}
