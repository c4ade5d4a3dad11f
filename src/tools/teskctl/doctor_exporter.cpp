/* SPDX-License-Identifier: Apache-2.0 */
/* The way from the server to Prometheus. The exporter's address is read from its command line,
   which every user may see; the exporter is then asked as a probe would ask it, and Prometheus by
   its own interface when it last read this exporter. */
#include "tools/common/clock.h"
#include "tools/common/json_records.h"
#include "tools/teskctl/doctor_checks.h"
#include "util/descriptor.h"
#include "util/escape.h"
#include "util/local_socket.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <netdb.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/socket.h>

namespace doctor
{

static constexpr char default_address[] = "127.0.0.1:9816";
static constexpr timeval patience = {.tv_sec = 2, .tv_usec = 0};
static constexpr size_t largest_answer = 4 << 20;
static constexpr double longest_pause = 300; /* seconds between two scrapes that are not a fault */

namespace
{

struct http_answer {
    int status = 0; /* 0: no answer; the text says why */
    std::string text;
};

} // namespace

/* The word behind --listen in the command line of the process. */
static std::string listen_address(const std::string &process)
{
    std::ifstream file("/proc/" + process + "/cmdline", std::ios::binary);
    std::string word, before, address = default_address;
    while (std::getline(file, word, '\0')) {
        if (before == "--listen")
            address = word;
        if (word.starts_with("--listen="))
            address = word.substr(word.find('=') + 1);
        before = word;
    }
    return address;
}

static std::pair<std::string, std::string> split_address(const std::string &address)
{
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos)
        return {address, ""};
    std::string host = address.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    return {host, address.substr(colon + 1)};
}

static bool is_local(const std::string &address)
{
    const std::string host = split_address(address).first;
    return address.starts_with("unix:") || host.starts_with("127.") || host == "::1" ||
           host == "localhost";
}

/* Connects to ADDRESS:PORT without a look-up of names, or to unix:PATH; errno where it fails. */
static util::descriptor connect_to_address(const std::string &address)
{
    if (address.starts_with("unix:"))
        return util::connect_to(address.substr(5), SOCK_STREAM);
    const auto [host, port] = split_address(address);
    addrinfo hints{}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    errno = EINVAL;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0)
        return util::descriptor();
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> owned(found, freeaddrinfo);
    util::descriptor connection(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    /* Also the limit of the connecting itself. */
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    if (connect(connection.get(), found->ai_addr, found->ai_addrlen) != 0)
        connection.reset();
    return connection;
}

/* An address at which a listener on all addresses is reached. */
static std::string reachable(const std::string &address)
{
    const auto [host, port] = split_address(address);
    if (host == "localhost" || host == "0.0.0.0" || host.empty())
        return "127.0.0.1:" + port;
    return host == "::" ? "[::1]:" + port : address;
}

static http_answer get(const std::string &given, const std::string &path)
{
    const std::string address = reachable(given);
    const util::descriptor connection = connect_to_address(address);
    if (!connection.is_open())
        return {0, std::strerror(errno)};
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    /* The exporter answers only for a host that it knows, such as its own address. */
    const std::string request = fmt::format("GET {} HTTP/1.0\r\nHost: {}\r\n\r\n", path,
                                            address.starts_with("unix:") ? "localhost" : address);
    if (send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0)
        return {0, std::strerror(errno)};
    std::string text;
    char part[4096];
    ssize_t got = 0;
    while (text.size() < largest_answer &&
           (got = recv(connection.get(), part, sizeof(part), 0)) > 0)
        text.append(part, static_cast<size_t>(got));
    const size_t blank = text.find(' '), body = text.find("\r\n\r\n");
    if (!text.starts_with("HTTP/") || blank == std::string::npos || body == std::string::npos)
        return {0, got < 0 ? "no answer in 2 s" : "the answer is not HTTP"};
    return {static_cast<int>(std::strtol(text.c_str() + blank, nullptr, 10)),
            text.substr(body + 4)};
}

/* The unit denies every address but those of this machine, unless somebody has opened it. */
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
    const http_answer ready = get(address, "/readyz");
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

/* The seconds since an RFC 3339 time in UTC, as Prometheus writes it; nothing for its zero. */
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

static finding check_prometheus(const std::string &prometheus, const std::string &address)
{
    const std::string where = "Prometheus at " + escape(prometheus);
    const http_answer answer = get(prometheus, "/api/v1/targets?state=active");
    if (answer.status == 0)
        return {"prometheus", verdict::note,
                fmt::format("{}: {}; --prometheus names another one", where, answer.text), ""};
    const json_object parsed = json_object::parse(answer.text, nullptr, false);
    const auto place = json_object::json_pointer("/data/activeTargets");
    if (answer.status != 200 || parsed.is_discarded() || !parsed.contains(place))
        return {"prometheus", verdict::note,
                fmt::format("{} answers {} without its targets", where, answer.status), ""};
    const std::string port = ":" + split_address(address).second + "/metrics";
    for (const json_object &target : parsed[place])
        if (target.is_object() && target.value("scrapeUrl", "").find(port) != std::string::npos)
            return judge_target(where, target);
    return {
        "prometheus", verdict::wrong,
        fmt::format("{} has no target with the exporter's port", where),
        fmt::format("add {} to its scrape_configs; docs/fleet.md has an example", escape(address))};
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
