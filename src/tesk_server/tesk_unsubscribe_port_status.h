/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_unsubscribe_port_status - ends a client's port status subscription on a port. Main thread.
 */
#pragma once

#include "platform/mbx/mbx.h"

/* Handles TESK_UNSUBSCRIBE_PORT_STATUS_REQ; the caller frees the signal. */
void tesk_handle_unsubscribe_port_status_req(mbx_signal *signal);
