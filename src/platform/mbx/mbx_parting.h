/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_parting - accepted connections that have ended here, until they have ended at the peer. Any
   thread; may be called with a mailbox's lock.

   The kernel charges to us what the peer still has of a connection: the memory file with its pages,
   the descriptors of a welcome and the bytes that it has not read. So the entry in the accounts,
   and our end of the control connection, are kept until the peer has closed its end, nothing of
   ours lies unread in it, and nobody else has the file or a bell. The pages are released as soon
   as nobody can be waiting for them, even while others map them. The contents of its ring are kept
   for some seconds more: its library may notice the end before its owner has received all. */
#pragma once

#include "platform/mbx/mbx_area.h"
#include "platform/mbx/mbx_fd.h"

#include <memory>
#include <mutex>

/* The peer sees the end of the connection at once. `is_kept`: the contents of the rings are kept
   for the peer. */
void part(owned_fd control, std::shared_ptr<mapped_area> area, std::shared_ptr<entry> place,
          const peer_identity &peer, bool is_kept);
/* Releases the contents of the rings of these peers, which lose them. */
void give_back_parting();

/* Begins to watch for the end of a memory file: when nobody has it any more, neither open, by path
   alone (O_PATH), mapped nor on its way to somebody. -1 where the system refuses that, or has no
   /proc; then nobody waits for it. */
int watch_for_end(int memory);

/* Our own descriptor of a bell is about to be closed: the place counts until the peer's are, too.
   Before the area is let go. Nothing for a connection that we have not accepted. */
void leave_bell(int bell, const std::shared_ptr<entry> &place);

/* The helper's (mbx_helper.h). */
void handle_hang_up(uint32_t, uint32_t number);
void handle_ends(uint32_t, uint32_t);
time_point look_again(time_point now);
/* Without a helper: lets all go. Signals that peers have not read stay for them. In a
   forked child only the copies are closed. */
void end_parting(bool is_child);

/* Held around a fork. */
extern std::mutex parting_lock;
