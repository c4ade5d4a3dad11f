/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: --listen is a path, or an address and a port. The socket is made, bound and opened
   for connections; if a packet filter keeps other machines away, a line says so. */
#include "tesk_exporter/listener.h"

#include "util/descriptor.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
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
/* Bounds the kernel's memory for a client that doesn't read. Accepted sockets inherit this size. */
static constexpr int send_buffer = 256 * 1024;

[[noreturn]] static void fail(const std::string &where, const std::string &why)
{
    throw std::runtime_error("--listen " + where + ": " + why);
}

static int listening(util::descriptor made, const sockaddr *address, socklen_t size,
                     const std::string &where)
{
    const int fd = made.get();
    if (!made)
        fail(where, std::generic_category().message(errno));
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof(send_buffer));
    if (bind(fd, address, size) == 0 && listen(fd, backlog) == 0)
        return made.release();
    fail(where, errno == EADDRINUSE ? "the address is in use; is another exporter running?"
                                    : std::generic_category().message(errno));
}

static bool is_wildcard(const sockaddr_storage &address)
{
    if (address.ss_family == AF_INET)
        return reinterpret_cast<const sockaddr_in &>(address).sin_addr.s_addr == INADDR_ANY;
    return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr);
}

/* The address from which this machine would send to another network; all zeros if it can't.
   connect() only looks up the route and sends nothing. */
static sockaddr_storage outer_address()
{
    sockaddr_storage ours{};
    socklen_t size = sizeof(ours);
    sockaddr_in another{};
    another.sin_family = AF_INET;
    another.sin_port = htons(9);
    inet_pton(AF_INET, "192.0.2.1", &another.sin_addr);
    const util::descriptor peer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (connect(peer.get(), reinterpret_cast<const sockaddr *>(&another), sizeof(another)) == 0)
        getsockname(peer.get(), reinterpret_cast<sockaddr *>(&ours), &size);
    return ours;
}

/* Writes a line if a filter refuses even a packet from this process to its own address, as the
   filter of our systemd unit does for all addresses but the loopback: no other machine can then
   reach the socket, although it listens. A refused datagram fails at once, with errno. */
static void warn_where_filtered(const sockaddr_storage &address, const std::string &where)
{
    const sockaddr_storage to = is_wildcard(address) ? outer_address() : address;
    const util::descriptor sender(socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (sender.is_open() &&
        sendto(sender.get(), "", 0, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to),
               sizeof(to)) != 0 &&
        errno == EPERM)
        std::fprintf(stderr,
                     "tesk-exporter: --listen %s: a filter, such as IPAddressDeny of the unit, "
                     "keeps packets from this address: other machines can't reach it unless the "
                     "filter names them; tesk-exporter --print-drop-in writes what the unit "
                     "needs\n",
                     where.c_str());
}

static int open_inet(const std::string &where)
{
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == where.size())
        fail(where, "write ADDRESS:PORT, with an IPv6 address in brackets, or unix:PATH");
    std::string host = where.substr(0, colon);
    if (host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    uint16_t port = 0; /* getaddrinfo accepts larger numbers and truncates them */
    const auto [end, error] =
        std::from_chars(where.data() + colon + 1, where.data() + where.size(), port);
    if (error != std::errc{} || end != where.data() + where.size())
        fail(where, "is no numeric address and port, as 127.0.0.1:9816 and [::1]:9816 are");
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), where.c_str() + colon + 1, &hints, &found) != 0)
        fail(where, "is no numeric address and port, as 127.0.0.1:9816 and [::1]:9816 are");
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr, found->ai_addrlen);
    const socklen_t size = found->ai_addrlen;
    freeaddrinfo(found);
    const int fd = listening(
        util::descriptor(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
        reinterpret_cast<const sockaddr *>(&address), size, where);
    warn_where_filtered(address, where);
    return fd;
}

/* Removes a socket file on which no process listens; any other file stays. */
static void remove_dead_socket(const sockaddr_un &address)
{
    struct stat status = {};
    if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return;
    const util::descriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(peer.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 &&
        errno == ECONNREFUSED)
        unlink(address.sun_path);
}

static int open_unix(const std::string &where)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = where.substr(unix_prefix.size());
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        fail(where, "the path must have 1 to 107 bytes, not " + std::to_string(path.size()));
    std::memcpy(address.sun_path, path.data(), path.size());
    remove_dead_socket(address);
    util::descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    /* umask makes the mode right from the start. There is no other thread yet. */
    const mode_t former = umask(0117);
    try {
        const int fd = listening(std::move(made), reinterpret_cast<const sockaddr *>(&address),
                                 sizeof(address), where);
        umask(former);
        return fd;
    } catch (...) {
        umask(former);
        throw;
    }
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
