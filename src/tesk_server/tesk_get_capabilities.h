/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_get_capabilities - answers TESK_GET_CAPABILITIES_REQ with a fixed list. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

/* The caller frees the signal. */
void tesk_handle_get_capabilities_req(mbx_signal *signal);
