/* SPDX-License-Identifier: Apache-2.0 */
#include "tesk_exporter/listener.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <netdb.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace exporter
{

static constexpr int backlog = 128;
static constexpr std::string_view unix_prefix = "unix:";
/* Bounds the kernel's memory for a client that doesn't read. Accepted sockets inherit it. */
static constexpr int send_buffer = 256 * 1024;

[[noreturn]] static void fail(const std::string &where, const std::string &why)
{
    throw std::runtime_error("--listen " + where + ": " + why);
}

static int listening(int fd, const sockaddr *address, socklen_t size, const std::string &where)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof(send_buffer));
    if (fd >= 0 && bind(fd, address, size) == 0 && listen(fd, backlog) == 0)
        return fd;
    const int error = errno;
    close(fd);
    fail(where, error == EADDRINUSE ? "the address is in use; is another exporter running?"
                                    : std::generic_category().message(error));
}

static int open_inet(const std::string &where)
{
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == where.size())
        fail(where, "write ADDRESS:PORT, with an IPv6 address in brackets, or unix:PATH");
    std::string host = where.substr(0, colon);
    if (host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    uint16_t port = 0; /* getaddrinfo takes larger numbers, and cuts them */
    const auto [end, error] =
        std::from_chars(where.data() + colon + 1, where.data() + where.size(), port);
    if (error != std::errc{} || end != where.data() + where.size())
        fail(where, "is no numeric address and port");
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), where.c_str() + colon + 1, &hints, &found) != 0)
        fail(where, "is no numeric address and port");
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr, found->ai_addrlen);
    const socklen_t size = found->ai_addrlen;
    freeaddrinfo(found);
    const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return listening(fd, reinterpret_cast<const sockaddr *>(&address), size, where);
}

/* Removes a socket on which no process listens; any other file stays. */
static void remove_dead_socket(const sockaddr_un &address)
{
    struct stat status = {};
    if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool is_dead =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 &&
        errno == ECONNREFUSED;
    close(fd);
    if (is_dead)
        unlink(address.sun_path);
}

static int open_unix(const std::string &where)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = where.substr(unix_prefix.size());
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        fail(where, "a path of 1 to 107 bytes is wanted");
    std::memcpy(address.sun_path, path.data(), path.size());
    remove_dead_socket(address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    /* By the mask, so that the mode is right from the start. No other thread runs yet. */
    const mode_t former = umask(0117);
    try {
        listening(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address), where);
    } catch (...) {
        umask(former);
        throw;
    }
    umask(former);
    return fd;
}

int open_listener(const std::string &where)
{
    return where.starts_with(unix_prefix) ? open_unix(where) : open_inet(where);
}

void remove_listener(const std::string &where)
{
    if (where.starts_with(unix_prefix))
        unlink(where.c_str() + unix_prefix.size());
}

} // namespace exporter
