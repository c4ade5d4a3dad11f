/* SPDX-License-Identifier: Apache-2.0 */
/* ports: one line for each port. Without --status the requests leave no record in the server's
   history. */
#include "program/output.h"
#include "program/units.h"
#include "program/words.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/port_requests.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"

#include <map>
#include <nlohmann/json.hpp>

namespace
{

struct port_line {
    std::optional<tesk_client_pm> pm; /* nothing if the read failed */
    std::optional<tesk_client_port_status> status;
};

using port_lines = std::map<uint32_t, port_line>;

} // namespace

static std::string name_of(const port_name_map &names, uint32_t port_no)
{
    const auto found = names.find(port_no);
    return found == names.end() ? "" : found->second;
}

/* The keys of "pm", with the name after the port, and the keys of the status at the end. */
static json_object to_json(uint32_t port_no, const std::string &name, const port_line &shown,
                           bool has_status)
{
    json_object object = {{"event", "port"}, {"port", port_no}, {"name", nullptr}};
    if (!name.empty())
        object["name"] = name;
    const json_object pm = to_json(*shown.pm);
    for (const auto &[key, value] : pm.items())
        if (!object.contains(key))
            object[key] = value;
    if (has_status) {
        const bool has = shown.status.has_value();
        const json_object status = has ? to_json(*shown.status) : json_object();
        object["link"] = has ? status["link"] : json_object(nullptr);
        object["speed_gbps"] = has ? status["speed_gbps"] : json_object(nullptr);
        object["worst_level"] = has ? json_object(tesk_client_text(
                                          TESK_CLIENT_TEXT_LEVEL, worst_level(shown.status->level)))
                                    : json_object(nullptr);
    }
    return object;
}

static std::vector<std::string> row_of(uint32_t port_no, const std::string *name,
                                       const port_line &shown, bool has_status)
{
    const tesk_client_pm &pm = *shown.pm;
    auto value = [](bool has, const std::string &text) { return has ? text : "-"; };
    std::vector<std::string> row = {std::to_string(port_no)};
    if (name != nullptr)
        row.push_back(*name);
    row.insert(row.end(), {module_text(pm.sfp_type), value(pm.has_tx_power, dbm(pm.tx_power)),
                           value(pm.has_rx_power, dbm(pm.rx_power)),
                           value(pm.has_temperature, celsius(pm.temperature)),
                           value(pm.has_voltage, volts(pm.voltage)),
                           value(pm.has_tx_bias, milliamperes(pm.tx_bias))});
    if (has_status && shown.status) {
        row.push_back(link_text(*shown.status));
        row.push_back(tesk_client_text(TESK_CLIENT_TEXT_LEVEL, worst_level(shown.status->level)));
    } else if (has_status) {
        row.insert(row.end(), {"-", "-"});
    }
    return row;
}

static void write_table(const settings &common, const port_lines &lines, const port_name_map &names,
                        bool has_status)
{
    std::vector<std::string> header = {"PORT"};
    if (!names.empty())
        header.push_back("NAME");
    header.insert(header.end(), {"MODULE", "TX", "RX", "TEMP", "VOLTAGE", "BIAS"});
    if (has_status)
        header.insert(header.end(), {"LINK", "WORST GRADE"});
    table shown(header);
    for (const auto &[port_no, line] : lines) {
        const std::string name = name_of(names, port_no);
        shown.add(row_of(port_no, names.empty() ? nullptr : &name, line, has_status));
    }
    if (!lines.empty())
        write_text(shown.text(terminal_width(common)));
}

/* The first indications of these ports, as far as they are received in time. */
static void read_status(const settings &common, event_loop &loop, session &server, reporter &report,
                        const port_lines &lines, const size_t &received)
{
    std::vector<uint32_t> ports;
    for (const auto &[port_no, line] : lines)
        ports.push_back(port_no);
    const auto held =
        subscribe_all(loop, server, requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, ports),
                      [&](const auto &answer) { report.failed(answer); });
    const steady_time end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(common.timeout_ms);
    while (received < held.size() && std::chrono::steady_clock::now() < end &&
           loop.wait(server.get(), end) != event_loop::wake::signal) {
    }
}

/* Writes the numbers or names alone; with a port map no request is needed. */
static exit_code write_words(const settings &common, const ports_options &options)
{
    event_loop loop;
    std::string text;
    const auto known = port_names();
    for (const auto &[port_no, name] : known) {
        text += options.numbers_only ? std::to_string(port_no) + "\n" : "";
        text += options.names_only ? name + "\n" : "";
    }
    if (known.empty() && options.numbers_only) {
        session server(loop, common, {}, false);
        for (const uint32_t port_no : select_ports(loop, server, options.ports))
            text += std::to_string(port_no) + "\n";
    }
    write_text(text);
    return exit_code::done;
}

/* If the server reports a port as empty but a module answers a read, the module isn't ready. */
static void mark_not_ready(const settings &common, event_loop &loop, session &server,
                           reporter &report, port_lines &lines,
                           std::map<uint32_t, tesk_client_sfp_info> &infos)
{
    std::vector<uint32_t> with_module;
    for (const auto &[port_no, line] : lines)
        if (line.pm && line.pm->sfp_type != TESK_CLIENT_SFP_NOT_PRESENT)
            with_module.push_back(port_no);
    read_infos(common, loop, server, with_module, infos,
               [&](const auto &answer) { report.failed(answer); });
    for (const auto &[port_no, info] : infos)
        if (info.type == TESK_CLIENT_SFP_NOT_PRESENT)
            lines[port_no].pm->sfp_type = module_not_ready;
}

exit_code run_ports(const settings &common, const ports_options &options)
{
    if (options.numbers_only || options.names_only)
        return write_words(common, options);
    event_loop loop;
    reporter report(common);
    port_lines lines;
    size_t received = 0;
    const auto take_status = [&](const tesk_client_port_status &status) {
        auto &known = lines[status.port_no].status;
        received += known ? 0 : 1;
        known = status;
    };
    std::map<uint32_t, tesk_client_sfp_info> infos;
    session server(
        loop, common,
        {[&](const auto &info) { infos.try_emplace(info.port_no, info); }, take_status, {}}, false);
    const auto ports = select_ports(loop, server, options.ports);
    const auto unready = unready_ports(ports);
    request_all(loop, server, requests_for(TESK_CLIENT_REQUEST_PM, ports),
                [&](const tesk_client_answer &answer) {
                    if (const auto pm = pm_of(answer, unready))
                        lines[answer.port_no].pm = pm;
                    else
                        report.failed(answer);
                });
    if (options.has_status) {
        read_status(common, loop, server, report, lines, received);
        mark_not_ready(common, loop, server, report, lines, infos);
    }
    const auto names = port_names();
    for (const auto &[port_no, line] : lines)
        if (common.json)
            report.object(to_json(port_no, name_of(names, port_no), line, options.has_status));
    if (!common.json)
        write_table(common, lines, names, options.has_status);
    report.write_failures();
    return loop.signal() == 0 ? report.code() : exit_code::no_answer;
}
