/* SPDX-License-Identifier: Apache-2.0 */
/* Makes, checks and maps the memory file; makes, checks and rings the bells. */
#include "platform/mbx/mbx_area.h"

#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>

static constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
/* An eventfd with this count is readable and not writable, and after one read it is both. */
static constexpr uint64_t full_count = UINT64_MAX - 1;

static void complain_about_memory(int error)
{
    static std::atomic<bool> said;
    if (!said.exchange(true))
        fprintf(stderr,
                "libmbx: the system refuses a memory file (memfd_create: %s); signals travel "
                "through such files, so no connection can be made: allow that call, and files of "
                "%zu KiB (ulimit -f)\n",
                strerror(error), area_bytes / 1024);
}

owned_fd make_area_memory()
{
    owned_fd memory(memfd_create("mbx", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (memory && ftruncate(memory.get(), area_bytes) == 0 &&
        fcntl(memory.get(), F_ADD_SEALS, seals) == 0)
        return memory;
    const errno_keeper keeper;
    if (errno != EMFILE && errno != ENFILE && errno != ENOMEM)
        complain_about_memory(errno);
    return {};
}

bool can_make_memory()
{
    rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < area_bytes) {
        errno = EFBIG;
        complain_about_memory(errno);
        return false;
    }
    return static_cast<bool>(make_area_memory());
}

/* The access to a file of another kind could block, or go beyond the file's end. Only memory files
   have seals; the size excludes those that consist of huge pages. */
bool is_area_memory(int memory)
{
    static_assert(area_bytes % (size_t{64} * 1024) != 0, "not a multiple of any huge page");
    file_status status{};
    const int sealed = fcntl(memory, F_GET_SEALS);
    return sealed >= 0 && (sealed & seals) == seals && fstat(memory, &status) == 0 &&
           status.st_size == static_cast<off_t>(area_bytes);
}

/* MADV_DONTFORK: a child made by a bare system call, of which the library does not know, must not
   keep the mapping. */
static unsigned char *map_part(int memory, size_t begin, size_t bytes, int flags, uintptr_t wish)
{
    void *start = mmap(std::bit_cast<void *>(wish), bytes, PROT_READ | PROT_WRITE,
                       MAP_SHARED | flags, memory, static_cast<off_t>(begin));
    if (start == MAP_FAILED)
        return nullptr;
    madvise(start, bytes, MADV_DONTFORK);
    return static_cast<unsigned char *>(start);
}

/* The kernel puts small mappings next to each other. If nothing lies between them, the first pages
   of some hundred connections share a page of page tables. So the rest of an area is mapped far
   below, at an address that follows from that of its first page. For 1,000 connections a process
   has 64 KiB of page tables, and 984 KiB without this. */
static uintptr_t place_of_rest(const unsigned char *page)
{
    static constexpr uintptr_t below = uintptr_t{1} << 37;
    static constexpr uintptr_t places = uintptr_t{1} << 18;
    static const uintptr_t first = reinterpret_cast<uintptr_t>(page);
    return first - below - reinterpret_cast<uintptr_t>(page) / page_bytes % places * 2 * rest_span;
}

std::shared_ptr<mapped_area> mapped_area::map(int memory)
{
    auto area = std::make_shared<mapped_area>();
    unsigned char *page = map_part(memory, 0, page_bytes, MAP_POPULATE, 0);
    if (!page)
        return nullptr;
    area->page_ = reinterpret_cast<shared_page *>(page);
    area->rest_ = map_part(memory, page_bytes, 2 * rest_span, 0, place_of_rest(page));
    return area->rest_ ? area : nullptr;
}

void mapped_area::give_back_sent()
{
    madvise(ring(1).rest, rest_span, MADV_REMOVE);
    count(held_sent, 0);
}

static void unmap_part(void *start, size_t bytes, bool is_given_back)
{
    if (!start)
        return;
    if (is_given_back)
        madvise(start, bytes, MADV_REMOVE);
    munmap(start, bytes);
}

mapped_area::~mapped_area()
{
    unmap_part(page_, page_bytes, is_given_back_);
    unmap_part(rest_, 2 * rest_span, is_given_back_);
    /* The entry may outlive the area, for as long as the peer keeps the file. */
    if (is_given_back_) {
        count(held_sent, 0);
        count(held_received, 0);
    }
}

owned_fd make_bell()
{
    owned_fd bell(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (bell && write(bell.get(), &full_count, sizeof(full_count)) != sizeof(full_count))
        bell.reset();
    return bell;
}

/* The kernel gives the same inode to all eventfds and to most of its other anonymous files. A file
   with another inode is refused. */
static bool is_kernels_own(int fd)
{
    const owned_fd own(eventfd(0, EFD_CLOEXEC));
    file_status ours{};
    file_status found{};
    return fstat(own.get(), &ours) == 0 && fstat(fd, &found) == 0 && ours.st_dev == found.st_dev &&
           ours.st_ino == found.st_ino;
}

bool may_be_bell(int fd, int socket)
{
    return is_kernels_own(fd) && epoll_ctl(fd, EPOLL_CTL_DEL, socket, nullptr) != 0 &&
           errno == EINVAL;
}

/* The calls are made by their numbers, because the library's functions are points of cancellation.
   A bell with a count of 0, which was not made by make_bell(), wakes no thread and blocks none. */
bool ring_bell(int bell, bool is_own)
{
    const errno_keeper keeper;
    uint64_t count;
    const iovec into{&count, sizeof(count)};
    const long n = is_own ? syscall(SYS_read, bell, &count, sizeof(count))
                          : syscall(SYS_preadv2, bell, &into, 1, -1L, -1L, RWF_NOWAIT);
    return is_own || n >= 0 || errno == EAGAIN;
}
