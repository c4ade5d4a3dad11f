/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: connect, send one request that asks for the connection's end, read until the end,
   and split the answer into status and body. */
#include "program/http_get.h"

#include "util/deadline.h"
#include "util/descriptor.h"
#include "util/local_socket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <netdb.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>

static constexpr size_t largest_answer = 16 << 20;

std::pair<std::string, std::string> split_address(const std::string &address)
{
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos)
        return {address, ""};
    std::string host = address.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    return {host, address.substr(colon + 1)};
}

/* Connects to ADDRESS:PORT without name resolution, or to unix:PATH; not open, with errno, on
   failure. */
static util::descriptor connect_to_address(const std::string &address,
                                           std::chrono::seconds patience)
{
    if (address.starts_with("unix:"))
        return util::connect_to(address.substr(5), SOCK_STREAM);
    const auto [host, port] = split_address(address);
    addrinfo hints{}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    errno = EINVAL;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0)
        return util::descriptor();
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> owned(found, freeaddrinfo);
    util::descriptor connection(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval wait = {.tv_sec = patience.count(), .tv_usec = 0}; /* of connect(), too */
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait));
    if (connect(connection.get(), found->ai_addr, found->ai_addrlen) != 0)
        connection.reset();
    return connection;
}

/* The address by which a listener on all addresses can be reached. */
static std::string reachable(const std::string &address)
{
    const auto [host, port] = split_address(address);
    if (host == "localhost" || host == "0.0.0.0" || host.empty())
        return "127.0.0.1:" + port;
    return host == "::" ? "[::1]:" + port : address;
}

/* All bytes that are received until the other side closes; nothing, with errno, after a timeout. */
static std::optional<std::string> receive_all(int connection, std::chrono::seconds patience)
{
    const util::deadline until(patience);
    std::string text;
    char part[4096];
    pollfd readable = {connection, POLLIN, 0};
    while (text.size() < largest_answer) {
        readable.revents = 0;
        if (poll(&readable, 1, until.poll_timeout()) == 0)
            errno = ETIMEDOUT;
        const ssize_t got = readable.revents != 0 ? recv(connection, part, sizeof(part), 0) : -1;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            return text;
        text.append(part, static_cast<size_t>(got));
    }
    errno = EMSGSIZE;
    return std::nullopt;
}

http_answer http_get(const std::string &given, const std::string &path,
                     std::chrono::seconds patience)
{
    const std::string address = reachable(given);
    const util::descriptor connection = connect_to_address(address, patience);
    if (!connection.is_open())
        return {0, std::strerror(errno)};
    /* The exporter answers only requests with a host name that it accepts, such as its own
       address. */
    const std::string request = fmt::format("GET {} HTTP/1.0\r\nHost: {}\r\n\r\n", path,
                                            address.starts_with("unix:") ? "localhost" : address);
    if (send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0)
        return {0, std::strerror(errno)};
    const auto text = receive_all(connection.get(), patience);
    if (!text)
        return {0, errno == ETIMEDOUT ? fmt::format("no answer in {} s", patience.count())
                                      : std::strerror(errno)};
    const size_t blank = text->find(' '), body = text->find("\r\n\r\n");
    if (!text->starts_with("HTTP/") || blank == std::string::npos || body == std::string::npos)
        return {0, "the answer is not HTTP"};
    return {static_cast<int>(std::strtol(text->c_str() + blank, nullptr, 10)),
            text->substr(body + 4)};
}
