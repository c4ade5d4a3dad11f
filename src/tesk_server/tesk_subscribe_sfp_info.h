/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_subscribe_sfp_info - SFP info subscriptions: the subscription and its first indication, and
   the indications of presence changes, which pass no filter. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

#include <cstdint>

/* Handles TESK_SUBSCRIBE_SFP_INFO_REQ; the caller frees the signal. */
void tesk_handle_subscribe_sfp_info_req(mbx_signal *signal);

/* Called when the port subscription table has stored `presence` and it differs from the old one. */
void tesk_handle_sfp_presence_change(uint32_t port_no, uint32_t presence);
