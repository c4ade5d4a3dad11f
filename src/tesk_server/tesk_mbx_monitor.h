/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_mbx_monitor - cleans up after a client whose mailbox has died. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

/* Handles MBX_MONITOR_DEFAULT_NO, whose sender is the dead mailbox; the caller frees the signal. */
void tesk_handle_client_lost(mbx_signal *signal);
