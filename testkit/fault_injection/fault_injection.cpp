/* SPDX-License-Identifier: Apache-2.0 */
/* A preloaded library: each function here calls the function that it hides, except for the one call
   that the plan makes fail. All functions take and return words, so that one macro can define
   them. */
#include "testkit/fault_injection/fault_plan.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <unistd.h>

static fault_plan *plan;

__attribute__((constructor)) static void read_plan()
{
    const char *path = getenv("FAULTS");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd == -1)
        return;
    void *page = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (page != MAP_FAILED)
        plan = static_cast<fault_plan *>(page);
}

/* The program headers are at the beginning of the executable. */
static bool is_in_program(const void *address)
{
    Dl_info object = {};
    return dladdr(address, &object) != 0 &&
           getauxval(AT_PHDR) - reinterpret_cast<uintptr_t>(object.dli_fbase) < 4096;
}

/* `from` is the address of the caller, or of the mutex: it shows whether the program itself makes
   the call. */
static bool fails(const char *call, const void *from)
{
    if (plan == nullptr || !plan->armed || strcmp(plan->call, call) != 0)
        return false;
    if (plan->by_program_only && !is_in_program(from))
        return false;
    return ++plan->seen == plan->nth;
}

/* The kernel refuses a new entry of an epoll, but not the change or removal of one. */
static bool can_fail(const char *call, long operation)
{
    return strcmp(call, "epoll_ctl") != 0 || operation == EPOLL_CTL_ADD;
}

using any_call = long (*)(void *, long, long, long, long, long);

/* `failure` and `error` are result and errno of a failing call of `name`. `find` finds the real
   function; a `late` failure calls it, too. */
#define FAULT_OF(name, from, find, failure, error, late)                                           \
    extern "C" __attribute__((visibility("default"))) long fault_##name(                           \
        void *a, long b, long c, long d, long e, long f) __asm__(#name);                           \
    long fault_##name(void *a, long b, long c, long d, long e, long f)                             \
    {                                                                                              \
        static std::atomic<any_call> real;                                                         \
        const bool failing = can_fail(#name, b) && fails(#name, from);                             \
        if (failing && !(late)) {                                                                  \
            errno = (error);                                                                       \
            return (failure);                                                                      \
        }                                                                                          \
        if (real == nullptr)                                                                       \
            real = reinterpret_cast<any_call>(find);                                               \
        const long result = real.load()(a, b, c, d, e, f);                                         \
        return failing ? (failure) : result;                                                       \
    }
#define FAULT(name, failure, error)                                                                \
    FAULT_OF(name, __builtin_return_address(0), dlsym(RTLD_NEXT, #name), failure, error, false)
/* For a call whose effect is needed: the call is made, and reported as failed. */
#define LATE_FAULT(name, failure)                                                                  \
    FAULT_OF(name, __builtin_return_address(0), dlsym(RTLD_NEXT, #name), failure, 0, true)
#define MUTEX_FAULT(name, failure) FAULT_OF(name, a, dlsym(RTLD_NEXT, #name), failure, 0, false)
#define MEMORY_FAULT(name)                                                                         \
    FAULT_OF(name, __builtin_return_address(0), __libc_##name, 0, ENOMEM, false)

/* dlsym isn't used, since it may allocate. */
extern "C" long __libc_malloc(void *, long, long, long, long, long);
extern "C" long __libc_calloc(void *, long, long, long, long, long);
extern "C" long __libc_realloc(void *, long, long, long, long, long);
MEMORY_FAULT(malloc)
MEMORY_FAULT(calloc)
MEMORY_FAULT(realloc)
FAULT(mmap, -1, ENOMEM)
MUTEX_FAULT(pthread_mutex_lock, EINVAL)
MUTEX_FAULT(pthread_mutex_unlock, EPERM)
FAULT(pthread_create, EAGAIN, 0)
LATE_FAULT(pthread_join, EINVAL)
FAULT(eventfd, -1, EMFILE)
FAULT(timerfd_create, -1, EMFILE)
FAULT(epoll_create1, -1, EMFILE)
FAULT(epoll_ctl, -1, ENOSPC)
FAULT(epoll_wait, -1, EINTR)
FAULT(read, -1, EIO)
FAULT(write, -1, EIO)
FAULT(open, -1, EMFILE)
FAULT(socket, -1, EMFILE)
FAULT(memfd_create, -1, EMFILE)
FAULT(ftruncate, -1, ENOSPC)
FAULT(bind, -1, EACCES)
FAULT(listen, -1, EADDRINUSE)
FAULT(accept4, -1, EMFILE)
FAULT(setsockopt, -1, ENOMEM)
FAULT(sendmsg, -1, ENOBUFS)
FAULT(recvmsg, -1, ENOMEM)
FAULT(mbx_init, -1, 0)
FAULT(mbx_create_mailbox, -1, 0)
FAULT(mbx_get_fd, -1, 0)
FAULT(zel_init, 1, 0)
FAULT(tmo_service_init, 0, 0)
FAULT(dolm_ric_init, -11, 0)
FAULT(dolm_ric_waitevent, -11, 0)
FAULT(dolm_ric_ri_subsport, -11, 0)
FAULT(dolm_ric_ri_unsubsport, -11, 0)
FAULT(dolm_ric_ri_subslink, -11, 0)
FAULT(dolm_ric_ri_unsubslink, -11, 0)
FAULT(dolm_ric_ri_getportstatus, -11, 0)
FAULT(dolm_ric_ri_getlinkstatus, -11, 0)
FAULT(dolm_ric_ri_getmoduleinfo, -11, 0)
FAULT(dolm_ric_ri_getmodstatus, -11, 0)
FAULT(dolm_ric_ri_getmodulediag, -11, 0)
LATE_FAULT(dolm_ric_freeevent, -11)
LATE_FAULT(dolm_ric_shutdown, -11)
