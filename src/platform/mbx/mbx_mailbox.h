/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_mailbox - the mailboxes of this process: their registry (mbx_registry.cpp), their connections
   (mbx_peers.cpp), and how those are accepted (mbx_accept.cpp) and made (mbx_locate.cpp).

   Locks, in the order in which they may be taken: the helper's (mbx_helper.h), registry_lock, one
   mailbox's lock, then those of parting, accounts, closer and waker. A mailbox record is never
   freed, so one may be locked first and looked at then. Functions that a signal handler may call
   take no lock; they say so. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_connection.h"
#include "platform/mbx/mbx_inbox.h"
#include "platform/mbx/mbx_name.h"
#include "platform/mbx/mbx_table.h"

#include <atomic>
#include <mutex>

struct mailbox {
    /* 0 when deleted. */
    std::atomic<uint32_t> id{0};
    /* How many threads are about to put something into the inbox without the lock. */
    std::atomic<uint32_t> pins{0};

    std::mutex lock; /* guards all below */
    inbox in;
    id_table<connection> connections;
    owned_name name;
    mailbox_token token{};
    uint32_t slot = 0; /* where it stands in the registry */
    uint32_t generation = 0;
    uint64_t born = 0;
    uint32_t sent_last = 0;
    fan_out run;          /* of what was sent since the last reception */
    block_queue watchers; /* monitors of this mailbox by others of the process; sender: which one */
};

constexpr uint32_t mailboxes_at_most = 4096;
extern std::mutex registry_lock;

/* The kinds of descriptors that the helper watches for mailboxes. */
enum watch_kind : size_t {
    WATCH_LISTENER = 1, /* slot and id: of the mailbox */
    WATCH_GREETING,     /* id: of a connection that has not greeted yet */
    WATCH_CONTROL,      /* slot: of the mailbox; id: of the connection */
    WATCH_LIFE,         /* the same */
    WATCH_FIRST_RING,   /* the same */
    WATCH_PARTING,      /* id: of a connection that has ended here */
};

/* Registers the functions that the helper calls, before it starts. */
void set_up_peers();
void set_up_accepting();
/* Without any lock: makes what the next connection consists of, so that it stands sooner. */
void prepare_to_accept();
/* Without a helper: drops the connections that have not greeted. In a forked child they are the
   parent's, and only the copies are closed. */
void end_accepting(bool is_child);

/* The record in a slot, null if there never was one. */
mailbox *mailbox_in_slot(uint32_t slot);
/* The mailbox of this process with that id, or null. Safe in a signal handler. It may be deleted at
   any time: lock it and look at the id again. */
mailbox *find_mailbox(uint32_t id);
constexpr uint32_t slot_of(uint32_t mailbox_id)
{
    return mailbox_id % mailboxes_at_most;
}
/* The calling thread's mailbox, MBX_NO_MAILBOX if it has none. Safe in a signal handler. */
uint32_t own_mailbox();
/* The same, but the oldest of the process for a thread without one. Safe in a signal handler. */
uint32_t own_or_first_mailbox();
/* Calls the function with each record that was ever used. */
template <typename function>
void for_each_mailbox(function &&call)
{
    for (uint32_t slot = 0; mailbox *m = mailbox_in_slot(slot); slot++)
        call(*m);
}

/* With registry_lock held. The first returns an id, or MBX_NO_MAILBOX with errno; the second leaves
   only connections in which something waits for its receiver. */
uint32_t create_mailbox(const char *name);
void delete_mailbox(mailbox &m);
/* In a forked child: closes everything and forgets it. */
void forget_mailbox(mailbox &m);

/* Puts a block into a mailbox of this process and takes it over. Never waits. Safe in a signal
   handler. */
void push_local(uint32_t receiver, block *b, uint32_t sender);

/* As mbx_locate, for the mailbox whose id is `own`. Without any lock. Throws std::bad_alloc. Stands
   in mbx_locate.cpp. */
uint32_t locate(mailbox &m, uint32_t own, const char *name);

/* The functions below are in mbx_peers.cpp, and need the mailbox's lock held unless they say
   otherwise. */

/* Makes a connection from its parts and returns its id. 0 with errno on failure. One that we have
   not located wants watch_life_of() soon. */
uint32_t add_connection(mailbox &m, connection_parts &&parts);
/* The connection to that mailbox of that process, or null. */
connection *find_peer(mailbox &m, const mailbox_token &token, const peer_identity &peer);
/* Ends it. The peer's unread signals are kept for the owner, followed by the monitor's notice. */
void end_connection(mailbox &m, uint32_t id);
/* Takes the lock itself. Takes the block over. `own` is the id that the mailbox must have. */
void send_to_connection(mailbox &m, uint32_t own, uint32_t receiver, block *b);
/* Takes the lock itself. Replaces an earlier monitor of the same peer. Returns the reference. */
uint32_t monitor_connection(mailbox &m, uint32_t own, uint32_t target, block *notice);
/* Takes the lock itself. False if there is no such monitor. */
bool unmonitor_connection(mailbox &m, uint32_t own, uint32_t reference);
/* Takes the lock itself. Lets the end of the peer's process end the connection, too. */
void watch_life_of(uint32_t slot, uint32_t id);
/* Any lock. Pages of rings that a burst needed are unmapped after it. */
void want_trim();
/* Without any lock: ends connections while too much is held (mbx_account.h). */
void shed();
/* Without any lock: hands on what still waits in deleted mailboxes, until the deadline. */
void linger(time_point deadline);
