/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_accept - accepts connections to the named mailboxes of this process, on the helper's thread.
 */
#pragma once

/* Registers the functions that the helper calls, before it starts. */
void set_up_accepting();
/* Without a helper: drops the connections that have not greeted. In a forked child they are the
   parent's, and only the copies are closed. */
void end_accepting(bool is_child);
