/* SPDX-License-Identifier: Apache-2.0 */
/* The system calls that carry bytes between processes: without one of them a program in a sandbox
   would run but serve no request. Each call is tried on a descriptor that can't exist: a sandbox
   refuses the call before the kernel checks the descriptor. No state. Any thread. */
#pragma once

#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace util
{

inline bool is_refused(long result)
{
    return result == -1 && errno != EBADF;
}

/* The name of a call that the system refuses, with errno; null if all are permitted. accept4 is
   tried only with `accepts`. */
inline const char *refused_call(bool accepts)
{
    epoll_event event;
    msghdr message{};
    if (is_refused(epoll_wait(-1, &event, 1, 0)))
        return "epoll_wait";
    if (is_refused(recvmsg(-1, &message, 0)))
        return "recvmsg";
    if (is_refused(sendmsg(-1, &message, 0)))
        return "sendmsg";
    return accepts && is_refused(accept4(-1, nullptr, nullptr, 0)) ? "accept4" : nullptr;
}

} // namespace util
