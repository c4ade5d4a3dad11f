/* SPDX-License-Identifier: Apache-2.0 */
/* module_decode - from the bytes of a module's memory to the records of dolm_ric.h. Pure functions;
   any thread. For any bytes the result is a value or "not known", never an error. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <string_view>

namespace linux_board
{

/* Decodes what has been read so far. Until the identity has been read, and if its checksums are
   wrong, the contents are not `ready`. */
module_contents decode_module(const module_memory &memory);

/* The properties of the module's port that affect the meaning of its values. */
struct port_view {
    /* Bit n: lane n of the module belongs to this port. 0: all lanes do. */
    uint32_t lanes = 0;
    /* Bit n: lane n between host and module belongs to this port. Used if `lanes` is 0. Several
       such lanes may share a lane of light. */
    uint32_t host_lanes = 0;
    /* The administrator has stopped the port. Its laser may be off and the far end may not send, so
       low bias and low power are no faults. */
    bool stopped = false;
};

/* The status word of dolm_ric_module_status. Clients see bit 0 as a loss of signal and the value 2
   as a raised fault of the environment. */
enum module_status_bits : uint32_t {
    rx_los_status = 0x01,
    tx_fault_status = 0x02,
};

/* The results of the three reads of a module that is present. A record is valid if its result is
   DOLM_RICERR_OK. */
struct module_records {
    bool ready = false; /* DOLM_RICRIPORT_MODREADY */
    int32_t info_result = DOLM_RICERR_NOTAVAIL;
    int32_t diag_result = DOLM_RICERR_NOTAVAIL;
    dolm_ric_module_info info = {};
    dolm_ric_module_status status = {};
    dolm_ric_module_diag diag = {};
};

/* If there are several lanes, each measurement is that of the worst lane: beyond its alarm limits,
   then beyond its warning limits, then with the smallest distance to a warning limit.

   Values are rounded to the nearest, halves away from zero, only in this function. The caller
   compares rounded values with rounded limits, and a value equal to a limit counts as beyond it. If
   the exact value is within a limit and the rounded one isn't, the limit is moved by one unit, so
   that the level is that of the exact values.

   Limits that are not in order are left open: so wide that no value reaches them. An unsigned
   measurement can't have a low limit below 0; if 0 is no low value, or comes of rounding, the
   measurement is left out of diag_cap, since it would be shown with an alarm. */
module_records make_records(const module_contents &contents, const port_view &port);

/* Bit n: lane n of light belongs to the port. All bits are set if all lanes do. */
uint32_t own_lanes(const module_contents &contents, const port_view &port);

/* The lanes of the port whose `phys_port_name` in the kernel is, for example, "p1s2": part 2,
   counted from 0, of the split cage 1. Each part has `lanes` lanes; 0 counts as 1. Returns 0, which
   means all lanes, for a port that isn't split. */
uint32_t lanes_of_port(std::string_view phys_port_name, uint32_t lanes);

} // namespace linux_board
