/* SPDX-License-Identifier: Apache-2.0 */
/* commands - one function a command; each gives the exit code, or throws a tool_error. A port that
   fails is reported and counts in the exit code; what fails as a whole is thrown. */
#pragma once

#include "tools/teskctl/tool.h"

exit_code run_capabilities(const settings &settings);
/* One block or object a port, as the answers come. */
exit_code run_pm(const settings &settings, const std::vector<uint32_t> &ports);
/* Subscribes, takes the first indication, and unsubscribes. */
exit_code run_first_indication(const settings &settings, tesk_client_kind kind,
                               const std::vector<uint32_t> &ports);
/* "status", "sfp", "actions", or "" for all of them by time. */
exit_code run_history(const settings &settings, const std::string &kind);

struct ping_options {
    uint64_t count = 0;  /* 0: no limit */
    double interval = 1; /* seconds */
};
/* exit_no_answer when nothing was answered at all. */
exit_code run_ping(const settings &settings, const ping_options &options);

struct watch_options {
    std::vector<uint32_t> sfp;
    std::vector<uint32_t> status;
    double seconds = 0; /* 0: no limit */
    uint64_t count = 0; /* of indications; 0: no limit */
};
/* Ends with exit_done on a process signal, too: that is how people end it. */
exit_code run_watch(const settings &settings, const watch_options &options);

struct top_options {
    std::vector<uint32_t> ports;
    double interval = 2; /* seconds between two reads of the measured values */
    double seconds = 0;  /* 0: no limit */
};
exit_code run_top(const settings &settings, const top_options &options);
