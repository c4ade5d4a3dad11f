/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: read_options() parses the words; --print-drop-in is answered at once and ends the
   program. */
#include "tesk_exporter/options.h"

#include "program/exit_code.h"
#include "program/known_command.h"
#include "program/output.h"
#include "program/port_list.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <sstream>

namespace exporter
{

/* Whether the text is an address, or a network such as 192.0.2.0/24. */
static bool is_network(const std::string &text)
{
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    unsigned char binary[sizeof(in6_addr)];
    const bool is_v4 = inet_pton(AF_INET, address.c_str(), binary) == 1;
    if (!is_v4 && inet_pton(AF_INET6, address.c_str(), binary) != 1)
        return false;
    if (slash == std::string::npos)
        return true;
    unsigned length = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, length);
    return error == std::errc{} && stop == end && length <= (is_v4 ? 32 : 128);
}

static bool are_networks(const std::string &clients)
{
    std::istringstream list(clients);
    for (std::string one; std::getline(list, one, ',');)
        if (!is_network(one))
            return false;
    return !clients.ends_with(',');
}

static int wrong_drop_in(const char *what)
{
    std::fprintf(stderr, "tesk-exporter: --print-drop-in: %s\n", what);
    return static_cast<int>(exit_code::usage);
}

/* Prints both parts that listening on another address needs: the option, and an exception from the
   unit's filter. The exception also contains the address itself, so that the check in listener.cpp
   passes. */
static int print_drop_in(const std::string &listen, std::string clients)
{
    std::string address = listen.substr(0, listen.rfind(':'));
    if (address.starts_with('[') && address.ends_with(']'))
        address = address.substr(1, address.size() - 2);
    if (!is_network(address) || address.starts_with("127.") || address == "::1")
        return wrong_drop_in("give --listen ADDRESS:PORT with an address that others can reach");
    if (clients != "any" && !are_networks(clients))
        return wrong_drop_in("name addresses or networks, as in 192.0.2.0/24,2001:db8::7, or any");
    std::ranges::replace(clients, ',', ' ');
    const bool is_own = address != "0.0.0.0" && address != "::";
    std::printf("# tesk-exporter --print-drop-in. To be put into\n"
                "# /etc/systemd/system/tesk-exporter.service.d/listen.conf\n"
                "[Service]\n"
                "ExecStart=\n"
                "ExecStart=" TESK_EXPORTER_PATH
                " --history %%S/tesk-exporter $TESK_EXPORTER_OPTIONS --listen %s\n"
                "IPAddressAllow=%s%s%s\n",
                listen.c_str(), is_own ? address.c_str() : "", is_own ? " " : "", clients.c_str());
    return static_cast<int>(exit_code::done);
}

namespace
{
/* Options whose form on the command line differs from that in the settings. */
struct words {
    std::vector<std::string> ports;
    double interval = 15;
    bool no_refresh = false;
    bool no_lanes = false;
    std::string clients;
    int64_t history_mib = 256;
};
} // namespace

static void add_options(CLI::App &app, settings &read, words &given)
{
    app.set_version_flag("--version", "tesk-exporter " TESK_VERSION);
    app.add_option("--listen", read.listen, "Serve at ADDRESS:PORT or unix:PATH")
        ->take_last()
        ->capture_default_str();
    app.add_option("--host", read.hosts, "Accept this name in the Host header, too");
    app.add_option("--ports", given.ports,
                   "Follow these ports, as in 0-3,7; without it those of the "
                   "port map, else those of 0 to 127 that answer");
    app.add_option("--interval", given.interval, "Seconds between two reads of the measured values")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    app.add_flag("--no-refresh", given.no_refresh, "Take grades from indications only");
    app.add_flag("--no-lanes", given.no_lanes,
                 "Leave the series of single lanes out of the metrics");
    app.add_flag("--journal", read.journal, "Write each change to the journal");
    app.add_option("--web", read.web, "Serve the page from this folder")->capture_default_str();
    app.add_option("--print-drop-in", given.clients,
                   "Print the drop-in of the systemd unit with which these CLIENTS can reach "
                   "--listen: addresses or networks, as in 192.0.2.0/24,2001:db8::7, or any");
    app.add_option("--history", read.history,
                   "Keep two years of readings and events in this folder");
    app.add_option("--history-limit", given.history_mib, "MiB that they take at most")
        ->check(CLI::Range(16, 65536))
        ->capture_default_str();
    app.add_option("--replay", read.replay,
                   "Forecast from these files or folders of readings, write JSON lines, and end");
}

std::optional<int> read_options(int argc, char **argv, settings &read)
{
    CLI::App app{"Serves the ports of tesk-server by HTTP: metrics, events and a page.",
                 "tesk-exporter"};
    words given;
    add_options(app, read, given);
    try {
        app.parse(argc, argv);
        if (!given.ports.empty())
            read.ports = parse_ports(given.ports);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); /* --help or --version, which it writes */
        complain("tesk-exporter", usage_error(app, error).what());
        return static_cast<int>(exit_code::usage);
    } catch (const tool_error &error) {
        std::fprintf(stderr, "tesk-exporter: --ports: %s\n", error.what());
        return static_cast<int>(exit_code::usage);
    }
    if (!given.clients.empty())
        return print_drop_in(read.listen, given.clients);
    read.interval = std::chrono::milliseconds(static_cast<int64_t>(given.interval * 1000));
    read.refresh = !given.no_refresh;
    read.lanes = !given.no_lanes;
    read.history_limit = given.history_mib << 20;
    return std::nullopt;
}

} // namespace exporter
