/* Memory comes in chunks of 1 MiB that are mapped when the first block in them is needed and stay
   for good; their pages become real when they are touched. Blocks are carved off one after the
   other and never merged. A given block goes to the free list of its size class, a stack whose head
   is one 64-bit word: the place of the first block and a counter that makes a head differ from an
   earlier one with the same first block. Nothing here locks or calls malloc, so a signal handler
   can interrupt any of it anywhere.

   A signal larger than any that can be sent gets a mapping of its own. */
#include "mbx_block.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr size_t unit = 64; /* the smallest block, and what places count in */
constexpr uint32_t chunk_units = (1u << 20) / unit;
constexpr uint32_t chunk_count = 4096;
constexpr uint32_t class_count = 12; /* 64 bytes to 128 KiB: holds the largest signal */
constexpr uint32_t class_bits = 4;
constexpr uint32_t class_mask = (1u << class_bits) - 1;
constexpr uint32_t own_mapping = class_count;
static_assert((unit << (class_count - 1)) >= MBX_LARGEST_SIGNAL + sizeof(block));
static_assert(own_mapping <= class_mask);

std::array<std::atomic<std::byte *>, chunk_count> chunks;
std::atomic<uint32_t> carved{1}; /* in units; place 0 means "none" */
std::array<std::atomic<uint64_t>, class_count> free_lists;

[[noreturn]] void out_of_memory()
{
    static constexpr char text[] = "libmbx: out of memory\n";
    [[maybe_unused]] ssize_t n = write(STDERR_FILENO, text, sizeof text - 1);
    abort();
}

std::byte *map_memory(size_t size)
{
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        out_of_memory();
    return static_cast<std::byte *>(memory);
}

/* Its chunk is there: the place was carved, or stood in a free list. */
block *block_at(uint32_t place)
{
    std::byte *chunk = chunks[place / chunk_units].load(std::memory_order_acquire);
    return reinterpret_cast<block *>(chunk + (place % chunk_units) * unit);
}

/* Two threads may map the same chunk at once, or a thread and a handler on it; the second one takes
   its own back. */
void need_chunk(uint32_t index)
{
    if (index >= chunk_count)
        out_of_memory();
    std::atomic<std::byte *> &chunk = chunks[index];
    if (chunk.load(std::memory_order_acquire))
        return;
    std::byte *fresh = map_memory(chunk_units * unit);
    std::byte *expected = nullptr;
    if (!chunk.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel))
        munmap(fresh, chunk_units * unit);
}

/* A block never crosses the end of a chunk; what is left there stays unused and untouched. */
block *carve(uint32_t size_class)
{
    const uint32_t units = 1u << size_class;
    uint32_t end = carved.load(std::memory_order_relaxed);
    uint32_t place;
    do {
        place = end;
        if (place % chunk_units + units > chunk_units)
            place = (place / chunk_units + 1) * chunk_units;
        if (place / chunk_units >= chunk_count)
            out_of_memory();
    } while (!carved.compare_exchange_weak(end, place + units, std::memory_order_relaxed));
    need_chunk(place / chunk_units);
    block *b = block_at(place);
    b->place = place << class_bits | size_class;
    return b;
}

block *pop_free(uint32_t size_class)
{
    std::atomic<uint64_t> &list = free_lists[size_class];
    uint64_t head = list.load(std::memory_order_acquire);
    for (;;) {
        const uint32_t place = static_cast<uint32_t>(head);
        if (place == 0)
            return nullptr;
        block *b = block_at(place);
        /* Another thread may have taken the block meanwhile: then the word means something else,
           and the counter in the head makes the exchange fail. */
        const uint64_t next = ((head >> 32) + 1) << 32 | b->word.load(std::memory_order_relaxed);
        if (list.compare_exchange_weak(head, next, std::memory_order_acquire))
            return b;
    }
}

void push_free(block *b, uint32_t size_class)
{
    std::atomic<uint64_t> &list = free_lists[size_class];
    uint64_t head = list.load(std::memory_order_relaxed);
    uint64_t next;
    do {
        b->word.store(static_cast<uint32_t>(head), std::memory_order_relaxed);
        next = ((head >> 32) + 1) << 32 | b->place >> class_bits;
    } while (!list.compare_exchange_weak(head, next, std::memory_order_release,
                                         std::memory_order_relaxed));
}

uint32_t class_for(size_t bytes)
{
    return static_cast<uint32_t>(std::bit_width((bytes - 1) / unit));
}

} // namespace

block *block_take(size_t size)
{
    if (size > UINT32_MAX - sizeof(block))
        out_of_memory();
    const size_t bytes = size + sizeof(block);
    block *b;
    if (size > MBX_LARGEST_SIGNAL) {
        b = reinterpret_cast<block *>(map_memory(bytes));
        b->place = own_mapping;
    } else {
        const uint32_t size_class = class_for(bytes);
        b = pop_free(size_class);
        if (!b)
            b = carve(size_class);
    }
    b->size = static_cast<uint32_t>(size);
    b->sender = MBX_NO_MAILBOX;
    b->next = nullptr;
    return b;
}

void block_give(block *b)
{
    const uint32_t size_class = b->place & class_mask;
    if (size_class == own_mapping)
        munmap(b, sizeof(block) + b->size);
    else
        push_free(b, size_class);
}

void block_queue::push(block *b)
{
    b->next = nullptr;
    if (tail)
        tail->next = b;
    else
        head = b;
    tail = b;
}

block *block_queue::pop()
{
    return head ? remove_after(nullptr) : nullptr;
}

block *block_queue::remove_after(block *before)
{
    block *b = before ? before->next : head;
    (before ? before->next : head) = b->next;
    if (tail == b)
        tail = before;
    b->next = nullptr;
    return b;
}

void block_queue::give_all()
{
    while (block *b = pop())
        block_give(b);
}
