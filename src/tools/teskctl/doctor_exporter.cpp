/* SPDX-License-Identifier: Apache-2.0 */
/* The path from the server to Prometheus. The exporter's address is read from its command line,
   which every user may see. The exporter is then probed at that address, and Prometheus is asked
   when it last read this exporter. */
#include "program/clock.h"
#include "program/http_get.h"
#include "program/json_records.h"
#include "tools/teskctl/doctor_checks.h"
#include "util/escape.h"

#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <unistd.h>
#include <vector>

namespace doctor
{

static constexpr double longest_pause = 300; /* seconds between two scrapes; more is a fault */

/* The word after --listen in the command line of the process. */
static std::string listen_address(const std::string &process)
{
    std::ifstream file("/proc/" + process + "/cmdline", std::ios::binary);
    std::string word, before, address = exporter_address;
    while (std::getline(file, word, '\0')) {
        if (before == "--listen")
            address = word;
        if (word.starts_with("--listen="))
            address = word.substr(word.find('=') + 1);
        before = word;
    }
    return address;
}

static bool is_local_host(const std::string &host)
{
    return host.starts_with("127.") || host == "::1" || host == "localhost";
}

static bool is_local(const std::string &address)
{
    return address.starts_with("unix:") || is_local_host(split_address(address).first);
}

/* Whether the unit denies all addresses but those of this machine, which is its default. */
static bool denies_others(const unit_table &units)
{
    const std::string allowed = property(units, exporter_unit, "IPAddressAllow");
    if (property(units, exporter_unit, "IPAddressDeny").empty())
        return false;
    for (size_t at = 0; at < allowed.size(); at = allowed.find(' ', at) + 1) {
        const std::string_view word = std::string_view{allowed}.substr(at);
        if (!word.starts_with("127.") && !word.starts_with("::1/"))
            return false;
        if (word.find(' ') == std::string_view::npos)
            break;
    }
    return true;
}

static finding check_address(const unit_table &units, const std::string &address)
{
    const std::string text = "listens on " + escape(address);
    if (!is_local(address) && denies_others(units))
        return {"exporter", verdict::wrong,
                text + ", but its unit lets only this machine's addresses through",
                fmt::format("tesk-exporter --listen {} --print-drop-in NETWORK writes the drop-in "
                            "that lets NETWORK through",
                            escape(address))};
    const http_answer ready = http_get(address, "/readyz");
    if (ready.status == 200)
        return {"exporter", verdict::ok, text + ", and is ready", ""};
    if (ready.status == 0)
        return {"exporter", verdict::wrong, fmt::format("{}: {}", text, ready.text),
                "journalctl -u tesk-exporter -n 20 shows why"};
    return {"exporter", verdict::wrong,
            fmt::format("{}, and is not ready: {} {}", text, ready.status,
                        escape(ready.text.substr(0, ready.text.find('\n')))),
            "see the server"};
}

/* The seconds since an RFC 3339 time in UTC, as Prometheus writes it; nothing for its zero time. */
static std::optional<double> seconds_since(const std::string &time)
{
    std::tm parts{};
    const char *end = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (end == nullptr || parts.tm_year < 70 || time.back() != 'Z')
        return std::nullopt;
    return static_cast<double>(now_us()) / 1e6 - static_cast<double>(timegm(&parts));
}

static finding judge_target(const std::string &where, const json_object &target)
{
    const std::string health = target.value("health", ""), error = target.value("lastError", "");
    const auto age = seconds_since(target.value("lastScrape", ""));
    const std::string text = age ? fmt::format("{} read the exporter {:.0f} s ago", where, *age)
                                 : fmt::format("{} has not read the exporter yet", where);
    if (health == "down")
        return {"prometheus", verdict::wrong, fmt::format("{}: {}", text, escape(error)),
                "see the exporter"};
    if (age && *age > longest_pause)
        return {"prometheus", verdict::wrong, text, "see the targets' page of Prometheus"};
    return {"prometheus", age ? verdict::ok : verdict::note, text, ""};
}

/* The host of a target whose address ends in `port`, such as ":9816/metrics"; else empty. */
static std::string host_of(const json_object &target, const std::string &port)
{
    const std::string url = target.is_object() ? target.value("scrapeUrl", "") : "";
    const size_t scheme = url.find("://"), end = url.find(port);
    if (scheme == std::string::npos || end == std::string::npos)
        return "";
    const std::string host = url.substr(scheme + 3, end - scheme - 3);
    return host.starts_with('[') ? host.substr(1, host.size() - 2) : host;
}

/* One Prometheus may read the exporters of many machines, all with the same port. */
static bool is_this_machine(const std::string &host, const std::string &address)
{
    char name[256] = "";
    gethostname(name, sizeof(name) - 1);
    return host == split_address(address).first || is_local_host(host) || host == name ||
           host.starts_with(std::string(name) + ".");
}

static finding check_targets(const json_object &targets, const std::string &where,
                             const std::string &address)
{
    const std::string port = ":" + split_address(address).second + "/metrics";
    std::vector<const json_object *> others;
    for (const json_object &target : targets) {
        const std::string host = host_of(target, port);
        if (host.empty())
            continue;
        if (is_this_machine(host, address))
            return judge_target(where, target);
        others.push_back(&target);
    }
    if (others.size() == 1)
        return judge_target(where, *others.front());
    if (!others.empty())
        return {"prometheus", verdict::note,
                fmt::format("{} has {} targets with the exporter's port, none by a name of this "
                            "machine",
                            where, others.size()),
                ""};
    return {
        "prometheus", verdict::wrong,
        fmt::format("{} has no target with the exporter's port", where),
        fmt::format("add {} to its scrape_configs; docs/fleet.md has an example", escape(address))};
}

static finding check_prometheus(const std::string &prometheus, const std::string &address)
{
    const std::string where = "Prometheus at " + escape(prometheus);
    const http_answer answer = http_get(prometheus, "/api/v1/targets?state=active");
    if (answer.status == 0)
        return {"prometheus", verdict::note,
                fmt::format("{}: {}; --prometheus names another one", where, answer.text), ""};
    const json_object parsed = json_object::parse(answer.text, nullptr, false);
    const auto place = json_object::json_pointer("/data/activeTargets");
    if (answer.status != 200 || parsed.is_discarded() || !parsed.contains(place))
        return {"prometheus", verdict::note,
                fmt::format("{} answers {} without its targets", where, answer.status), ""};
    return check_targets(parsed[place], where, address);
}

findings check_exporter(const unit_table &units, const std::string &prometheus)
{
    const auto of = [&](const char *key) { return property(units, exporter_unit, key); };
    if (of("LoadState").empty() || of("LoadState") == "not-found")
        return {};
    if (of("ActiveState") != "active")
        return {check_unit(units, exporter_unit, "exporter")};
    const std::string address = listen_address(of("MainPID"));
    return {check_address(units, address), check_prometheus(prometheus, address)};
}

} // namespace doctor
