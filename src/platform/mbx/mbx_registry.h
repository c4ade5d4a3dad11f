/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_registry - the mailboxes of this process: their records and ids, how they are found, and what
   is sent within the process. A record is never freed, so one may be locked first and looked at
   then. Functions that a signal handler may call take no lock; they say so. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_connection.h"
#include "platform/mbx/mbx_inbox.h"
#include "platform/mbx/mbx_name.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

/* Locks, in the order in which they may be taken: the helper's (mbx_helper.h), registry_lock, one
   mailbox's lock, then those of parting, accounts, closer and waker. */
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

/* Set in the ids of our own mailboxes only. */
constexpr uint32_t mailbox_id_bit = 0x80000000u;
constexpr uint32_t mailboxes_at_most = 4096;
extern std::mutex registry_lock;

/* Null if there never was one. */
mailbox *mailbox_in_slot(uint32_t slot);
/* The mailbox of this process with that id, or null. Safe in a signal handler. It may be deleted at
   any time: lock it and look at the id again. */
mailbox *find_mailbox(uint32_t id);
/* Calls the function with the mailbox of this process with that id, locked. False if there is none.
 */
template <typename function>
bool with_mailbox(uint32_t id, function &&call)
{
    mailbox *m = find_mailbox(id);
    if (!m)
        return false;
    std::lock_guard hold(m->lock);
    if (m->id != id)
        return false;
    call(*m);
    return true;
}
/* The calling thread's mailbox, MBX_NO_MAILBOX if it has none. Safe in a signal handler. */
uint32_t own_mailbox();
/* The calling thread's mailbox, or the oldest of the process where the thread has none. Safe in a
   signal handler. */
uint32_t own_or_first_mailbox();
/* Calls the function with each record that was ever used. */
template <typename function>
void for_each_mailbox(function &&call)
{
    for (uint32_t slot = 0; mailbox *m = mailbox_in_slot(slot); slot++)
        call(*m);
}

/* Puts a block into a mailbox of this process and takes it over. Never waits. Safe in a signal
   handler. */
void push_local(uint32_t receiver, block *b, uint32_t sender);

/* An id for a connection. Counts up, so that one comes back after two thousand million connections
   at the earliest. The lowest numbers are left to other sources of signals. Any thread. */
uint32_t next_connection_id();

/* The functions below need registry_lock held. */

/* A record that nothing refers to any more, or a new one; null with ENOSPC. One that still has
   signals to hand over is not free. */
mailbox *free_record();
/* The id that the record is to have next. */
uint32_t next_mailbox_id(mailbox &m);
/* From now on others may find the mailbox; it is the calling thread's. */
void publish(mailbox &m, uint32_t id);
/* Takes the id away and waits until no thread is about to put something into the inbox. Returns the
   id. Without the mailbox's lock. */
uint32_t withdraw(mailbox &m);
/* withdraw() for a forked child, which has one thread and no mailbox. */
void withdraw_in_child(mailbox &m);
