/* SPDX-License-Identifier: Apache-2.0 */
/* raw_peer - a peer of a mailbox that uses the modules of libmbx but keeps none of its rules: for
   tests that do to the shared memory, the bells and the control connection what a hostile process
   could do. */
#pragma once

#include "platform/mbx/mbx_record.h"
#include "platform/mbx/mbx_socket.h"
#include "util/local_socket.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>

/* The timeout for an event that must happen; the machine may be busy. */
inline constexpr int patience_ms = 20000;

/* Whether the descriptor becomes readable in time; an interrupted wait starts again. */
inline bool is_readable(int fd, int timeout_ms = patience_ms)
{
    pollfd wanted = {fd, POLLIN, 0};
    int count;
    do
        count = poll(&wanted, 1, timeout_ms);
    while (count == -1 && errno == EINTR);
    return count == 1;
}

/* Passes up to eight descriptors with a message of one byte. Returns the result of sendmsg. */
inline ssize_t pass_fds(int socket, std::initializer_list<int> fds)
{
    union {
        cmsghdr header;
        char room[CMSG_SPACE(8 * sizeof(int))];
    } buffer{};
    char byte = 'r';
    iovec data{&byte, 1};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = &buffer;
    message.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
    buffer.header.cmsg_level = SOL_SOCKET;
    buffer.header.cmsg_type = SCM_RIGHTS;
    buffer.header.cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    std::memcpy(CMSG_DATA(&buffer.header), fds.begin(), fds.size() * sizeof(int));
    return sendmsg(socket, &message, MSG_NOSIGNAL);
}

/* Receives the next signal, or null. The caller releases the block. */
inline block *receive_block(record_receiver &in)
{
    bool asks = false;
    return in.pop(asks);
}

struct raw_peer {
    owned_fd control;
    std::shared_ptr<mapped_area> area;
    record_sender out;
    record_receiver in;
    owned_fd far_bell;  /* the peer rings it for the mailbox */
    owned_fd near_bell; /* the mailbox rings it for the peer */
    greeting answer;

    /* Connects to the socket at that path. */
    explicit raw_peer(const std::string &path) : control(util::connect_to(path, SOCK_SEQPACKET))
    {
        if (!control)
            throw std::runtime_error("cannot connect to " + path);
        prepare_control(control.get());
    }
    void say_hello(const mailbox_token &token = make_token())
    {
        send_greeting(control.get(), greeting_kind::hello, token);
    }
    /* Waits for the answer to the hello. Returns whether the answer is a welcome. */
    bool take_answer()
    {
        if (!is_readable(control.get()))
            throw std::runtime_error("no answer to the greeting");
        answer = receive_greeting(control.get());
        if (answer.kind != greeting_kind::welcome)
            return false;
        area = mapped_area::map(answer.fds[0].get());
        out = record_sender(area->ring(0));
        in = record_receiver(area->ring(1));
        far_bell = std::move(answer.fds[1]);
        near_bell = std::move(answer.fds[2]);
        return true;
    }
    bool greet()
    {
        say_hello();
        return take_answer();
    }
    /* Puts the signal into the ring, and wakes the peer if it waits. */
    record_sender::outcome send_signal(const void *signal, uint32_t size)
    {
        const record_sender::outcome result = out.push(signal, size);
        if (result == record_sender::outcome::to_ring)
            ring();
        return result;
    }
    void ring()
    {
        ring_bell(far_bell.get());
    }
    /* The words of the ring to the mailbox, and of the ring from it. */
    ring_words<process_atomics> &to_mailbox()
    {
        return *area->ring(0).words;
    }
    ring_words<process_atomics> &from_mailbox()
    {
        return *area->ring(1).words;
    }
    ssize_t pass(std::initializer_list<int> fds)
    {
        return pass_fds(control.get(), fds);
    }
};
