/* SPDX-License-Identifier: Apache-2.0 */
/* module: the details of ports, from the file that the board publishes. It sends no request, so
   neither the server's history nor its clients are affected. With --watch a port is shown again
   when its record has changed. */
#include "program/details_json.h"
#include "program/output.h"
#include "program/run_tool.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/event_loop.h"
#include "tools/teskctl/module_view.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"
#include "util/boot_clock.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fmt/format.h>
#include <langinfo.h>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

using namespace std::chrono_literals;

/* Reading a record's sequence costs a read of eight bytes. */
static constexpr auto watch_interval = 200ms;

namespace
{

struct closes_details {
    void operator()(tesk_details *details) const
    {
        tesk_details_close(details);
    }
};
using details_handle = std::unique_ptr<tesk_details, closes_details>;

} // namespace

static exit_code exit_code_of(tesk_details_result result)
{
    switch (result) {
    case TESK_DETAILS_OK:
        return exit_code::done;
    case TESK_DETAILS_NO_PORT:
        return exit_code::rejected;
    case TESK_DETAILS_BUSY:
        return exit_code::no_answer;
    default:
        return exit_code::no_server;
    }
}

static std::string remedy(tesk_details_result result)
{
    switch (result) {
    case TESK_DETAILS_NO_FILE:
        return ": is the server running, and does its board publish them? DOLM_RIC_DETAILS names "
               "the file, else it stands beside the port map";
    case TESK_DETAILS_NO_ACCESS:
        return ": \"teskctl doctor\" says which group may read them";
    case TESK_DETAILS_NOT_DETAILS:
        return ": see DOLM_RIC_DETAILS";
    case TESK_DETAILS_ENDED:
        return ": start the server";
    case TESK_DETAILS_OTHER_VERSION:
        return ": teskctl and the board's library differ in version";
    case TESK_DETAILS_FAILED:
        return fmt::format(": {}", std::strerror(errno));
    default:
        return {};
    }
}

static tool_error error_of(tesk_details_result result)
{
    return {exit_code_of(result), tesk_details_result_text(result) + remedy(result)};
}

static details_handle open_details()
{
    tesk_details *opened = nullptr;
    const tesk_details_result result = tesk_details_open(nullptr, &opened);
    if (result != TESK_DETAILS_OK)
        throw error_of(result);
    return details_handle(opened);
}

static std::vector<uint32_t> ports_of(tesk_details &details, const ports_text &text,
                                      const port_name_map &names)
{
    if (!is_all(text))
        return parse_ports(text, names);
    std::vector<uint32_t> ports;
    dolm_ric_details_record record;
    for (uint32_t port_no = 0; port_no < tesk_details_port_limit(&details); port_no++)
        if (tesk_details_read(&details, port_no, &record) != TESK_DETAILS_NO_PORT)
            ports.push_back(port_no);
    return ports;
}

/* Clears the fields that every reading changes. */
static void forget_times(dolm_ric_details_record &of)
{
    const int64_t lease_until = of.cost.lease_until;
    of.cost = {};
    of.cost.lease_until = lease_until;
    of.sequence = 0;
    of.published_at = of.identity.read_at = 0;
    for (dolm_ric_details_value &value : of.module_value)
        value.read_at = 0;
    for (uint32_t lane = 0; lane < of.lane_count; lane++) {
        for (dolm_ric_details_value &value : of.lane[lane].value)
            value.read_at = 0;
        for (dolm_ric_details_condition &condition : of.lane[lane].signal)
            condition.last_at = 0;
    }
    for (uint32_t row = 0; row < of.vdm_count; row++)
        of.vdm[row].read_at = 0;
}

static bool is_same_but_for_time(dolm_ric_details_record one, dolm_ric_details_record other)
{
    using bytes = std::array<std::byte, sizeof(dolm_ric_details_record)>;
    forget_times(one);
    forget_times(other);
    return std::bit_cast<bytes>(one) == std::bit_cast<bytes>(other);
}

namespace
{

/* The ports that are shown, with the record of each when last shown. */
class module_output
{
  public:
    module_output(const settings &common, port_name_map names)
        : common_(common), report_(common), names_(std::move(names))
    {
        style_.coloured = common.coloured;
        style_.has_unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    }

    /* Shows the port if more than ages and costs has changed since it was last shown. */
    void show(tesk_details &details, uint32_t port_no)
    {
        dolm_ric_details_record &last = shown_[port_no];
        if (last.sequence != 0 && !tesk_details_is_newer(&details, &last))
            return;
        const dolm_ric_details_record before = last;
        const tesk_details_result result = tesk_details_read(&details, port_no, &last);
        if (result != TESK_DETAILS_OK)
            return fail(port_no, result);
        failed_.erase(port_no);
        if (before.sequence == 0 || !is_same_but_for_time(before, last))
            write(last);
    }

    exit_code code() const
    {
        return code_;
    }

  private:
    void write(const dolm_ric_details_record &record)
    {
        const int64_t now = util::boot_time().time_since_epoch().count();
        if (common_.json) {
            json_object object = {{"event", "module"}};
            const json_object members = to_json(record, now);
            for (const auto &[key, value] : members.items())
                object[key] = value;
            report_.object(object);
            return;
        }
        style_.width = terminal_width(common_);
        const auto name = names_.find(record.port);
        std::string text = is_first_ ? "" : "\n";
        is_first_ = false;
        for (const std::string &line :
             module_lines(record, name == names_.end() ? "" : name->second, now, style_))
            text += line + "\n";
        write_now(text);
    }

    /* Reports a failure when it begins; the port may come back. */
    void fail(uint32_t port_no, tesk_details_result result)
    {
        shown_[port_no] = {};
        code_ = std::max(code_, exit_code_of(result));
        if (failed_[port_no] == result)
            return;
        failed_[port_no] = result;
        complain("teskctl", fmt::format("port {}: {}", port_no,
                                        tesk_details_result_text(result) + remedy(result)));
    }

    const settings &common_;
    reporter report_;
    port_name_map names_;
    module_style style_;
    std::map<uint32_t, dolm_ric_details_record> shown_;
    std::map<uint32_t, tesk_details_result> failed_;
    exit_code code_ = exit_code::done;
    bool is_first_ = true;
};

} // namespace

exit_code run_module(const settings &common, const module_options &options)
{
    event_loop loop;
    const details_handle details = open_details();
    const port_name_map names = port_names();
    const auto ports = ports_of(*details, options.ports, names);
    if (ports.empty())
        throw tool_error(
            exit_code::rejected,
            "the board has published details of no port yet; \"teskctl ports\" lists those that "
            "the server has");
    module_output output(common, names);
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(options.seconds);
    do {
        for (const uint32_t port_no : ports)
            output.show(*details, port_no);
    } while (options.is_watching &&
             (options.seconds == 0 || std::chrono::steady_clock::now() < end) &&
             loop.sleep(watch_interval));
    return output.code();
}
