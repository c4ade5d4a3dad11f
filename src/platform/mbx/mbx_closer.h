/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_closer - closes the descriptors that peers have passed to us, on a thread of its own. Any
   thread.

   The close of a descriptor can take as long as the process that passed it likes: a socket lingers,
   or a file system that another process serves does not answer. So no thread that holds a lock or
   serves other peers closes a descriptor that was passed. The same holds for a socket in whose
   queue such a descriptor may still lie. */
#pragma once

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_fd.h"

#include <mutex>
#include <vector>

/* When more than so many wait, the processes that have passed them get no more connections. */
constexpr size_t closing_at_most = 16;

/* The descriptors of one message, or of one connection, that are to be closed. The connection's
   entry in the accounts is held until they are closed. */
struct to_close {
    std::vector<owned_fd> fds;
    peer_identity peer;
    std::shared_ptr<entry> place;
};

/* Takes the descriptors over and returns at once. */
void close_later(to_close &&what);

/* Whether more than closing_at_most wait, and some that this process has passed are among them. */
bool is_closing_too_many(const peer_identity &peer);

/* Held around a fork. */
extern std::mutex closer_lock;
/* In a forked child, which has only copies of the descriptors. */
void forget_closer();
