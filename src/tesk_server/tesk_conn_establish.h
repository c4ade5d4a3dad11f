/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_conn_establish - registers clients. Main thread.

   Exhausted memory: a client whose record cannot be allocated is rejected. */
#pragma once

#include "platform/mbx/mbx.h"

/* Handles TESK_CONN_ESTABLISH_REQ, the first signal of every client; the caller frees the signal.
 */
void tesk_handle_conn_establish_req(mbx_signal *signal);
