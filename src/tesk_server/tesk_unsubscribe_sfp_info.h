/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_unsubscribe_sfp_info - ends a client's SFP info subscription on a port. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

void tesk_handle_unsubscribe_sfp_info_req(mbx_signal *signal);
