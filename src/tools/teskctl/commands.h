/* SPDX-License-Identifier: Apache-2.0 */
/* commands - one function a command; each gives the exit code, or throws a tool_error. A port that
   fails is reported and counts in the exit code; what fails as a whole is thrown. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tools/common/exit_code.h"
#include "tools/teskctl/settings.h"

#include <cstdint>
#include <string>
#include <vector>

exit_code run_capabilities(const settings &common);
/* One block or object a port, as the answers come. */
exit_code run_pm(const settings &common, const std::vector<uint32_t> &ports);
/* Subscribes, takes the first indication, and unsubscribes. */
exit_code run_first_indication(const settings &common, tesk_client_kind kind,
                               const std::vector<uint32_t> &ports);
/* "status", "sfp", "actions", or "" for all of them by time. */
exit_code run_history(const settings &common, const std::string &kind);

struct ping_options {
    uint64_t count = 0;  /* 0: no limit */
    double interval = 1; /* seconds */
};
/* exit_code::no_answer when nothing was answered at all. */
exit_code run_ping(const settings &common, const ping_options &options);

struct watch_options {
    std::vector<uint32_t> sfp;
    std::vector<uint32_t> status;
    double seconds = 0; /* 0: no limit */
    uint64_t count = 0; /* of indications; 0: no limit */
};
/* Ends with exit_code::done on a process signal, too: that is how people end it. */
exit_code run_watch(const settings &common, const watch_options &options);

struct top_options {
    std::vector<uint32_t> ports;
    double interval = 2; /* seconds between two reads of the measured values */
    double seconds = 0;  /* 0: no limit */
};
exit_code run_top(const settings &common, const top_options &options);
