/* SPDX-License-Identifier: Apache-2.0 */
/* module_decode - from the bytes of a module's memory to the records of dolm_ric.h. Pure functions;
   any thread. The result is a value or "not known", never a failure, for any bytes. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <string_view>

namespace linux_board
{

/* Decodes what has been read so far. Before the identity is there, or where its checksums are
   wrong, the contents are not `ready`. */
module_contents decode_module(const module_memory &memory);

/* The properties of the module's port that affect the meaning of its values. */
struct port_view {
    /* Bit n: lane n of the module belongs to this port. 0: all of them. */
    uint32_t lanes = 0;
    /* Bit n: lane n between host and module belongs to this port. Used if `lanes` is 0. Several of
       these lanes may share a lane of light. */
    uint32_t host_lanes = 0;
    /* By the administrator. Its laser may be off and the far end may not send: no low level of bias
       or power is a fault then. */
    bool stopped = false;
};

/* The status word of dolm_ric_module_status. Clients see bit 0 as a loss of signal and the value 2
   as a raised fault of the environment. */
enum module_status_bits : uint32_t {
    rx_los_status = 0x01,
    tx_fault_status = 0x02,
};

/* The answers to the three reads of a module that is there. A record is valid where its result is
   DOLM_RICERR_OK. */
struct module_records {
    bool ready = false; /* DOLM_RICRIPORT_MODREADY */
    int32_t info_result = DOLM_RICERR_NOTAVAIL;
    int32_t diag_result = DOLM_RICERR_NOTAVAIL;
    dolm_ric_module_info info = {};
    dolm_ric_module_status status = {};
    dolm_ric_module_diag diag = {};
};

/* Of several lanes each measurement carries the one that is worst off: beyond its alarm limits,
   then beyond its warning limits, then with the smallest distance to a warning limit.

   Values are rounded to the nearest, halves away from zero, here and nowhere else. The caller
   compares rounded values with rounded limits, a value on a limit counting as beyond it; so a
   limit that the exact value is within but the rounded one isn't moves by one unit, and the level
   stays what the exact values give.

   Limits that are not in order are left open: so wide that no value reaches them. A measurement
   without a sign has no limit that 0 is above; where 0 is no low value, or comes of rounding, the
   measurement is left out of diag_cap, since it can't be shown without an alarm. */
module_records make_records(const module_contents &contents, const port_view &port);

/* Bit n: lane n of light is the port's own. All bits where all lanes are. */
uint32_t own_lanes(const module_contents &contents, const port_view &port);

/* The lanes of the port that the kernel calls `phys_port_name`: "p1s2" is the part 2, counted from
   0, of the split cage 1. Each part has `lanes` lanes, 0 counting as 1. 0, which is all lanes, for
   a port that isn't split. */
uint32_t lanes_of_port(std::string_view phys_port_name, uint32_t lanes);

} // namespace linux_board
