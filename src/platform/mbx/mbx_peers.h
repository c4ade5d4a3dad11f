/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_peers - the connections of a mailbox: made, written to, supervised, ended. The states of a
   connection, its events and the threads that act are a table in docs/architecture.md. The
   functions need the mailbox's lock held unless they say otherwise. */
#pragma once

#include "platform/mbx/mbx_registry.h"

/* Makes a connection from its parts and returns its id. 0 with errno on failure. Throws
   std::bad_alloc. */
uint32_t add_connection(mailbox &m, connection_parts &&parts);
/* The connection to that mailbox of that process, or null. */
connection *find_peer(mailbox &m, const mailbox_token &token, const peer_identity &peer);
/* Ends it. The peer's unread signals are kept for the owner, followed by the monitor's notice.
   Harmless if it has ended. */
void end_connection(mailbox &m, uint32_t id, ended_by who);
/* Takes the lock of the mailbox `own` itself. Takes the block over. */
void send_to_connection(uint32_t own, uint32_t receiver, block *b);
/* Likewise. Replaces an earlier monitor of the same peer. Returns the reference. */
uint32_t monitor_connection(uint32_t own, uint32_t target, block *notice);
/* Likewise. False if there is no such monitor. */
bool unmonitor_connection(uint32_t own, uint32_t reference);
/* Any lock. Pages of rings that a burst needed are unmapped after it. */
void want_trim();
/* Without any lock: ends connections while too much is held (mbx_account.h). */
void shed();
/* The helper's (mbx_helper.h). */
void handle_control(uint32_t slot, uint32_t id);
void handle_life(uint32_t slot, uint32_t id);
void handle_first_ring(uint32_t slot, uint32_t id);
time_point trim_in_time(time_point now);
/* Without any lock: hands on what still waits in deleted mailboxes, until the deadline. */
void linger(time_point deadline);
