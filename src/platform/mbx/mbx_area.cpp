/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_area.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/vfs.h>

static constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
/* An eventfd with this count is readable and not writable, and after one read it is both. */
static constexpr uint64_t full_count = UINT64_MAX - 1;

static void complain_about_memory(int error)
{
    static std::atomic<bool> said;
    if (!said.exchange(true))
        fprintf(stderr,
                "libmbx: the system refuses a memory file (memfd_create: %s); signals travel "
                "through such files, so no connection can be made\n",
                strerror(error));
}

owned_fd make_area_memory()
{
    owned_fd memory(memfd_create("mbx", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (memory && ftruncate(memory.get(), area_bytes) == 0 &&
        fcntl(memory.get(), F_ADD_SEALS, seals) == 0)
        return memory;
    const int error = errno;
    if (error != EMFILE && error != ENFILE && error != ENOMEM)
        complain_about_memory(error);
    memory.reset();
    errno = error;
    return {};
}

/* A file of another kind could block at each access, or end below its size. Huge pages would make
   the memory of one connection many times as large. */
static bool is_area_memory(int memory)
{
    struct stat status {
    };
    struct statfs system {
    };
    const int sealed = fcntl(memory, F_GET_SEALS);
    return sealed >= 0 && (sealed & seals) == seals && fstat(memory, &status) == 0 &&
           status.st_size == static_cast<off_t>(area_bytes) && fstatfs(memory, &system) == 0 &&
           system.f_type == TMPFS_MAGIC;
}

std::shared_ptr<mapped_area> mapped_area::map(int memory)
{
    if (!is_area_memory(memory)) {
        errno = EPROTO;
        return nullptr;
    }
    void *start = mmap(nullptr, area_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (start == MAP_FAILED)
        return nullptr;
    /* A child that was made behind the library's back must not keep it. */
    madvise(start, area_bytes, MADV_DONTFORK);
    return std::make_shared<mapped_area>(static_cast<unsigned char *>(start));
}

mapped_area::~mapped_area()
{
    if (start_)
        munmap(start_, area_bytes);
}

owned_fd make_bell()
{
    owned_fd bell(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (bell && write(bell.get(), &full_count, sizeof(full_count)) != sizeof(full_count))
        bell.reset();
    return bell;
}

/* Files of the kernel's own share one inode, except those that have a reason not to. */
bool may_be_bell(int fd)
{
    const owned_fd own(eventfd(0, EFD_CLOEXEC));
    struct stat ours {
    };
    struct stat theirs {
    };
    if (!own || fstat(own.get(), &ours) != 0 || fstat(fd, &theirs) != 0)
        return false;
    const bool is_kernels_own = ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
    const bool is_epoll = epoll_ctl(fd, EPOLL_CTL_DEL, own.get(), nullptr) == 0 || errno != EINVAL;
    return is_kernels_own && !is_epoll;
}

/* The calls by their numbers: the library functions are points of cancellation. A count of 0, which
   only a bell that was not made by make_bell can have, wakes nobody and blocks nobody. */
bool ring_bell(int bell)
{
    const int saved = errno;
    uint64_t count;
    const iovec into{&count, sizeof(count)};
    const long n = syscall(SYS_preadv2, bell, &into, 1, -1L, -1L, RWF_NOWAIT);
    const bool can_ring = n >= 0 || errno == EAGAIN;
    errno = saved;
    return can_ring;
}

void ring_own_bell(int bell)
{
    const int saved = errno;
    uint64_t count;
    syscall(SYS_read, bell, &count, sizeof(count));
    errno = saved;
}
