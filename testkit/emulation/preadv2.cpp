/* SPDX-License-Identifier: Apache-2.0 */
/* preadv2 for programs under QEMU's user emulation, which lacks this call. Preloaded, it calls
   readv and doesn't block. */
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

extern "C" long syscall(long number, ...) noexcept
{
    static const auto next = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    long words[6];
    va_list list;
    va_start(list, number);
    for (long &word : words)
        word = va_arg(list, long);
    va_end(list);
    if (number == SYS_preadv2) {
        pollfd wanted{static_cast<int>(words[0]), POLLIN, 0};
        if (poll(&wanted, 1, 0) != 1) {
            errno = EAGAIN;
            return -1;
        }
        return readv(static_cast<int>(words[0]), std::bit_cast<const iovec *>(words[1]),
                     static_cast<int>(words[2]));
    }
    return next(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}
