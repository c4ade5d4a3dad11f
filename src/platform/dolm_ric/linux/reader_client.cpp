/* SPDX-License-Identifier: Apache-2.0 */
/* An answer that comes too late would be taken for that of the next packet, so a connection whose
   answer wasn't awaited is closed. */
#include "platform/dolm_ric/linux/reader_client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace linux_board
{

static constexpr int longest_pause_log2 = 5; /* in seconds */

static constexpr std::string_view inherited_prefix = "fd:";

/* The number in "fd:N", or -1. */
static int inherited_descriptor(std::string_view where)
{
    int number = -1;
    if (where.starts_with(inherited_prefix))
        std::from_chars(where.data() + inherited_prefix.size(), where.data() + where.size(),
                        number);
    return number;
}

reader_client::reader_client(std::string where, int stop_fd)
    : where_(std::move(where)), stop_fd_(stop_fd), fd_(inherited_descriptor(where_))
{
}

reader_client::~reader_client()
{
    disconnect();
}

void reader_client::disconnect()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

int reader_client::connect_reader()
{
    const auto now = std::chrono::steady_clock::now();
    if (fd_ >= 0)
        return 0;
    if (now < connect_from_)
        return connect_error_;
    connect_error_ = connect_now();
    if (fd_ < 0 || lost_ > 0)
        connect_from_ = now + std::chrono::seconds(1 << std::min(lost_, longest_pause_log2));
    return connect_error_;
}

int reader_client::connect_now()
{
    sockaddr_un address = {};
    if (where_.starts_with(inherited_prefix) || where_.size() >= sizeof(address.sun_path))
        return ENOTCONN;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, where_.data(), where_.size());
    fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ >= 0 &&
        connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
        return 0;
    const int error = errno == EACCES || errno == EPERM ? EACCES : ENOTCONN;
    disconnect();
    return error;
}

static std::array<reader_request, most_pieces> make_requests(std::span<const piece> pieces)
{
    std::array<reader_request, most_pieces> requests = {};
    std::transform(pieces.begin(), pieces.end(), requests.begin(), [](const piece &wanted) {
        return reader_request{.port = static_cast<uint16_t>(wanted.port),
                              .address = wanted.range.address,
                              .bank = wanted.range.bank,
                              .page = wanted.range.page,
                              .offset = wanted.range.offset,
                              .length = wanted.range.length,
                              .zero = 0};
    });
    return requests;
}

/* 0 when there is something to receive. */
static int await_answer(int fd, int stop_fd)
{
    pollfd wanted[] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    const auto limit = std::chrono::milliseconds(reader_client::patience).count();
    const int count = poll(wanted, std::size(wanted), static_cast<int>(limit));
    if (count == 0)
        return ETIMEDOUT;
    return wanted[1].revents != 0 ? ECANCELED : 0;
}

int reader_client::exchange(std::span<piece> pieces)
{
    if (const int error = connect_reader())
        return error;
    const auto requests = make_requests(pieces);
    const size_t size = pieces.size() * sizeof(reader_request);
    if (send(fd_, requests.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
        return ENOTCONN;
    if (const int error = await_answer(fd_, stop_fd_))
        return error;
    std::array<reader_answer, most_pieces> answers = {};
    const size_t expected = pieces.size() * sizeof(reader_answer);
    if (recv(fd_, answers.data(), sizeof(answers), 0) != static_cast<ssize_t>(expected))
        return ENOTCONN;
    for (size_t i = 0; i < pieces.size(); i++) {
        pieces[i].error = answers[i].error;
        pieces[i].interface = answers[i].interface;
        std::copy_n(answers[i].bytes, longest_piece, pieces[i].bytes.begin());
    }
    return 0;
}

void reader_client::read(std::span<piece> pieces)
{
    const int error = exchange(pieces);
    if (error == 0) {
        lost_ = 0;
        return;
    }
    if (fd_ >= 0) {
        lost_++;
        connect_error_ = ENOTCONN;
    }
    disconnect();
    for (piece &wanted : pieces)
        wanted.error = error;
}

} // namespace linux_board
