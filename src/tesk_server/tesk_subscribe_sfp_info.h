/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_subscribe_sfp_info - lets a client follow the module of a port: the subscription and its
   first indication, and the indications of presence changes, which pass no filter. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

#include <cstdint>

void tesk_handle_subscribe_sfp_info_req(mbx_signal *signal);

/* The port subscription table has stored `presence` and found it new. */
void tesk_handle_sfp_presence_change(uint32_t port_no, uint32_t presence);
