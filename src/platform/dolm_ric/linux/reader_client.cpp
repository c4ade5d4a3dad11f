/* SPDX-License-Identifier: Apache-2.0 */
/* A late answer would be taken for that of the next packet, so a connection is closed if its answer
   didn't come in time. */
#include "platform/dolm_ric/linux/reader_client.h"

#include "util/escape.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace linux_board
{

/* By then systemd has started another reader in place of the one that was asked to end. */
static constexpr std::chrono::seconds restart_patience{5};

/* The pause before the next try, after so many failures in a row. */
static std::chrono::seconds pause_after(int failures)
{
    constexpr int longest_log2 = 5;
    return std::chrono::seconds(1 << std::min(failures, longest_log2));
}

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
    : where_(std::move(where)), stop_fd_(stop_fd), connection_(inherited_descriptor(where_))
{
}

reader_client::~reader_client()
{
    disconnect();
}

void reader_client::disconnect()
{
    connection_.reset();
    is_agreed_ = false;
}

void reader_client::expect(uint64_t configuration)
{
    expected_ = configuration;
    is_agreed_ = false;
    strangers_ = 0;
}

int reader_client::connect_reader()
{
    const auto now = std::chrono::steady_clock::now();
    if (connection_)
        return 0;
    if (now < connect_from_)
        return connect_error_;
    connect_error_ = connect_now();
    if (!connection_ || lost_ > 0)
        connect_from_ = now + pause_after(lost_);
    return connect_error_;
}

int reader_client::connect_now()
{
    sockaddr_un address = {};
    if (where_.starts_with(inherited_prefix) || where_.size() >= sizeof(address.sun_path))
        return ENOTCONN;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, where_.data(), where_.size());
    connection_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connection_ && connect(connection_.get(), reinterpret_cast<const sockaddr *>(&address),
                               sizeof(address)) == 0)
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

/* Returns 0 when an answer can be received. */
static int await_answer(int fd, int stop_fd)
{
    pollfd wanted[] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    const auto limit = std::chrono::milliseconds(reader_client::patience).count();
    const int count = poll(wanted, std::size(wanted), static_cast<int>(limit));
    if (count == 0)
        return ETIMEDOUT;
    return wanted[1].revents != 0 ? ECANCELED : 0;
}

/* `answers` and `requests` have the same length. */
int reader_client::talk(std::span<const reader_request> requests, std::span<reader_answer> answers)
{
    const size_t size = requests.size_bytes();
    if (send(connection_.get(), requests.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
        return ENOTCONN;
    if (const int error = await_answer(connection_.get(), stop_fd_))
        return error;
    const ssize_t length = recv(connection_.get(), answers.data(), answers.size_bytes(), MSG_TRUNC);
    return length == static_cast<ssize_t>(answers.size_bytes()) ? 0 : ENOTCONN;
}

int reader_client::ask_itself(reader_question question, uint64_t &checksum)
{
    const reader_request request = {.port = 0,
                                    .address = READER_ITSELF,
                                    .bank = 0,
                                    .page = 0,
                                    .offset = static_cast<uint8_t>(question),
                                    .length = READER_CHECKSUM_LENGTH,
                                    .zero = 0};
    reader_answer answer = {};
    const int error = talk({&request, 1}, {&answer, 1});
    memcpy(&checksum, answer.bytes, sizeof(checksum));
    return error == 0 && answer.error != 0 ? ENOTCONN : error;
}

/* While the configuration is being replaced, a reader may still have the previous one. When three
   readers in a row have another configuration, a line says that the two sides read different
   files. */
int reader_client::agree()
{
    uint64_t theirs = 0;
    if (const int error = ask_itself(READER_CONFIGURATION, theirs))
        return error;
    is_agreed_ = theirs == expected_;
    if (is_agreed_) {
        strangers_ = 0;
        return 0;
    }
    const bool is_inherited = where_.starts_with(inherited_prefix);
    if (++strangers_ == (is_inherited ? 1 : 3))
        fprintf(stderr,
                "libdolm_ric: no module is read: the configuration of tesk-module-reader is "
                "another than %s%s\n",
                escape(port_config_path()).c_str(),
                is_inherited ? "; start both anew" : "; DOLM_RIC_PORTS must be the same for both");
    ask_itself(READER_END, theirs);
    const auto now = std::chrono::steady_clock::now();
    connect_from_ = now + pause_after(strangers_ - 1);
    quiet_until_ = connect_from_ + restart_patience;
    return ESTALE;
}

int reader_client::exchange(std::span<piece> pieces)
{
    if (const int error = connect_reader())
        return error;
    if (!is_agreed_)
        if (const int error = agree())
            return error;
    const auto requests = make_requests(pieces);
    std::array<reader_answer, most_pieces> answers = {};
    if (const int error =
            talk(std::span(requests).first(pieces.size()), std::span(answers).first(pieces.size())))
        return error;
    for (size_t i = 0; i < pieces.size(); i++) {
        pieces[i].error = answers[i].error;
        pieces[i].interface = answers[i].interface;
        std::copy_n(answers[i].bytes, longest_piece, pieces[i].bytes.begin());
    }
    return 0;
}

/* A reader that is ending refuses connections: until another one has started, the error is
   ESTALE. */
void reader_client::read(std::span<piece> pieces)
{
    int error = exchange(pieces);
    if (error == 0) {
        lost_ = 0;
        return;
    }
    if (error == ENOTCONN && std::chrono::steady_clock::now() < quiet_until_)
        error = ESTALE;
    if (connection_) {
        lost_ += error == ESTALE ? 0 : 1;
        connect_error_ = error == ESTALE ? ESTALE : ENOTCONN;
    }
    disconnect();
    for (piece &wanted : pieces)
        wanted.error = error;
}

} // namespace linux_board
