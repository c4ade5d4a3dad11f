/* SPDX-License-Identifier: Apache-2.0 */
/* local_socket - sockets in the file system. If a function fails, its descriptor isn't open and
   errno has the reason; a path that is too long for a socket address gives ENAMETOOLONG. All
   sockets are close- on-exec. Any thread. */
#pragma once

#include "util/descriptor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace util
{

/* False, with errno, if the path is empty or too long. */
inline bool make_local_address(std::string_view path, sockaddr_un &address)
{
    address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        errno = path.empty() ? ENOENT : ENAMETOOLONG;
        return false;
    }
    memcpy(address.sun_path, path.data(), path.size());
    return true;
}

/* Connects to the socket at `path`; `type` is SOCK_STREAM or SOCK_SEQPACKET, with SOCK_NONBLOCK if
   wanted. */
inline descriptor connect_to(std::string_view path, int type)
{
    sockaddr_un address;
    if (!make_local_address(path, address))
        return descriptor();
    descriptor connection(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!connection.is_open() ||
        connect(connection.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)))
        connection.reset();
    return connection;
}

/* Sets the mode without following a link that another process put in place of the socket.
   fchmodat() needs /proc for that, which a chroot may lack; then lstat() checks the file first. */
inline bool set_socket_mode(const char *path, mode_t mode)
{
    struct stat found = {};
    return fchmodat(AT_FDCWD, path, mode, AT_SYMLINK_NOFOLLOW) == 0 ||
           (lstat(path, &found) == 0 && S_ISSOCK(found.st_mode) && chmod(path, mode) == 0);
}

/* Creates a socket at `path`, which must not exist. The owner, and `group`, can use it according to
   `mode`; the umask has no effect. No process can connect before listen() is called. If the caller
   isn't a member of `group`, the socket keeps the caller's group. */
inline descriptor bind_at(std::string_view path, int type, mode_t mode, gid_t group)
{
    sockaddr_un address;
    if (!make_local_address(path, address))
        return descriptor();
    descriptor bound(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!bound.is_open() || fchmod(bound.get(), mode) != 0 ||
        bind(bound.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return descriptor();
    [[maybe_unused]] const bool has_group =
        group == getegid() || lchown(address.sun_path, static_cast<uid_t>(-1), group) == 0;
    if (set_socket_mode(address.sun_path, mode))
        return bound;
    const int reason = errno;
    unlink(address.sun_path);
    errno = reason;
    return descriptor();
}

/* Calls bind_at() and listens. */
inline descriptor listen_at(std::string_view path, int type, mode_t mode, gid_t group, int backlog)
{
    descriptor listener = bind_at(path, type, mode, group);
    if (listener.is_open() && ::listen(listener.get(), backlog) != 0)
        listener.reset();
    return listener;
}

} // namespace util
