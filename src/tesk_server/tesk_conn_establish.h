/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_conn_establish - TESK_CONN_ESTABLISH_REQ, the first signal of every client. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

void tesk_handle_conn_establish_req(mbx_signal *signal);
