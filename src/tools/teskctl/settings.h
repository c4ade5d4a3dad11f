/* SPDX-License-Identifier: Apache-2.0 */
/* settings - the options of all commands of teskctl. Pure data. */
#pragma once

#include <cstdint>

struct settings {
    bool json = false;
    bool coloured = false;
    bool on_terminal = false; /* standard output is a terminal */
    uint32_t timeout_ms = 2000;
    /* How long to wait for a server that isn't running, in seconds. */
    double wait_seconds = 0;
};
