/* SPDX-License-Identifier: Apache-2.0 */
/* history_fold - joins records of the history that belong together. No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <string>
#include <vector>

struct history_entry {
    tesk_client_history_kind kind;
    tesk_client_history_record record;
};

struct folded_entry {
    history_entry first;
    std::string ports; /* a list such as "0-3,7" */
    std::string what;
};

/* The entries must be in order of time, and stay so. Actions of one kind within 10 ms of the first
   are joined: those for several clients on one port, and those for one client on several ports. */
std::vector<folded_entry> fold(const std::vector<history_entry> &entries);
