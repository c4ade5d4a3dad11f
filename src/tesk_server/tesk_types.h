/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_types - types that several modules of the server share: the state of a port, the presence
   of its module, and the result of a failed operation. No state. */
#pragma once

#include <cstdint>

enum tesk_port_state : uint32_t {
    port_up = 0,
    port_down = 1,
    port_unknown = 2,
};

enum tesk_sfp_presence : uint32_t {
    sfp_not_present = 0,       /* no module in the port */
    sfp_present_not_ready = 1, /* module inserted, not yet ready */
    sfp_present_and_ready = 2,
    sfp_unknown = 3,      /* presence could not be determined */
    unsupported_port = 4, /* the hardware library doesn't know the port */
};

/* The size of a table that is indexed by port number. Clients may use the numbers up to
   TESK_HIGHEST_PORT, but the lower half of an id in a hardware event can have any value. */
inline constexpr uint32_t tesk_number_of_ports = 65536;

/* The result of the server's own operations on failure; callers test for non-zero only. After a
   failed start its low byte, 242, is the exit status of the process. */
inline constexpr int32_t tesk_failure = -14;
