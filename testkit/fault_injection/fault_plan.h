/* SPDX-License-Identifier: Apache-2.0 */
/* fault_plan - shared by the preloaded library and the test: a page of the file that FAULTS names
   in the environment of the tested process. */
#pragma once

#include <atomic>
#include <cstdint>

struct fault_plan {
    char call[32];
    uint32_t nth;               /* the call that fails, counted from 1; 0 for none */
    bool by_program_only;       /* calls made by libraries are not counted */
    std::atomic<bool> armed;    /* calls are counted only while it is set */
    std::atomic<uint32_t> seen; /* counted calls */
};
