/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_registry - the table of this process's mailboxes: their records and ids, the look-up of a
   mailbox by its id, and sends from one mailbox of the process to another. A record is never freed,
   so a caller may lock it before it checks whether the record is in use. A function that a signal
   handler may call takes no lock; its comment says so. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_connection.h"
#include "platform/mbx/mbx_inbox.h"
#include "platform/mbx/mbx_name.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

/* The order of locks. A thread that holds a lock may take only locks that come later in this list:
   helper_lock (mbx_helper.h), registry_lock, the lock of one mailbox, and then one of parting_lock,
   accounts_lock, closer_lock and waker_lock. A fork takes all of them (mbx_api.cpp). */
struct mailbox {
    /* 0 when deleted. */
    std::atomic<uint32_t> id{0};
    /* Number of threads that are putting a block into the inbox, which they do without the lock. */
    std::atomic<uint32_t> pins{0};

    std::mutex lock; /* guards the members below; a token, once set, is read without it */
    inbox in;
    std::unordered_map<uint32_t, connection> connections; /* by id */
    owned_name name;
    mailbox_token token{};
    uint32_t slot = 0; /* index of this record in the registry's table, never changed */
    uint32_t generation = 0;
    uint64_t born = 0;
    connection *sent_last = nullptr; /* connection of the latest send; null when it has ended */
    fan_out run;                     /* the sends since the last reception */
    /* The notices of this process's mailboxes that monitor this mailbox; the sender of each is the
       monitoring mailbox. */
    fifo<block> watchers;
};

/* Set in the ids of our own mailboxes only. */
constexpr uint32_t mailbox_id_bit = 0x80000000u;
constexpr uint32_t mailboxes_at_most = 4096;
extern std::mutex registry_lock;

/* The record with that index in the table; null if it was never used. */
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

/* Puts a block into the inbox of a mailbox of this process, or frees it when there is no such
   mailbox. Never waits. Safe in a signal handler. */
void push_local(uint32_t receiver, block *b, uint32_t sender);

/* A new id for a connection. Ids count up, so that the same one comes back after two thousand
   million connections at the earliest. The lowest ids are left to other sources of signals. Any
   thread. */
uint32_t next_connection_id();

/* The functions below need registry_lock held, except withdraw_in_child(). */

/* A record that no mailbox uses, or a new one; null, with ENOSPC, when mailboxes_at_most are in
   use. A deleted mailbox uses its record as long as it has signals to hand over. */
mailbox *free_record();
/* The id for the next mailbox in this record. */
uint32_t next_mailbox_id(mailbox &m);
/* Enters the id, by which other threads can find the mailbox from now on, and makes it the calling
   thread's mailbox. */
void publish(mailbox &m, uint32_t id);
/* Removes the id, so that no thread finds the mailbox any more, and waits until the threads that
   have it pinned have pushed their blocks. Returns the id. The caller must not hold the mailbox's
   lock. */
uint32_t withdraw(mailbox &m);
/* withdraw() for a forked child, which has one thread and no mailbox. */
void withdraw_in_child(mailbox &m);
