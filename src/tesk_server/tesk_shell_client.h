/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_shell_client - hands the history to whoever asks, outside the client protocol: no
   connection, no references, host byte order. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

/* Sees every received signal first. True when the signal was one of the three requests and has been
   answered; the caller frees it in either case. */
bool tesk_shell_client_handle(mbx_signal *signal);
