/* SPDX-License-Identifier: Apache-2.0 */
/* One call of systemctl shows all units: a block of KEY=VALUE lines for each, with an empty line
   between two. A unit that isn't installed has a block as well, whose LoadState is "not-found". */
#include "tools/teskctl/doctor_checks.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/port_selection.h"
#include "util/escape.h"
#include "util/local_socket.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace doctor
{

static constexpr char shown_properties[] =
    "Id,LoadState,ActiveState,SubState,Result,ExecMainStatus,MainPID,UnitFileState,FragmentPath,"
    "Group,Environment,NeedDaemonReload,IPAddressAllow,IPAddressDeny";

static constexpr char default_configuration[] = "/etc/tesk/ports";
static constexpr char reader[] = "tesk-module-reader";
static constexpr char default_board[] = "/run/dolm_ric/board.sock"; /* of the simulated board */

/* For users whose path lacks the folders of administrators' programs, as with most users. */
static constexpr char with_sbin[] = "PATH=\"$PATH:/usr/local/sbin:/usr/sbin\" ";

std::string output_of(const std::string &command)
{
    FILE *pipe = popen(("LC_ALL=C; export LC_ALL; " + command).c_str(), "r");
    if (pipe == nullptr)
        return "";
    std::string text;
    char part[512];
    while (std::fgets(part, sizeof(part), pipe) != nullptr)
        text += part;
    pclose(pipe);
    return text;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size(); at += lines.back().size() + 1)
        lines.push_back(text.substr(at, text.find('\n', at) - at));
    return lines;
}

unit_table read_units()
{
    unit_table units;
    std::map<std::string, std::string> block;
    const auto end_block = [&] {
        if (const std::string id = block["Id"]; !id.empty())
            units[id] = block;
        block.clear();
    };
    for (const std::string &line : lines_of(output_of(
             fmt::format("timeout 5 systemctl show -p {} {} {} {} {} 2>/dev/null", shown_properties,
                         server_unit, reader_socket_unit, reader_unit, exporter_unit)))) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos)
            end_block();
        else
            block[line.substr(0, equals)] = line.substr(equals + 1);
    }
    end_block();
    return units;
}

std::string property(const unit_table &units, const std::string &unit, const std::string &key)
{
    const auto found = units.find(unit);
    if (found == units.end())
        return "";
    const auto value = found->second.find(key);
    return value == found->second.end() ? "" : value->second;
}

bool has_unit(const unit_table &units)
{
    const std::string load = property(units, server_unit, "LoadState");
    const std::string environment = " " + property(units, server_unit, "Environment") + " ";
    const bool is_ours =
        environment.find(" MBX_DIR=") == std::string::npos
            ? mailbox_directory() == default_mailbox_directory
            : environment.find(" MBX_DIR=" + mailbox_directory() + " ") != std::string::npos;
    return is_ours && !load.empty() && load != "not-found";
}

static std::string why_remedy(const std::string &unit)
{
    return fmt::format("journalctl -u {} -n 20 shows why; then systemctl restart {}", unit, unit);
}

static bool is_active(const std::string &state)
{
    return state == "active" || state == "reloading";
}

finding check_unit(const unit_table &units, const std::string &unit, const char *topic)
{
    const auto of = [&](const char *key) { return property(units, unit, key); };
    const std::string state = of("ActiveState");
    std::string text = fmt::format("{}: {} ({})", unit, state, of("SubState"));
    if (of("LoadState") == "masked" && !is_active(state))
        return {topic, verdict::wrong, unit + " is masked, so that it can't be started",
                fmt::format("if that is not on purpose: systemctl unmask {0}, then systemctl start "
                            "{0}",
                            unit)};
    if (const std::string load = of("LoadState"); load != "loaded" && load != "masked")
        return {topic, verdict::wrong, fmt::format("{}: systemd can't load it ({})", unit, load),
                fmt::format("systemctl status {} shows why", unit)};
    if (of("NeedDaemonReload") == "yes")
        return {topic, verdict::wrong, text + ", but its file has been changed since",
                "systemctl daemon-reload, then systemctl restart " + unit};
    if (is_active(state))
        return {topic, verdict::ok, text, ""};
    if (state == "inactive")
        return {topic, verdict::wrong, text, "systemctl start " + unit};
    text += fmt::format(", result {}", of("Result"));
    if (const std::string status = of("ExecMainStatus"); !status.empty())
        text += ", exit status " + status;
    return {topic, verdict::wrong, text, why_remedy(unit)};
}

/* If MBX_DIR selects another directory, or a server runs without the unit, the unit's state is no
   fault, and starting it would not help. */
static finding check_server_unit(const unit_table &units, bool is_up)
{
    if (units.empty())
        return {"unit", verdict::note, "systemd doesn't answer here", ""};
    if (property(units, server_unit, "LoadState") == "not-found")
        return {"unit", verdict::note, "tesk-server.service is not installed", ""};
    finding found = check_unit(units, server_unit, "unit");
    if (found.state != verdict::wrong)
        return found;
    if (!has_unit(units))
        return {"unit", verdict::note, found.text + "; MBX_DIR selects another server", ""};
    if (is_up && !is_active(property(units, server_unit, "ActiveState")))
        return {"unit", verdict::note,
                found.text + ": the server that answers was started in another way", ""};
    return found;
}

