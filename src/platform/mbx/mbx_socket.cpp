/* SPDX-License-Identifier: Apache-2.0 */
/* Every receive has room for all the descriptors that one message can carry, so that the kernel
   never closes any inside the call. */
#include "platform/mbx/mbx_socket.h"

#include "util/calls.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

static constexpr size_t fds_at_most = 253; /* in one message */

namespace
{

struct greeting_record {
    uint32_t magic;
    greeting_kind kind;
    mailbox_token token;
};
static_assert(sizeof(greeting_record) == 24);

union fd_room {
    cmsghdr header;
    char bytes[CMSG_SPACE(fds_at_most * sizeof(int)) + CMSG_SPACE(sizeof(ucred))];
};

} // namespace

static constexpr uint32_t greeting_magic = 0x3278626d; /* "mbx2" */
static constexpr int control_send_buffer = 4608;       /* the least that the kernel gives */

/* If there is no memory for them, the descriptors are closed here. */
static void take_fds(const unsigned char *data, size_t count, std::vector<owned_fd> &fds)
{
    std::array<int, fds_at_most> numbers;
    std::memcpy(numbers.data(), data, count * sizeof(int));
    try {
        fds.reserve(fds.size() + count);
    } catch (const std::bad_alloc &) {
        std::for_each_n(numbers.begin(), count, close);
        throw;
    }
    for (size_t i = 0; i < count; i++)
        fds.emplace_back(numbers[i]);
}

/* Returns as recvmsg does. `is_message` distinguishes an empty message from the end of the
   connection: a message has control data at least, the sender's credentials (prepare_control). */
static ssize_t receive(int control, void *data, size_t size, std::vector<owned_fd> &fds,
                       bool &is_message)
{
    fd_room room;
    iovec into{data, size};
    msghdr message{};
    message.msg_iov = &into;
    message.msg_iovlen = 1;
    message.msg_control = &room;
    message.msg_controllen = sizeof(room);
    ssize_t length;
    do {
        length = recvmsg(control, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    is_message = length > 0 || (length == 0 && message.msg_controllen > 0);
    if (length < 0)
        return length;
    for (cmsghdr *header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header))
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS)
            take_fds(CMSG_DATA(header), (header->cmsg_len - CMSG_LEN(0)) / sizeof(int), fds);
    if (message.msg_flags & MSG_TRUNC)
        return static_cast<ssize_t>(size) + 1;
    return length;
}

/* While the system starts, the call may be interrupted: then it is repeated. A sandbox may refuse
   the call, or lack the device, but hardly both. */
mailbox_token make_token()
{
    mailbox_token token{};
    ssize_t length;
    do {
        length = getrandom(token.data(), sizeof(token), 0);
    } while (length < 0 && errno == EINTR);
    if (length == sizeof(token))
        return token;
    const int error = errno;
    const owned_fd device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (device && read(device.get(), token.data(), sizeof(token)) == sizeof(token))
        return token;
    fprintf(stderr,
            "libmbx: the system gives no random numbers (getrandom: %s), which mailboxes "
            "need: allow that call\n",
            strerror(error));
    errno = error;
    return {};
}

bool send_greeting(int control, greeting_kind kind, const mailbox_token &token, const int *fds)
{
    greeting_record record{greeting_magic, kind, token};
    iovec data{&record, sizeof(record)};
    fd_room room{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (fds) {
        message.msg_control = &room;
        message.msg_controllen = CMSG_SPACE(welcome_fds * sizeof(int));
        room.header.cmsg_level = SOL_SOCKET;
        room.header.cmsg_type = SCM_RIGHTS;
        room.header.cmsg_len = CMSG_LEN(welcome_fds * sizeof(int));
        std::memcpy(CMSG_DATA(&room.header), fds, welcome_fds * sizeof(int));
    }
    return sendmsg(control, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof(record);
}

greeting receive_greeting(int control)
{
    greeting got;
    greeting_record record{};
    bool is_message;
    const ssize_t length = receive(control, &record, sizeof(record), got.fds, is_message);
    if (length < 0 && errno == EAGAIN)
        return got;
    const bool is_known =
        record.kind >= greeting_kind::hello && record.kind <= greeting_kind::refused;
    got.kind = greeting_kind::invalid;
    if (is_message && record.magic != greeting_magic)
        got.kind = greeting_kind::foreign;
    else if (length == sizeof(record) && is_known &&
             got.fds.size() == (record.kind == greeting_kind::welcome ? welcome_fds : 0))
        got.kind = record.kind;
    got.token = record.token;
    return got;
}

/* If the send buffer is full, the byte is dropped: the peer has unread bytes that wake it. */
void send_wake(int control, wake what)
{
    const errno_keeper keeper;
    send(control, &what, sizeof(what), MSG_DONTWAIT | MSG_NOSIGNAL);
}

control_event receive_wake(int control, std::vector<owned_fd> &fds)
{
    wake what{};
    bool is_message;
    const ssize_t length = receive(control, &what, sizeof(what), fds, is_message);
    if (length < 0 && errno == EAGAIN)
        return control_event::nothing;
    if (length != 1 || !fds.empty() || (what != wake::room && what != wake::bell))
        return control_event::end;
    return what == wake::room ? control_event::room : control_event::bell;
}

bool can_carry(bool is_named)
{
    const char *call = util::refused_call(is_named);
    if (!call)
        return true;
    const errno_keeper keeper;
    static std::atomic<bool> said;
    if (!said.exchange(true))
        fprintf(stderr,
                "libmbx: the system refuses %s (%s), without which no signal is carried: allow "
                "that call\n",
                call, strerror(errno));
    return false;
}

void prepare_control(int control)
{
    const int yes = 1;
    setsockopt(control, SOL_SOCKET, SO_PASSCRED, &yes, sizeof(yes));
}

void refuse_descriptors(int socket)
{
    const int no = 0;
    setsockopt(socket, SOL_SOCKET, SO_PASSRIGHTS, &no, sizeof(no));
}

void restrict_control(int control)
{
    refuse_descriptors(control);
    setsockopt(control, SOL_SOCKET, SO_SNDBUF, &control_send_buffer, sizeof(control_send_buffer));
}

/* After the shutdown nothing more can be queued in the connection. Its queue is read for
   descriptors that were passed, because the close of a socket would close those here. */
void hang_up(owned_fd control, std::vector<owned_fd> passed, const peer_identity &peer,
             std::shared_ptr<entry> place)
{
    shutdown(control.get(), SHUT_RDWR);
    bool is_message = true;
    while (is_message && passed.empty()) {
        unsigned char byte;
        receive(control.get(), &byte, sizeof(byte), passed, is_message);
    }
    if (passed.empty())
        return;
    passed.push_back(std::move(control));
    close_later({std::move(passed), peer, std::move(place)});
}

bool has_unread(int control)
{
    int bytes = 0;
    return ioctl(control, SIOCOUTQ, &bytes) == 0 && bytes > 0;
}

peer_identity peer_of(int control)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(control, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return {};
    return {peer.pid, peer.uid};
}
