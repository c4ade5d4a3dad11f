/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_mailbox - the mailboxes of this process and their connections.

   Locks, in the order in which they may be taken: the helper's (mbx_helper.h), registry_lock, one
   mailbox's lock. A mailbox record is never freed, so one may be locked first and looked at then.
   What a signal handler may call takes no lock at all; it says so. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_name.h"
#include "platform/mbx/mbx_socket.h"
#include "platform/mbx/mbx_table.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <vector>

/* Where signals come from: a connection by its id, or one of these. */
constexpr uint32_t source_local = 0;  /* sent within the process */
constexpr uint32_t source_memory = 1; /* what waits in memory: set aside, or read ahead */

struct receive_buffers;
struct receive_buffers_deleter {
    void operator()(receive_buffers *buffers) const;
};

struct turn {
    uint64_t served;
    uint32_t source;
};

struct mailbox {
    /* 0 when deleted. */
    std::atomic<uint32_t> id{0};
    /* How many threads are about to put something on `pushed`. */
    std::atomic<uint32_t> pins{0};
    /* Sent within the process, the latest first; each has one count in local_event. */
    std::atomic<block *> pushed{nullptr};

    std::mutex lock; /* guards all below */
    uint32_t generation = 0;
    uint64_t born = 0;
    mailbox_token token{};
    owned_name name;
    owned_fd poll;         /* an epoll over the two events and every rx */
    owned_fd local_event;  /* a semaphore */
    owned_fd memory_event; /* readable while in_memory is not 0 */
    connection_table connections;
    uint32_t sent_last = 0;
    block_queue watchers; /* monitors of this mailbox by others of the process; sender: who */

    /* What is received from. */
    block_queue local;     /* taken off `pushed`, the oldest first */
    block_queue set_aside; /* passed over by a filter */
    size_t in_memory = 0;  /* signals set aside or read ahead */
    std::deque<uint32_t> ahead;
    std::vector<epoll_event> ready; /* room for all that one look can find */
    std::vector<turn> turns;        /* what it found */
    size_t turn_next = 0;
    uint64_t looks = 0;
    uint64_t clock = 0; /* counts receptions */
    uint64_t local_served = 0;
    uint32_t last = 0;   /* the connection that had the latest turn */
    uint32_t credit = 0; /* signals of the only connection before the next look for others */
    uint32_t looked = 0; /* looks until such credit is given again */
    std::unique_ptr<receive_buffers, receive_buffers_deleter> buffers;
};

constexpr uint32_t mailboxes_at_most = 4096;
extern std::mutex registry_lock;

/* The record in a slot, null if there never was one. */
mailbox *mailbox_in_slot(uint32_t slot);
/* The mailbox of this process with that id, or null. Safe in a signal handler. It may be deleted at
   any time: whoever locks it looks at the id again. */
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
   only what lingers: connections with signals that the kernel has not taken yet. */
uint32_t create_mailbox(const char *name);
void delete_mailbox(mailbox &m);
/* In a forked child, with all locks held: closes everything and forgets it. */
void forget_mailbox(mailbox &m);

/* Puts a block into a mailbox of this process and takes it over. Never waits. Safe in a signal
   handler. */
void push_local(uint32_t receiver, block *b, uint32_t sender);

/* mbx_receive.cpp */
/* With the lock held, before a connection is added: room for a look that finds them all. */
void make_room_for_turns(mailbox &m);
mbx_signal *receive_signal(mailbox &m, uint32_t id, const uint32_t *filter, int timeout_ms,
                           uint32_t sender);
/* With the mailbox's lock held: counts signals into memory and out of it, and keeps memory_event
   to match. */
void count_into_memory(mailbox &m, size_t signals);
void count_out_of_memory(mailbox &m, size_t signals);
/* With the lock held: reads everything from a receiving end that is to be closed. */
void read_all(mailbox &m, connection &c);
/* With the lock held: makes what was read ahead known to the receiving side. */
void queue_ahead(mailbox &m, connection &c, block *b);

/* mbx_connection.cpp, with the mailbox's lock held unless said otherwise. */
/* Makes a connection from its parts, and puts rx into the mailbox's epoll. Null with errno. */
connection *add_connection(mailbox &m, owned_fd control, owned_fd rx, owned_fd tx,
                           const mailbox_token &peer);
/* The living connection to that mailbox of that process, or null. */
connection *find_peer(mailbox &m, const mailbox_token &peer, pid_t process);
/* Closes it. What the kernel has taken is kept for the owner, then come the monitors' notices. The
   record is gone when there is nothing of both. */
void end_connection(mailbox &m, connection &c);
/* In a forked child: closes them all and leaves the epolls alone, which are the parent's too. */
void forget_connections(mailbox &m);
/* Sends what waits, at most so many signals. */
void flush_connection(mailbox &m, connection &c, int at_most);
/* Takes the lock itself. Takes the block over. */
void send_to_connection(mailbox &m, uint32_t id, uint32_t receiver, block *b);
/* Takes the lock itself. The blocks are the notices. */
uint32_t monitor_connection(mailbox &m, uint32_t id, uint32_t target, block *notice);
bool unmonitor_connection(mailbox &m, uint32_t id, uint32_t reference);
