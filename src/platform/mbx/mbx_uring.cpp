/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: read() writes one read of each bell into the ring of the kernel and submits all by
   one call; ring() rings those singly whose read has failed. */
#include "platform/mbx/mbx_uring.h"

#include "platform/mbx/mbx_area.h"

#include <algorithm>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>

void bell_reader::close()
{
    if (entries_)
        munmap(std::exchange(entries_, nullptr), reads_at_once * sizeof(io_uring_sqe));
    if (rings_)
        munmap(std::exchange(rings_, nullptr), ring_bytes_);
    fd_.reset();
}

template <typename pointer>
static bool map(pointer &to, int fd, size_t bytes, uint64_t what)
{
    void *start =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(what));
    if (start == MAP_FAILED)
        return false;
    to = static_cast<pointer>(start);
    return true;
}

/* A kernel that takes this flag (5.18) has all else that is used here. */
bool bell_reader::open()
{
    layout_ = {};
    layout_.flags = IORING_SETUP_SUBMIT_ALL;
    fd_ = owned_fd(static_cast<int>(syscall(SYS_io_uring_setup, reads_at_once, &layout_)));
    ring_bytes_ = std::max(layout_.sq_off.array + layout_.sq_entries * sizeof(uint32_t),
                           layout_.cq_off.cqes + layout_.cq_entries * sizeof(io_uring_cqe));
    if (!fd_ || layout_.sq_entries != reads_at_once ||
        !map(rings_, fd_.get(), ring_bytes_, IORING_OFF_SQ_RING) ||
        !map(entries_, fd_.get(), reads_at_once * sizeof(io_uring_sqe), IORING_OFF_SQES)) {
        close();
        return false;
    }
    for (uint32_t i = 0; i < reads_at_once; i++)
        word(layout_.sq_off.array)[i] = i;
    return true;
}

/* Only reads that fail are reported. */
void bell_reader::ring_failed(std::span<const due_bell> bells)
{
    const auto *reports = reinterpret_cast<const io_uring_cqe *>(rings_ + layout_.cq_off.cqes);
    const uint32_t end = __atomic_load_n(word(layout_.cq_off.tail), __ATOMIC_ACQUIRE);
    uint32_t *head = word(layout_.cq_off.head);
    for (uint32_t at = *head; at != end; at++)
        ring_bell(bells[reports[at % layout_.cq_entries].user_data].fd);
    __atomic_store_n(head, end, __ATOMIC_RELEASE);
}

/* When the call returns, each read that the kernel has taken is done or has failed. */
size_t bell_reader::read(std::span<const due_bell> bells)
{
    const auto count = static_cast<uint32_t>(bells.size());
    uint32_t *tail = word(layout_.sq_off.tail);
    for (uint32_t i = 0; i < count; i++) {
        io_uring_sqe &entry = entries_[(*tail + i) % reads_at_once];
        entry = {};
        entry.opcode = IORING_OP_READ;
        entry.flags = IOSQE_CQE_SKIP_SUCCESS;
        entry.fd = bells[i].fd;
        entry.off = UINT64_MAX;
        entry.addr = reinterpret_cast<uintptr_t>(&sink_);
        entry.len = sizeof(sink_);
        entry.rw_flags = RWF_NOWAIT;
        entry.user_data = i;
    }
    __atomic_store_n(tail, *tail + count, __ATOMIC_RELEASE);
    const long taken =
        syscall(SYS_io_uring_enter, fd_.get(), count, 0, IORING_ENTER_GETEVENTS, nullptr, 0);
    ring_failed(bells);
    if (taken != count)
        close();
    return taken > 0 ? static_cast<size_t>(taken) : 0;
}

void bell_reader::ring(std::span<const due_bell> bells)
{
    while (!bells.empty()) {
        const auto some = bells.first(std::min<size_t>(bells.size(), reads_at_once));
        for (const due_bell &bell : some.subspan(fd_ ? read(some) : 0))
            ring_bell(bell.fd);
        bells = bells.subspan(some.size());
    }
}
