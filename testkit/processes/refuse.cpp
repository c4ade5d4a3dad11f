/* SPDX-License-Identifier: Apache-2.0 */
/* refuse NUMBER ERRNO PROGRAM [ARGUMENT..] - runs a program whose system call of that number fails
   with that errno, as under the filter of a sandbox or on a kernel that lacks the call. */
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int count, char **words)
{
    if (count < 4)
        return 125;
    const auto number = static_cast<unsigned>(atoi(words[1]));
    const auto error = static_cast<unsigned>(atoi(words[2]));
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    sock_fprog program = {static_cast<unsigned short>(sizeof(code) / sizeof(code[0])), code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        return 126;
    execv(words[3], words + 3);
    perror(words[3]);
    return 127;
}
