/* SPDX-License-Identifier: Apache-2.0 */
/* The commands that read once and end: capabilities, pm, sfp, status.

   The current state of a port comes only with a subscription's first indication, so sfp and status
   subscribe. They don't unsubscribe: the server drops the subscriptions with the connection, which
   adds one record less to its history of 30 actions.

   No indication identifies an empty port: its port status has the type "electrical", and the SFP
   info "not present" also stands for modules that aren't ready. A read of the measured values
   distinguishes the two, and adds no record. */
#include "program/output.h"
#include "program/units.h"
#include "program/words.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/port_requests.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"

#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

static std::string pm_block(const tesk_client_pm &pm)
{
    std::string text = fmt::format("port {}: {}\n", pm.port_no, module_text(pm.sfp_type));
    if (pm.sfp_type == TESK_CLIENT_SFP_NOT_PRESENT)
        return text;
    auto add = [&text](const char *label, bool has, const std::string &value,
                       const char *without = "not measured") {
        text += fmt::format("  {:<15} {:>12}\n", label, has ? value : without);
    };
    auto power = [](uint32_t microwatts) {
        return fmt::format("{:>12}  {:>10}", dbm(microwatts), milliwatts(microwatts));
    };
    add("tx power", pm.has_tx_power, power(pm.tx_power));
    add("rx power", pm.has_rx_power, power(pm.rx_power));
    add("temperature", pm.has_temperature, celsius(pm.temperature));
    add("voltage", pm.has_voltage, volts(pm.voltage));
    add("tx bias", pm.has_tx_bias, milliamperes(pm.tx_bias));
    add("loss of signal", pm.has_loss_of_signal, std::to_string(pm.loss_of_signal), "not counted");
    add("loss of frame", pm.has_loss_of_frame, std::to_string(pm.loss_of_frame), "not counted");
    std::string errors;
    for (size_t i = 0; i < std::size(pm.bit_errors); i++)
        errors += fmt::format("{}1e-{}: {}", i == 0 ? "" : ", ", 8 - i, pm.bit_errors[i]);
    add("bit errors", pm.has_bit_errors, errors, "not counted");
    return text;
}

exit_code run_capabilities(const settings &common)
{
    event_loop loop;
    session server(loop, common, {}, false);
    tesk_client_capability capabilities[64];
    size_t count = 0;
    const tesk_client_result result =
        tesk_client_read_capabilities(server.get(), capabilities, std::size(capabilities), &count);
    if (result != TESK_CLIENT_OK)
        throw tool_error(exit_code_of(result), explain(result, tesk_client_error()));
    table shown({"CAPABILITY", "VALUE"});
    for (size_t i = 0; i < count; i++) {
        if (common.json)
            reporter(common).line(
                json_object{{"id", capabilities[i].id}, {"value", capabilities[i].value}}.dump());
        shown.add({std::to_string(capabilities[i].id), std::to_string(capabilities[i].value)});
    }
    if (!common.json)
        write_text("The numbers that the server declares to its clients:\n" +
                   shown.text(terminal_width(common)));
    return exit_code::done;
}

exit_code run_pm(const settings &common, const ports_text &ports)
{
    event_loop loop;
    session server(loop, common, {}, false);
    reporter report(common);
    const auto wanted = select_ports(loop, server, ports);
    const auto unready = unready_ports(wanted);
    request_all(loop, server, requests_for(TESK_CLIENT_REQUEST_PM, wanted),
                [&](const tesk_client_answer &answer) {
                    const auto pm = pm_of(answer, unready);
                    if (!pm || answer.rejection == TESK_CLIENT_REJECTION_BUSY)
                        report.failed(answer);
                    else if (common.json)
                        report.show(*pm);
                    else
                        write_text(pm_block(*pm));
                });
    report.write_failures();
    return loop.signal() == 0 ? report.code() : exit_code::no_answer;
}