findings check_units(const unit_table &units, bool is_up)
{
    findings all = {check_server_unit(units, is_up)};
    const std::string socket = property(units, reader_socket_unit, "LoadState");
    if (socket.empty() || socket == "not-found")
        return all; /* a board without tesk-module-reader */
    all.push_back(check_unit(units, reader_socket_unit, "reader"));
    /* The reader runs only while the server uses it, so "inactive" is no fault. */
    if (property(units, reader_unit, "ActiveState") == "failed" ||
        property(units, reader_unit, "LoadState") == "masked")
        all.push_back(check_unit(units, reader_unit, "reader"));
    return all;
}

static std::string variable(const char *name, const char *otherwise)
{
    const char *set = secure_getenv(name);
    return set != nullptr && *set != '\0' ? set : otherwise;
}

/* Whether the simulated board listens at teskboard's default path, even if other users only may
   connect. */
static bool is_simulated(const std::string &path)
{
    return util::connect_to(path, SOCK_SEQPACKET | SOCK_NONBLOCK).is_open() || errno == EACCES ||
           errno == EAGAIN;
}

/* Judges a line of the reader's check: a message, or a valid port. If the server's port map lacks
   that port, the server doesn't use it. */
static void judge_line(const std::string &line, const std::string &path,
                       const std::optional<port_name_map> &in_force, findings &all)
{
    const std::string begin = fmt::format("{}: ", reader), shown = escape(path);
    if (line.starts_with(begin + path) || line.starts_with(begin + "there is no port")) {
        all.push_back({"config", verdict::wrong, escape(line.substr(begin.size())),
                       fmt::format("correct it in {}; man {} describes the lines", shown, reader)});
        return;
    }
    uint32_t number = 0;
    const auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    if (error == std::errc{} && in_force && !in_force->contains(number))
        all.push_back({"config", verdict::wrong,
                       fmt::format("the server doesn't use this line of {} yet, as a number keeps "
                                   "its interface while it runs: {}",
                                   shown, escape(line)),
                       "restart tesk-server"});
}

/* The file that the unit's process reads, by the variables in the unit. The server's unit counts
   only if its server is the one that teskctl uses. */
static std::string configuration_of(const unit_table &units, const std::string &unit)
{
    if (!has_unit(units))
        return default_configuration;
    static constexpr std::string_view key = " DOLM_RIC_PORTS=";
    const std::string environment = " " + property(units, unit, "Environment") + " ";
    const size_t at = environment.find(key);
    if (at == std::string::npos)
        return default_configuration;
    const size_t begin = at + key.size();
    return environment.substr(begin, environment.find(' ', begin) - begin);
}

/* While the two processes read different files, no module is read. */
static std::optional<finding> disagreement(const unit_table &units)
{
    const std::string of_server = configuration_of(units, server_unit);
    const std::string of_reader = configuration_of(units, reader_unit);
    if (of_server == of_reader || property(units, reader_unit, "LoadState") != "loaded")
        return std::nullopt;
    return finding{"config", verdict::wrong,
                   fmt::format("tesk-server reads {}, and {} another file, {}", escape(of_server),
                               reader, escape(of_reader)),
                   fmt::format("systemctl edit {} and {}: the same DOLM_RIC_PORTS, then restart "
                               "tesk-server",
                               server_unit, reader_unit)};
}

/* Quotes a word for the shell. */
static std::string quoted(std::string text)
{
    for (size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4)
        text.replace(at, 1, "'\\''");
    return "'" + text + "'";
}

findings check_configuration(const unit_table &units)
{
    if (output_of(fmt::format("{} command -v {}", with_sbin, reader)).empty())
        return {};
    const std::string board = variable("DOLM_RIC_SOCKET", default_board);
    if (is_simulated(board))
        return {{"config", verdict::note,
                 fmt::format("the board at {} is simulated, and its ports have no configuration",
                             escape(board)),
                 ""}};
    const std::string given = variable("DOLM_RIC_PORTS", "");
    if (const auto found = given.empty() ? disagreement(units) : std::nullopt)
        return {*found};
    const std::string path = given.empty() ? configuration_of(units, server_unit) : given;
    const std::string shown = escape(path);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 && lstat(path.c_str(), &status) == 0)
        return {{"config", verdict::wrong, shown + " is a link to a file that can't be reached",
                 "mend the link, or remove it"}};
    if (access(path.c_str(), F_OK) != 0)
        return {{"config", verdict::note,
                 shown + " is not there: a board for Linux has all interfaces whose module can be "
                         "read as ports",
                 ""}};
    findings all;
    const auto in_force = port_map();
    for (const std::string &line :
         lines_of(output_of(fmt::format("DOLM_RIC_PORTS={} {} timeout 5 {} --print-ports 2>&1",
                                        quoted(path), with_sbin, reader))))
        judge_line(line, path, in_force, all);
    if (all.empty())
        all.push_back({"config", verdict::ok, shown + " has no wrong line", ""});
    return all;
}

} // namespace doctor
