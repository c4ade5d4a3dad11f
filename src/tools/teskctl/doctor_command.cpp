/* SPDX-License-Identifier: Apache-2.0 */
/* doctor: checks the path from the ports' configuration to this user and to Prometheus, one section
   after the other, and writes a line for each. The checks are independent: without an answer of the
   server, those that need one are left out. */
#include "program/output.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/doctor_checks.h"
#include "tools/teskctl/report.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <nlohmann/json.hpp>

using namespace doctor;

static finding check_versions()
{
    const std::string library = tesk_client_version();
    std::string text = fmt::format("teskctl {}, libtesk_client {}", TESK_VERSION, library);
    bool differ = library != TESK_VERSION;
    const std::string packages =
        output_of("timeout 5 dpkg-query -W -f '${db:Status-Status} ${Package} ${Version}\\n' "
                  "tesk-server tesk-tools "
                  "libtesk-client0 libtesk-client-dev tesk-platform-base tesk-platform-sim "
                  "tesk-platform-linux tesk-exporter python3-tesk-client 2>/dev/null");
    std::string first;
    for (std::string line : lines_of(packages)) {
        static constexpr std::string_view installed = "installed ";
        if (!line.starts_with(installed))
            continue; /* dpkg may know it only by a remaining configuration */
        line.erase(0, installed.size());
        const std::string version = line.substr(line.find(' ') + 1);
        text += ", package " + line;
        differ = differ || (!first.empty() && version != first);
        first = version;
    }
    if (differ)
        return {"versions", verdict::wrong, text, "install all packages from one build"};
    return {"versions", verdict::ok, text, ""};
}

static void write_finding(const settings &common, const finding &found)
{
    static constexpr const char *names[] = {"ok", "note", "wrong"}; /* in the order of verdict */
    const char *state = names[static_cast<size_t>(found.state)];
    if (common.json) {
        json_object object = {
            {"check", found.topic}, {"state", state}, {"text", found.text}, {"remedy", nullptr}};
        if (!found.remedy.empty())
            object["remedy"] = found.remedy;
        write_text(to_line(object) + "\n");
        return;
    }
    write_text(fmt::format("{:<6} {:<10} {}\n", state, found.topic, found.text));
    if (!found.remedy.empty())
        write_text(fmt::format("{:<17} -> {}\n", "", found.remedy));
}

static findings check_all(const settings &common, const std::string &prometheus)
{
    const unit_table units = read_units();
    findings all = {check_directory(units), check_socket(units)};
    const auto add = [&all](findings found) { std::ranges::move(found, std::back_inserter(all)); };
    tesk_client_session *session = nullptr;
    all.push_back(check_server(common, units, &session));
    add(check_units(units, session != nullptr));
    add(check_configuration(units));
    add(check_ports(session));
    tesk_client_close(session);
    add(check_exporter(units, prometheus));
    all.push_back(check_versions());
    return all;
}

exit_code run_doctor(const settings &common, const std::string &prometheus)
{
    exit_code code = exit_code::done;
    for (const finding &each : check_all(common, prometheus)) {
        write_finding(common, each);
        if (each.state == verdict::wrong && code != exit_code::no_server)
            code = each.topic == "server" ? exit_code::no_server : exit_code::rejected;
    }
    return code;
}
