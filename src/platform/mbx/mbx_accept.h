/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_accept - accepts connections to the named mailboxes of this process, on the helper's thread,
   which calls these functions (mbx_helper.h). */
#pragma once

#include "platform/mbx/mbx_fd.h"

void handle_greeting(uint32_t, uint32_t number);
void handle_listener(uint32_t, uint32_t mailbox_id);
time_point keep_time(time_point now);
/* To be called when the helper has ended: closes the connections that have not greeted. In a forked
   child, whose parent goes on using them, only the copies of the descriptors are closed. */
void end_accepting(bool is_child);
