/* SPDX-License-Identifier: Apache-2.0 */
/* A peer is handed the sending end of a datagram pair and nothing else. It may do to that end
   whatever it likes: shut it down, connect it elsewhere, pass it on. None of that shows on the
   receiving end, which is readable exactly while a datagram waits in it, and every datagram is
   received as a signal. */
#include "platform/mbx/mbx_socket.h"

#include "platform/mbx/mbx.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

/* What the kernel takes for one receiver; it doubles the number for its own overhead. */
constexpr int send_buffer = 106496;
constexpr uint32_t greeting_magic = 0x3178626d;

struct greeting_record {
    uint32_t magic;
    greeting_kind kind;
    mailbox_token token;
};
static_assert(sizeof(greeting_record) == 24);

/* Room for exactly one descriptor: the kernel closes what more is passed. */
union one_descriptor {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
};
constexpr size_t one_descriptor_length = CMSG_LEN(sizeof(int));

int socket_option(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof(value);
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

/* Whether what a peer passed may be written to: one end of a datagram pair. A socket whose other
   end has an address belongs to a third party. The buffer is set anew, because its size would be
   the peer's choice and the memory ours. */
bool accept_sending_end(int tx)
{
    if (socket_option(tx, SO_DOMAIN) != AF_UNIX || socket_option(tx, SO_TYPE) != SOCK_DGRAM)
        return false;
    sockaddr_un peer;
    socklen_t length = sizeof(peer);
    if (getpeername(tx, reinterpret_cast<sockaddr *>(&peer), &length) != 0 ||
        length > sizeof(sa_family_t))
        return false;
    return setsockopt(tx, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof(send_buffer)) == 0;
}

/* What was passed is ours from here on, and closes itself if it is not wanted. */
owned_fd passed_descriptor(msghdr &message)
{
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (!header || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
        header->cmsg_len != one_descriptor_length)
        return {};
    int fd;
    std::memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    return owned_fd(fd);
}

} // namespace

void owned_fd::reset()
{
    if (fd_ >= 0)
        close(std::exchange(fd_, -1));
}

int milliseconds_until(time_point deadline)
{
    using namespace std::chrono;
    const auto left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT32_MAX));
}

datagram_pair make_datagram_pair()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0)
        return {};
    return {owned_fd(ends[0]), owned_fd(ends[1])};
}

/* Early in a system's life the call may be interrupted: then it is repeated. */
mailbox_token make_token()
{
    mailbox_token token{};
    while (getrandom(token.data(), sizeof(token), 0) != sizeof(token)) {
    }
    return token;
}

bool send_greeting(int control, greeting_kind kind, const mailbox_token &token, int tx)
{
    greeting_record record{greeting_magic, kind, token};
    iovec data{&record, sizeof(record)};
    one_descriptor room{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (tx >= 0) {
        message.msg_control = &room;
        message.msg_controllen = one_descriptor_length;
        room.header.cmsg_level = SOL_SOCKET;
        room.header.cmsg_type = SCM_RIGHTS;
        room.header.cmsg_len = one_descriptor_length;
        std::memcpy(CMSG_DATA(&room.header), &tx, sizeof(tx));
    }
    return sendmsg(control, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof(record);
}

std::optional<greeting> receive_greeting(int control)
{
    greeting_record record{};
    iovec data{&record, sizeof(record)};
    one_descriptor room{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = &room;
    message.msg_controllen = one_descriptor_length;
    const ssize_t length = recvmsg(control, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length < 0)
        return {};
    owned_fd tx = passed_descriptor(message);
    errno = EPROTO;
    if (length != sizeof(record) || (message.msg_flags & MSG_TRUNC) ||
        record.magic != greeting_magic)
        return {};
    if (record.kind != greeting_kind::known && !(tx && accept_sending_end(tx.get()))) {
        errno = EPROTO;
        return {};
    }
    return greeting{record.kind, record.token, std::move(tx)};
}

pid_t peer_process(int control)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    return getsockopt(control, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : -1;
}
