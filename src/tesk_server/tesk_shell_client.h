/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_shell_client - sends the history to any mailbox that requests it, outside the client
   protocol: no connection, no references, host byte order. Main thread.

   Exhausted memory ends the process, in tesk_cache_read or in mbx_alloc. */
#pragma once

#include "platform/mbx/mbx.h"

/* Called for every received signal, before the dispatch. True when the signal was one of the three
   requests and has been answered; the caller frees it in either case. */
bool tesk_shell_client_handle(mbx_signal *signal);
