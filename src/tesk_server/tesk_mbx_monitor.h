/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_mbx_monitor - cleans up after a client whose mailbox has died. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

/* The dead mailbox is the signal's sender. */
void tesk_handle_client_lost(mbx_signal *signal);
