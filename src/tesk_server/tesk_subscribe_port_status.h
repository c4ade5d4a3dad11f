/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_subscribe_port_status - lets a client follow the status of a port: the subscription and its
   first indication, and the indications of what changes. Port state changes pass the port's leaky
   bucket, presence changes don't. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

#include <cstdint>

void tesk_handle_subscribe_port_status_req(mbx_signal *signal);

/* A tick of a bucket. */
void tesk_handle_port_status_filter_timeout(mbx_signal *signal);

/* The hardware reports that the port is up or down (PORTSTATE_UP or PORTSTATE_DOWN). */
void tesk_handle_port_state_change(uint32_t port_no, uint32_t new_state);

/* The port subscription table has stored `presence` and found it new. */
void tesk_handle_port_status_sfp_presence_change(uint32_t port_no, uint32_t presence);
