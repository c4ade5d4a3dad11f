/* SPDX-License-Identifier: Apache-2.0 */
/* options - the command line. Main thread, before other threads run. */
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace exporter
{

struct settings {
    std::string listen = "127.0.0.1:9816";      /* ADDRESS:PORT or unix:PATH */
    std::vector<std::string> hosts;             /* additional names that the Host header may have */
    std::optional<std::vector<uint32_t>> ports; /* nothing: ports of the map, or all that answer */
    std::chrono::milliseconds interval{15000};
    bool refresh = true;
    bool lanes = true; /* series of lanes in the metrics */
    bool journal = false;
    std::string web = TESK_WEB_DIR;
    std::string history;               /* the folder; empty: no history is kept */
    int64_t history_limit = 256 << 20; /* bytes */
    std::vector<std::string> replay;   /* files to forecast from, in place of a server's ports */
};

/* Reads the command line into `read`. Returns an exit code if the program has nothing more to do,
   as after --help; an error was then printed on standard error. */
std::optional<int> read_options(int argc, char **argv, settings &read);

} // namespace exporter
