/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_closer - closes the descriptors that peers have passed to us, on a thread of its own. Any
   thread.

   The close of a descriptor can take as long as the process that passed it wants: a socket lingers,
   or a file system that another process serves does not answer. So a thread that holds a lock or
   serves other peers closes such a descriptor only if it was checked (is_area_memory(),
   may_be_bell()). The same holds for a socket in whose queue such a descriptor may still lie. */
#pragma once

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_fd.h"

#include <mutex>
#include <vector>

/* The limit of queued items. Above it the processes that have passed the descriptors get no more
   connections. */
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

/* Whether more than closing_at_most items are queued, and one of them is of the peer's process. */
bool is_closing_too_many(const peer_identity &peer);

/* Held around a fork. */
extern std::mutex closer_lock;
/* For a forked child, which has only copies of the descriptors: forgets the queue. */
void forget_closer();
