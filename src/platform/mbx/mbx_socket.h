/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_socket - the messages on a control connection: greetings, and bytes that wake a side. No
   state.

   The connecting side says hello; the accepting side answers with a welcome, which carries the
   memory and the two bells, or with one of the two refusals. After that each side may send single
   bytes. Anything else ends the connection. */
#pragma once

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_closer.h"
#include "platform/mbx/mbx_fd.h"

#include <array>
#include <cstdint>
#include <vector>

/* The identity of a mailbox: a random number that is sent in greetings only. */
using mailbox_token = std::array<uint64_t, 2>;
/* All 0, with errno and after a line on standard error, where the system has no random numbers. */
mailbox_token make_token();

enum class greeting_kind : uint32_t {
    missing, /* nothing has come yet */
    hello,   /* of the connecting side */
    welcome, /* the answer; carries welcome_fds descriptors */
    known,   /* the answer when the two mailboxes are connected already, or are the same */
    refused, /* the answer when there can be no connection now */
    foreign, /* does not begin with the magic number of this version */
    invalid, /* anything else, including the end of the connection */
};

/* In this order: the memory, the accepting side's bell, the connecting side's bell. */
constexpr size_t welcome_fds = 3;

/* False, with errno, when it can't be sent at once. A welcome has welcome_fds descriptors at `fds`.
 */
bool send_greeting(int control, greeting_kind kind, const mailbox_token &token,
                   const int *fds = nullptr);

struct greeting {
    greeting_kind kind = greeting_kind::missing;
    mailbox_token token{};
    /* The descriptors that the message carried: welcome_fds for a welcome, none for another valid
       greeting. The caller passes those that it doesn't take to hang_up(). */
    std::vector<owned_fd> fds;
};

/* Reads one message. */
greeting receive_greeting(int control);

/* The bytes that are sent over a control connection after the greeting. */
enum class wake : unsigned char {
    room = 'r', /* the ring has room again for the backlog of the side that gets this byte */
    bell = 'b', /* a signal was sent by a side that can't ring */
};
void send_wake(int control, wake what);

enum class control_event { nothing, room, bell, end };

/* Reads one message. A message that carries descriptors counts as an `end`; `fds` has the
   descriptors then. */
control_event receive_wake(int control, std::vector<owned_fd> &fds);

/* Whether the system lets this process make the calls that carry signals and, for a mailbox with a
   name, those that accept connections. False, with errno; the first time with a line on standard
   error. */
bool can_carry(bool is_named);

/* Sets what receive_greeting() and receive_wake() need, for a new control connection, or for a
   listener, whose accepted connections take the setting over. */
void prepare_control(int control);
/* From now on the kernel refuses to carry descriptors to this socket, and to those that a listener
   accepts (since Linux 6.16; no effect before). */
void refuse_descriptors(int socket);
/* Refuses descriptors, and sets the smallest send buffer, which limits the bytes that are queued
   for a peer that does not read. */
void restrict_control(int control);

/* Ends a control connection for both sides, and returns at once. If the peer has passed
   descriptors, in `passed` or still unread, the closing thread closes them and the socket. */
void hang_up(owned_fd control, std::vector<owned_fd> passed, const peer_identity &peer,
             std::shared_ptr<entry> place = {});

/* Whether something that was sent lies unread at the other side. */
bool has_unread(int control);

/* Empty identity (process -1) when the kernel does not know it. */
peer_identity peer_of(int control);
