/* SPDX-License-Identifier: Apache-2.0 */
/* The board's protocol is text in packets: one packet is a request, one its answer. The socket
   keeps packets whole, so the code needs no reassembly. */
#include "tools/teskboard/board_client.h"

#include "platform/dolm_ric/simulator/control_protocol.h"
#include "program/exit_code.h"
#include "program/socket_group.h"
#include "util/local_socket.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace teskboard
{

/* The remedy depends on the error: nothing listens, or a permission is missing. */
static std::string what_to_do(int error, const std::string &path)
{
    if (error == EACCES || error == EPERM)
        return fmt::format("no access to the board at {}: become a member of group {}, or use sudo",
                           path, socket_group(path));
    return fmt::format("no board at {} ({}): start tesk-server first, or name its socket with "
                       "--socket",
                       path, std::strerror(error));
}

/* The first line, "ok", has no value and is dropped. */
static answer split_answer(std::string_view text)
{
    answer lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const size_t equals = line.find('=');
        if (equals != line.npos)
            lines.emplace_back(line.substr(0, equals), line.substr(equals + 1));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return lines;
}

std::string_view value_of(const answer &lines, std::string_view key)
{
    for (const auto &[known, value] : lines)
        if (known == key)
            return value;
    return {};
}

board_client::board_client(const std::string &path)
    : socket_(util::connect_to(path, SOCK_SEQPACKET))
{
    if (!socket_.is_open() && errno == ENAMETOOLONG)
        throw tool_error(exit_code::usage,
                         fmt::format("{}: the path of a socket has at most {} bytes", path,
                                     sizeof(sockaddr_un::sun_path) - 1));
    if (!socket_.is_open())
        throw tool_error(exit_code::no_server, what_to_do(errno, path));
}

answer board_client::ask(const std::string &request, std::chrono::duration<double> deadline)
{
    if (send(socket_.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0)
        throw tool_error(exit_code::no_server,
                         fmt::format("the board takes no request: {}", std::strerror(errno)));
    /* The answer comes in one packet, so that one wait is enough. */
    pollfd readable = {.fd = socket_.get(), .events = POLLIN, .revents = 0};
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(deadline).count();
    if (poll(&readable, 1, static_cast<int>(milliseconds)) == 0)
        throw tool_error(
            exit_code::no_answer,
            fmt::format("no answer within {:g} s: allow more with --timeout", deadline.count()));
    std::string text(DOLM_RIC_BOARD_PACKET_MAX, '\0');
    const ssize_t length = recv(socket_.get(), text.data(), text.size(), 0);
    if (length <= 0)
        throw tool_error(exit_code::no_server,
                         "the board has closed the connection: tesk-server has probably ended");
    text.resize(static_cast<size_t>(length));
    if (text.starts_with("error "))
        throw tool_error(exit_code::rejected, text.substr(6));
    return split_answer(text);
}

} // namespace teskboard
