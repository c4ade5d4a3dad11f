/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_types - types that several modules of the server share: the state of a port, the presence of
   its module, and the result of a failed operation. */
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
    SFP_UNKNOWN = 3,      /* presence could not be determined */
    UNSUPPORTED_PORT = 4, /* the hardware library doesn't know the port */
};

/* The size of a table that is indexed by port number. Clients may use the numbers up to
   TESK_HIGHEST_PORT, but the lower half of an id in a hardware event can have any value. */
inline constexpr uint32_t TESK_NUMBER_OF_PORTS = 65536;

/* The result of the server's own operations on failure; callers test for non-zero only. After a
   failed start its low byte, 242, is the exit status of the process. */
inline constexpr int32_t TESK_FAILURE = -14;
