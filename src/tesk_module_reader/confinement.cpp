/* SPDX-License-Identifier: Apache-2.0 */
/* The filter checks the number of the system call and, for ioctl, the command, a 32-bit number in
   the lower half of the second argument. The filter can't read memory behind a pointer: only the
   code checks the ethtool command and the address on a bus. */
#include "tesk_module_reader/confinement.h"

#include <cerrno>
#include <cstddef>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/i2c-dev.h>
#include <linux/seccomp.h>
#include <linux/sockios.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace module_reader
{

[[noreturn]] static void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/* Drops all rights except that CAP_NET_ADMIN stays permitted. Reducing the bounding set, which
   limits programs started later, needs another right and may fail; PR_SET_NO_NEW_PRIVS covers that
   case. */
void keep_net_admin_only()
{
    __user_cap_header_struct head = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        fail("PR_SET_NO_NEW_PRIVS");
    if (syscall(SYS_capget, &head, sets) != 0)
        fail("capget");
    for (unsigned long right = 0; right <= CAP_LAST_CAP; right++)
        prctl(PR_CAPBSET_DROP, right, 0, 0, 0);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    constexpr uint32_t net_admin = 1u << CAP_NET_ADMIN;
    sets[0].permitted &= net_admin;
    sets[0].effective = sets[0].permitted;
    sets[0].inheritable = 0;
    sets[1] = {};
    if (syscall(SYS_capset, &head, sets) != 0)
        fail("capset");
}

#if defined(__x86_64__)
static constexpr uint32_t own_architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
static constexpr uint32_t own_architecture = AUDIT_ARCH_AARCH64;
#else
#error "name this processor's AUDIT_ARCH here"
#endif

static constexpr uint32_t allowed_calls[] = {
    SYS_sendto,  SYS_sendmsg,       SYS_recvfrom,     SYS_recvmsg,         SYS_ppoll,
    SYS_accept4, SYS_close,         SYS_getsockopt,   SYS_write,           SYS_writev,
    SYS_brk,     SYS_mmap,          SYS_munmap,       SYS_mremap,          SYS_madvise,
    SYS_futex,   SYS_clock_gettime, SYS_rt_sigreturn, SYS_restart_syscall, SYS_exit_group,
    SYS_exit,
#ifdef SYS_poll
    SYS_poll,
#endif
};

static constexpr uint32_t allowed_commands[] = {SIOCETHTOOL, SIOCGIFNAME,     I2C_FUNCS,
                                                I2C_RDWR,    I2C_SLAVE_FORCE, I2C_SMBUS};

#ifdef TESK_UNCONFINED
static constexpr bool has_run_time_library = true;
#else
static constexpr bool has_run_time_library = false;
#endif

static sock_filter load(size_t offset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
}

/* Skips the next instruction unless the loaded word is `value`. */
static sock_filter unless(uint32_t value)
{
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1);
}

static sock_filter verdict(uint32_t action)
{
    return BPF_STMT(BPF_RET | BPF_K, action);
}

static std::vector<sock_filter> make_filter()
{
    constexpr size_t command = offsetof(seccomp_data, args) + sizeof(seccomp_data::args[0]);
    std::vector<sock_filter> filter = {
        load(offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, own_architecture, 1, 0),
        verdict(SECCOMP_RET_KILL_PROCESS),
        load(offsetof(seccomp_data, nr)),
    };
    for (const uint32_t call : allowed_calls) {
        filter.push_back(unless(call));
        filter.push_back(verdict(SECCOMP_RET_ALLOW));
    }
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 1, 0));
    filter.push_back(verdict(SECCOMP_RET_KILL_PROCESS));
    filter.push_back(load(command));
    for (const uint32_t allowed : allowed_commands) {
        filter.push_back(unless(allowed));
        filter.push_back(verdict(SECCOMP_RET_ALLOW));
    }
    filter.push_back(verdict(SECCOMP_RET_KILL_PROCESS));
    return filter;
}

/* The run-time libraries of sanitizers and coverage make other system calls, so the filter is not
   installed with them. */
void allow_requests_only()
{
    if constexpr (has_run_time_library)
        return;
    std::vector<sock_filter> filter = make_filter();
    const sock_fprog program = {.len = static_cast<unsigned short>(filter.size()),
                                .filter = filter.data()};
    if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0)
        fail("seccomp");
}

} // namespace module_reader
