/* SPDX-License-Identifier: Apache-2.0 */
/* The commands that ask once and end: capabilities, pm, sfp, status, history.

   Those with ports ask for all at once, and one port's failure doesn't keep the others from being
   shown: it makes the exit code, of several the highest. Nothing tells how a port is now but an
   indication, so sfp and status subscribe, take the first one, and unsubscribe.

   A table can be laid out only when all rows are there; objects are written as they come. */
#include "tools/common/clock.h"
#include "tools/common/output.h"
#include "tools/common/units.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/port_requests.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"
#include "tools/teskctl/words.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

[[noreturn]] static void fail(tesk_client_result result)
{
    throw tool_error(exit_code_of(result), explain(result, tesk_client_error()));
}

static std::string pm_block(const tesk_client_pm &pm)
{
    std::string text = fmt::format("port {}: {}\n", pm.port_no,
                                   tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, pm.sfp_type));
    auto add = [&text](const char *label, bool has, const std::string &value) {
        text += fmt::format("  {:<15} {:>11}\n", label, has ? value : "absent");
    };
    auto power = [](uint32_t microwatts) {
        return fmt::format("{:>11}  {:>10}", dbm(microwatts), milliwatts(microwatts));
    };
    add("tx power", pm.has_tx_power, power(pm.tx_power));
    add("rx power", pm.has_rx_power, power(pm.rx_power));
    add("temperature", pm.has_temperature, celsius(pm.temperature));
    add("voltage", pm.has_voltage, volts(pm.voltage));
    add("tx bias", pm.has_tx_bias, milliamperes(pm.tx_bias));
    add("loss of signal", pm.has_loss_of_signal, std::to_string(pm.loss_of_signal));
    add("loss of frame", pm.has_loss_of_frame, std::to_string(pm.loss_of_frame));
    std::string errors;
    for (size_t i = 0; i < std::size(pm.bit_errors); i++)
        errors += fmt::format("{}1e-{}: {}", i == 0 ? "" : ", ", 8 - i, pm.bit_errors[i]);
    add("bit errors", pm.has_bit_errors, errors);
    return text;
}

/* What the history table says of a record. */
static std::string what_happened(const tesk_client_history_record &record,
                                 tesk_client_history_kind kind)
{
    switch (kind) {
    case TESK_CLIENT_HISTORY_PORT_STATUS:
        return fmt::format("port {}, filter at {}; {}",
                           tesk_client_text(TESK_CLIENT_TEXT_PORT_STATE, record.port_state),
                           record.filter_level, describe_levels(record.level));
    case TESK_CLIENT_HISTORY_SFP_INFO:
        return fmt::format("module {}",
                           tesk_client_text(TESK_CLIENT_TEXT_PRESENCE, record.presence));
    default:
        return fmt::format("{} for client {} (its reference {})",
                           tesk_client_text(TESK_CLIENT_TEXT_ACTION, record.action),
                           record.client_id, record.conn_ref);
    }
}

static std::vector<std::string> row(const tesk_client_sfp_info &info)
{
    return {std::to_string(info.port_no), describe(info)};
}

static std::vector<std::string> row(const tesk_client_port_status &status)
{
    return {std::to_string(status.port_no), describe(status)};
}

exit_code run_capabilities(const settings &common)
{
    session server(common, {}, false);
    tesk_client_capability capabilities[64];
    size_t count = 0;
    const tesk_client_result result =
        tesk_client_read_capabilities(server.get(), capabilities, std::size(capabilities), &count);
    if (result != TESK_CLIENT_OK)
        fail(result);
    table shown({"CAPABILITY", "VALUE"});
    for (size_t i = 0; i < count; i++) {
        if (common.json)
            reporter(common).line(
                json_object{{"id", capabilities[i].id}, {"value", capabilities[i].value}}.dump());
        shown.add({std::to_string(capabilities[i].id), std::to_string(capabilities[i].value)});
    }
    if (!common.json)
        write_text(shown.text(terminal_width(common)));
    return exit_code::done;
}

