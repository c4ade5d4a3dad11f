/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_mailbox - the record of a mailbox. mbx_registry finds it, mbx_create makes and deletes it,
   mbx_peers has its connections, which mbx_accept and mbx_locate make.

   Locks, in the order in which they may be taken: the helper's (mbx_helper.h), registry_lock
   (mbx_registry.h), one mailbox's lock, then those of parting, accounts, closer and waker. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_connection.h"
#include "platform/mbx/mbx_inbox.h"
#include "platform/mbx/mbx_name.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

struct mailbox {
    /* 0 when deleted. */
    std::atomic<uint32_t> id{0};
    /* How many threads are about to put something into the inbox without the lock. */
    std::atomic<uint32_t> pins{0};

    std::mutex lock; /* guards all below */
    inbox in;
    std::unordered_map<uint32_t, connection> connections; /* by id */
    owned_name name;
    mailbox_token token{};
    uint32_t slot = 0; /* where it stands in the registry */
    uint32_t generation = 0;
    uint64_t born = 0;
    connection *sent_last = nullptr; /* null when it has ended */
    fan_out run;                     /* of what was sent since the last reception */
    fifo<block> watchers; /* monitors of this mailbox by others of the process; sender: which one */
};
