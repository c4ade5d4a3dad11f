/* SPDX-License-Identifier: Apache-2.0 */
/* refuse CALL ERRNO PROGRAM [ARGUMENT..] - runs a program whose system call CALL fails with ERRNO,
   as under the filter of a sandbox or on a kernel that lacks the call; refuse --list writes the
   names of the calls. They are all calls of the project's programs, except those without which no C
   program runs or writes a line. */
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

struct call {
    const char *name;
    unsigned number;
};

/* clang-format off */
#define CALL(name) {#name, SYS_##name}
static constexpr call calls[] = {
    CALL(accept4), CALL(bind), CALL(clone3), CALL(connect), CALL(epoll_create1), CALL(epoll_ctl),
    CALL(eventfd2), CALL(fchmod), CALL(fchmodat), CALL(fchown), CALL(fcntl), CALL(flock),
    CALL(fsync), CALL(ftruncate), CALL(getdents64), CALL(getrandom), CALL(getsockname),
    CALL(getsockopt), CALL(inotify_init1), CALL(inotify_add_watch), CALL(io_uring_setup),
    CALL(io_uring_enter), CALL(ioctl), CALL(listen),
    CALL(lseek), CALL(madvise), CALL(memfd_create), CALL(mkdirat), CALL(newfstatat),
    CALL(pidfd_open), CALL(prctl), CALL(preadv2), CALL(prlimit64), CALL(recvfrom), CALL(recvmsg),
    CALL(renameat2), CALL(rseq), CALL(sched_setscheduler), CALL(seccomp),
    CALL(sendmsg), CALL(sendto), CALL(setsockopt), CALL(shutdown), CALL(signalfd4), CALL(socket),
    CALL(timerfd_create), CALL(timerfd_settime), CALL(unlinkat),
#ifdef SYS_poll /* older calls, which newer architectures lack */
    CALL(chmod), CALL(epoll_wait), CALL(mkdir), CALL(poll), CALL(rename), CALL(unlink),
#endif
};
/* clang-format on */

static int run(const call &refused, unsigned error, char **program)
{
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, refused.number, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {.len = std::size(code), .filter = code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0)
        execv(program[0], program);
    perror(program[0]);
    return 127;
}

int main(int count, char **words)
{
    if (count == 2 && words[1] == std::string_view("--list"))
        for (const call &each : calls)
            puts(each.name);
    if (count < 4)
        return count == 2 ? 0 : 125;
    const auto *refused = std::ranges::find(calls, std::string_view(words[1]), &call::name);
    return refused == std::end(calls)
               ? 125
               : run(*refused, static_cast<unsigned>(strtoul(words[2], nullptr, 10)), words + 3);
}
