/* SPDX-License-Identifier: Apache-2.0 */
#include "tesk_exporter/options.h"

#include "tools/common/exit_code.h"
#include "tools/common/port_list.h"

#include <CLI/CLI.hpp>

namespace exporter
{

std::optional<int> read_options(int argc, char **argv, settings &read)
{
    CLI::App app{"Serves the ports of tesk-server by HTTP: metrics, events and a page."};
    std::vector<std::string> ports;
    double interval = 15;
    bool no_refresh = false;
    app.set_version_flag("--version", "tesk-exporter " TESK_VERSION);
    app.add_option("--listen", read.listen, "Serve at ADDRESS:PORT or unix:PATH")
        ->capture_default_str();
    app.add_option("--host", read.hosts, "Accept this name in the Host header, too");
    app.add_option("--ports", ports,
                   "Follow these ports, as in 0-3,7; without it those of the "
                   "port map, else those of 0 to 127 that answer");
    app.add_option("--interval", interval, "Seconds between two reads of the measured values")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    app.add_flag("--no-refresh", no_refresh, "Take grades from indications only");
    app.add_flag("--journal", read.journal, "Write each change to the journal");
    app.add_option("--web", read.web, "Serve the page from this folder")->capture_default_str();
    app.add_option("--replay", read.replay,
                   "Forecast from these files or folders of readings, write JSON lines, and end");
    try {
        app.parse(argc, argv);
        if (!ports.empty())
            read.ports = parse_ports(ports);
    } catch (const CLI::ParseError &error) {
        return static_cast<int>(app.exit(error) == 0 ? exit_code::done : exit_code::usage);
    } catch (const tool_error &error) {
        std::fprintf(stderr, "tesk-exporter: --ports: %s\n", error.what());
        return static_cast<int>(exit_code::usage);
    }
    read.interval = std::chrono::milliseconds(static_cast<int64_t>(interval * 1000));
    read.refresh = !no_refresh;
    return std::nullopt;
}

} // namespace exporter
