/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_closer - closes the descriptors that peers have passed to us, on a thread of its own. Any
   thread.

   The close of a descriptor can take as long as the process that passed it likes: a socket lingers,
   a file system of a process of its own does not answer. So nothing that was passed is closed by a
   thread that holds a lock or serves anybody. The same holds for a socket in whose queue something
   passed may still lie. */
#pragma once

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_fd.h"

#include <mutex>
#include <vector>

/* Beyond so many that wait, their processes get no more connections. */
constexpr size_t closing_at_most = 16;

/* The descriptors of one message, or of one connection, that are to be closed. It holds the
   connection's place in the accounts until that is done. */
struct to_close {
    std::vector<owned_fd> fds;
    peer_identity peer;
    std::shared_ptr<entry> place;
};

/* Takes it over and returns at once. */
void close_later(to_close &&what);

/* Whether too many wait, and something that this process has passed is among them. */
bool is_closing_too_many(const peer_identity &peer);

/* Held around a fork. */
extern std::mutex closer_lock;
/* In the child, which has copies of the descriptors only. */
void forget_closer();
