/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_subscribe_port_status - port status subscriptions: the subscription and its first
   indication, and the indications of changes. Port state changes pass the port's leaky bucket,
   presence changes don't. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

#include <cstdint>

/* Handles TESK_SUBSCRIBE_PORT_STATUS_REQ; the caller frees the signal. */
void tesk_handle_subscribe_port_status_req(mbx_signal *signal);

/* Handles TESK_PORT_STATUS_FILTER_TICK; the caller frees the signal. */
void tesk_handle_port_status_filter_timeout(mbx_signal *signal);

/* Called for a link event of the port; `new_state` is port_up or port_down. */
void tesk_handle_port_state_change(uint32_t port_no, uint32_t new_state);

/* Called when the port subscription table has stored `presence` and it differs from the old one. */
void tesk_handle_port_status_sfp_presence_change(uint32_t port_no, uint32_t presence);
