/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_parting - accepted connections that have ended here, until they have ended at the peer. Any
   thread; may be called with a mailbox's lock.

   The kernel charges to us what the peer still holds of a connection: the memory file with its
   pages, the descriptors of an unread welcome, and unread bytes. So the entry in the accounts and
   our end of the control connection are kept until the peer has closed its end and has read all
   that we sent on it, and no process has the memory file or a bell. The pages are released earlier,
   even while other processes map them: once the peer has hung up and has read all signals, or some
   seconds after its hang-up. These seconds are for a peer whose library notices the end before its
   owner has received all signals. */
#pragma once

#include "platform/mbx/mbx_area.h"
#include "platform/mbx/mbx_fd.h"

#include <memory>
#include <mutex>

/* Ends a connection: the peer sees that at once. `is_kept`: the signals in the rings are kept for
   the peer. */
void part(owned_fd control, std::shared_ptr<mapped_area> area, std::shared_ptr<entry> place,
          const peer_identity &peer, bool is_kept);
/* Releases the unread signals of all these connections, which are lost for their peers. */
void give_back_parting();

/* Begins to watch for the end of a memory file: no process has it any more, neither open (also by
   O_PATH), nor mapped, nor in a message. Returns the watch. -1 where the system refuses that, or
   has no /proc: then the entry does not wait for that end. */
int watch_for_end(int memory);

/* To be called before our own descriptor of a bell is closed, and before the area is released: from
   then on the entry waits until the peer has closed its descriptors of that bell, too. Does nothing
   for a connection that this process has not accepted. */
void leave_bell(int bell, const std::shared_ptr<entry> &place);

/* The helper's (mbx_helper.h). */
void handle_hang_up(uint32_t, uint32_t number);
void handle_ends(uint32_t, uint32_t);
time_point look_again(time_point now);
/* To be called when the helper has ended: releases all these connections. Signals that the peers
   have not read stay for them. In a forked child only the copies of the descriptors are closed. */
void end_parting(bool is_child);

/* Held around a fork. */
extern std::mutex parting_lock;