/* Waits for the first indications, which are signals after the confirmations. */
template <typename record_type>
static void await_indications(const settings &common, event_loop &loop, const session &server,
                              const std::map<uint32_t, record_type> &received, size_t expected)
{
    const steady_time end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(common.timeout_ms);
    while (received.size() < expected && std::chrono::steady_clock::now() < end &&
           loop.wait(server.get(), end) != event_loop::wake::signal) {
    }
    if (received.size() < expected)
        throw tool_error(exit_code::no_answer,
                         fmt::format("the server confirmed, but sent no indication within {:g} s: "
                                     "--timeout gives it longer",
                                     common.timeout_ms / 1e3));
}

template <typename record_type>
static void show_all(const settings &common, reporter &report, const char *heading,
                     const std::map<uint32_t, record_type> &records)
{
    table shown({"PORT", heading});
    for (const auto &[port_no, record] : records) {
        if (common.json)
            report.show(record);
        else
            shown.add({std::to_string(port_no), describe(record)});
    }
    if (!common.json && !records.empty())
        write_text(shown.text(terminal_width(common)));
    report.write_failures();
}

static std::vector<port_request> pm_requests(const std::vector<uint32_t> &ports)
{
    return requests_for(TESK_CLIENT_REQUEST_PM, ports);
}

exit_code run_sfp(const settings &common, const ports_text &ports)
{
    event_loop loop;
    reporter report(common);
    std::map<uint32_t, tesk_client_sfp_info> infos;
    session server(loop, common,
                   {[&](const auto &info) { infos.try_emplace(info.port_no, info); }, {}, {}},
                   false);
    const auto held = subscribe_all(
        loop, server,
        requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, select_ports(loop, server, ports)),
        [&](const auto &answer) { report.failed(answer); });
    await_indications(common, loop, server, infos, held.size());
    std::vector<uint32_t> without;
    for (const auto &[port_no, info] : infos)
        if (info.type == TESK_CLIENT_SFP_NOT_PRESENT)
            without.push_back(port_no);
    request_all(loop, server, pm_requests(without), [&](const tesk_client_answer &answer) {
        if (answer.pm != nullptr || answer.rejection == TESK_CLIENT_REJECTION_BUSY)
            infos[answer.port_no].type = module_not_ready;
    });
    show_all(common, report, "MODULE", infos);
    return report.code();
}

exit_code run_status(const settings &common, const ports_text &ports)
{
    event_loop loop;
    reporter report(common);
    std::map<uint32_t, tesk_client_port_status> statuses;
    std::map<uint32_t, tesk_client_sfp_info> infos;
    session server(loop, common,
                   {[&](const auto &info) { infos.try_emplace(info.port_no, info); },
                    [&](const auto &status) { statuses.try_emplace(status.port_no, status); },
                    {}},
                   false);
    const auto held = subscribe_all(
        loop, server,
        requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, select_ports(loop, server, ports)),
        [&](const auto &answer) { report.failed(answer); });
    await_indications(common, loop, server, statuses, held.size());
    std::vector<uint32_t> known, with_module;
    known.reserve(statuses.size());
    for (const auto &[port_no, status] : statuses)
        known.push_back(port_no);
    request_all(loop, server, pm_requests(known), [&](const tesk_client_answer &answer) {
        if (answer.rejection == TESK_CLIENT_REJECTION_NO_MODULE)
            statuses[answer.port_no].sfp_type = TESK_CLIENT_SFP_NOT_PRESENT;
        else if (answer.pm != nullptr || answer.rejection == TESK_CLIENT_REJECTION_BUSY)
            with_module.push_back(answer.port_no);
    });
    read_infos(common, loop, server, with_module, infos,
               [&](const auto &answer) { report.failed(answer); });
    for (const auto &[port_no, info] : infos)
        if (info.type == TESK_CLIENT_SFP_NOT_PRESENT)
            statuses[port_no].sfp_type = module_not_ready;
    show_all(common, report, "STATUS", statuses);
    return report.code();
}
