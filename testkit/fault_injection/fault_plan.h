/* SPDX-License-Identifier: Apache-2.0 */
/* fault_plan - what the preloaded library shares with the test: a page of the file that FAULTS
   names in the environment of the process that is to suffer. */
#pragma once

#include <atomic>
#include <cstdint>

struct fault_plan {
    char call[32];
    uint32_t nth;               /* the call that fails, from 1 on; 0 for none */
    bool by_program_only;       /* calls that libraries make don't count */
    std::atomic<bool> armed;    /* calls count only now */
    std::atomic<uint32_t> seen; /* how many have been counted */
};
