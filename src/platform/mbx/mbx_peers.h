/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_peers - the connections of a mailbox: made, written to, supervised, ended. The states of a
   connection, its events and the threads that act are a table in docs/architecture.md. The
   functions need the mailbox's lock held unless they say otherwise; those of the helper take it
   themselves. */
#pragma once

#include "platform/mbx/mbx_registry.h"

/* Adds a connection that consists of these parts, and returns its id. 0, with errno, on failure.
   Throws std::bad_alloc. */
uint32_t add_connection(mailbox &m, connection_parts &&parts);
/* The connection to the mailbox with that token in that process, or null. */
connection *find_peer(mailbox &m, const mailbox_token &token, const peer_identity &peer);
/* Ends the connection. Unread signals from the peer are kept for the owner, up to a limit
   (left_at_most in mbx_inbox.cpp), and are followed by the monitor's notice. Harmless if the
   connection has ended. */
void end_connection(mailbox &m, uint32_t id, ended_by who);
/* Sends the block to the peer of a connection of the mailbox `own`, and takes the block over. Takes
   the lock of that mailbox itself. */
void send_to_connection(uint32_t own, uint32_t receiver, block *b);
/* Monitors a peer for the mailbox `own`, whose lock it takes itself. Takes the notice over.
   Replaces an earlier monitor of the same peer. Returns the reference. */
uint32_t monitor_connection(uint32_t own, uint32_t target, block *notice);
/* Ends that monitor of the mailbox `own`, whose lock it takes itself. False if there is no such
   monitor. */
bool unmonitor_connection(uint32_t own, uint32_t reference);
/* Makes the helper release, after a while, the pages of rings that have been read. May be called
   with any lock held. */
void want_trim();
/* Ends connections while too much is held (mbx_account.h). To be called without any lock. */
void shed();
/* The helper's (mbx_helper.h). */
void handle_control(uint32_t slot, uint32_t id);
void handle_life(uint32_t slot, uint32_t id);
void handle_first_ring(uint32_t slot, uint32_t id);
time_point trim_in_time(time_point now);
/* Moves the backlogs of deleted mailboxes to the rings until the deadline, then ends all
   connections. To be called without any lock, when the helper has ended. */
void linger(time_point deadline);
