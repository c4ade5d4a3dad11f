/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_types - what several modules of the server name: the state of a port and of its module, and
   the result of a failed operation. */
#pragma once

#include <cstdint>

enum tesk_port_state : uint32_t {
    PORTSTATE_UP = 0,
    PORTSTATE_DOWN = 1,
    PORTSTATE_UNKNOWN = 2,
};

enum tesk_sfp_presence : uint32_t {
    SFP_NOT_PRESENT = 0,       /* no module in the port */
    SFP_PRESENT_NOT_READY = 1, /* module inserted, not yet ready */
    SFP_PRESENT_AND_READY = 2,
    SFP_UNKNOWN = 3,      /* presence could not be told */
    UNSUPPORTED_PORT = 4, /* the hardware library doesn't know the port */
};

/* How many port numbers a table by port has to hold. The highest that a client may name is
   TESK_HIGHEST_PORT, but the lower half of an id in a hardware event may be any. */
inline constexpr uint32_t TESK_NUMBER_OF_PORTS = 65536;

/* What the server's own operations give on failure; callers test for non-zero only. The process's
   exit status after a failed start is its low byte, 242. */
inline constexpr int32_t TESK_FAILURE = -14;
