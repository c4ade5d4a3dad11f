/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_dolm_ric_internal - shared by the sources of tesk_dolm_ric only. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_trace.h"

/* Written once, before the hardware event thread exists; then read by both threads. */
extern uintptr_t dolm_ric_handle;

/* Port number to the library's id, and back: the upper half of an id is not examined. */
static inline uint32_t dolm_ric_id(uint32_t port_no)
{
    return 0x00020000u | (port_no & 0xffffu);
}

static inline uint32_t dolm_ric_port_no(uint32_t id)
{
    return id & 0xffffu;
}

/* The trace group of a failed module read: a missing port or module is not an error. */
static inline uint32_t dolm_ric_result_group(int32_t result)
{
    const bool expected = result == DOLM_RICERR_NODEV || result == DOLM_RICERR_NOTAVAIL ||
                          result == DOLM_RICERR_UNSUPPORTED;
    return expected ? TESK_TRACE_NOTABLE : TESK_TRACE_ERROR;
}

/* The tesk_sfp_type of a module with this dolm_sfp_connector. */
uint32_t sfp_connector_to_type(uint8_t connector);

/* Traces the identity of a module; `after_rev` is inserted between revision and serial number. */
void trace_module_identity(const dolm_sfp_info *sfp, const char *after_rev);
