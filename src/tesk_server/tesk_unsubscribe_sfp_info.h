/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_unsubscribe_sfp_info - ends a client's SFP info subscription on a port. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

/* Handles TESK_UNSUBSCRIBE_SFP_INFO_REQ; the caller frees the signal. */
void tesk_handle_unsubscribe_sfp_info_req(mbx_signal *signal);
