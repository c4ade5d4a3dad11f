/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_get_pm_counters - answers TESK_GET_PM_COUNTERS_REQ with one snapshot. Main thread. */
#pragma once

#include "platform/mbx/mbx.h"

/* The caller frees the signal. */
void tesk_handle_get_pm_counters_req(mbx_signal *signal);