exit_code run_pm(const settings &common, const std::vector<uint32_t> &ports)
{
    event_loop loop;
    session server(common, {}, false);
    const reporter report(common);
    exit_code code = exit_code::done;
    request_all(loop, server, requests_for(TESK_CLIENT_REQUEST_PM, ports),
                [&](const tesk_client_answer &answer) {
                    if (answer.result != TESK_CLIENT_OK) {
                        report.failed(answer);
                        code = std::max(code, exit_code_of(answer.result));
                    } else if (common.json) {
                        report.heard(*answer.pm);
                    } else {
                        write_text(pm_block(*answer.pm));
                    }
                });
    return loop.signal() == 0 ? code : exit_code::no_answer;
}

exit_code run_first_indication(const settings &common, tesk_client_kind kind,
                               const std::vector<uint32_t> &ports)
{
    event_loop loop;
    const reporter report(common);
    std::map<uint32_t, std::vector<std::string>> rows;
    auto take = [&](const auto &record) {
        const bool first = rows.try_emplace(record.port_no, row(record)).second;
        if (first && common.json)
            report.heard(record);
    };
    session server(common, {take, take, {}}, false);

    exit_code code = exit_code::done;
    const bool sfp = kind == TESK_CLIENT_SFP_INFO;
    const auto held = subscribe_all(loop, server,
                                    requests_for(sfp ? TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO
                                                     : TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS,
                                                 ports),
                                    [&](const tesk_client_answer &answer) {
                                        report.failed(answer);
                                        code = std::max(code, exit_code_of(answer.result));
                                    });
    const steady_time end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(common.timeout_ms);
    /* The first indication follows its confirmation, but as a signal of its own. */
    while (rows.size() < held.size() && std::chrono::steady_clock::now() < end &&
           loop.wait(server, end) != event_loop::wake::signal) {
    }
    request_all(loop, server, held, [](const tesk_client_answer &) {});
    if (rows.size() < held.size())
        throw tool_error(exit_code::no_answer,
                         "the server confirmed, but sent no indication in time");
    table shown({"PORT", sfp ? "MODULE" : "STATUS"});
    for (const auto &[port, cells] : rows)
        shown.add(cells);
    if (!common.json && !rows.empty())
        write_text(shown.text(terminal_width(common)));
    return code;
}

exit_code run_history(const settings &common, const std::string &kind)
{
    static constexpr const char *names[] = {"status", "sfp", "actions"};
    struct entry {
        tesk_client_history_kind kind;
        tesk_client_history_record record;
    };
    session server(common, {}, false);
    /* The server keeps three histories, each by time; together they tell what led to what. */
    std::vector<entry> entries;
    for (size_t i = 0; i < std::size(names); i++) {
        if (!kind.empty() && kind != names[i])
            continue;
        const auto wanted = static_cast<tesk_client_history_kind>(i);
        tesk_client_history_record records[TESK_CLIENT_HISTORY_LENGTH];
        size_t count = 0;
        const tesk_client_result result =
            tesk_client_read_history(server.get(), wanted, records, std::size(records), &count);
        if (result != TESK_CLIENT_OK)
            fail(result);
        for (size_t j = 0; j < count; j++)
            entries.push_back({wanted, records[j]});
    }
    /* Stable, so that records of one microsecond keep the order of their history. */
    std::ranges::stable_sort(entries, {}, [](const entry &each) { return each.record.time_us; });
    table shown({"TIME", "PORT", "WHAT"});
    for (const entry &each : entries) {
        if (common.json)
            reporter(common).line(to_json(each.record, each.kind).dump());
        shown.add({date_and_time(each.record.time_us), std::to_string(each.record.port_no),
                   what_happened(each.record, each.kind)});
    }
    if (!common.json)
        write_text(shown.text(terminal_width(common)));
    return exit_code::done;
}
