/* SPDX-License-Identifier: Apache-2.0 */
/* The commands that request the history of tesk-exporter: trend, modules and forecast. */
#include "program/clock.h"
#include "program/http_get.h"
#include "program/json_records.h"
#include "program/output.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/trend_plot.h"
#include "util/escape.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <langinfo.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr int64_t a_day = 86400;
static constexpr std::chrono::seconds patience{12}; /* the exporter's own is ten */

/* The answer as an object. Throws a tool_error with the remedy if there is no answer. */
static json_object ask(const exporter_options &options, const std::string &path)
{
    std::string address = options.address;
    if (address.starts_with("http://"))
        address = address.substr(7, address.find('/', 7) - 7);
    const http_answer answer = http_get(address, path, patience);
    if (answer.status == 0)
        throw tool_error(exit_code::no_server,
                         fmt::format("tesk-exporter at {}: {}; is it running? --exporter names "
                                     "another address",
                                     escape(address), answer.text));
    if (answer.status != 200)
        throw tool_error(answer.status == 503 ? exit_code::no_answer : exit_code::rejected,
                         fmt::format("tesk-exporter: {}",
                                     escape(answer.text.substr(0, answer.text.find('\n')))));
    json_object parsed = json_object::parse(answer.text, nullptr, false);
    if (!parsed.is_object())
        throw tool_error(
            exit_code::rejected,
            fmt::format("what answers at {} is no tesk-exporter: --exporter names its address",
                        escape(address)));
    return parsed;
}

static void write_elements(const json_object &list)
{
    for (const json_object &each : list)
        write_text(to_line(each) + "\n");
}

static size_t terminal_width()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 40)
        return 80;
    return size.ws_col;
}

/* A text of the answer; a dash if it is missing. */
static std::string text_in(const json_object &object, const char *key)
{
    const auto found = object.find(key);
    return found == object.end() || !found->is_string() || found->get<std::string>().empty()
               ? "-"
               : escape(found->get<std::string>());
}

static double number_in(const json_object &object, const char *key)
{
    const auto found = object.find(key);
    return found == object.end() || !found->is_number() ? std::numeric_limits<double>::quiet_NaN()
                                                        : found->get<double>();
}

static std::string date_of(const json_object &object, const char *key)
{
    const double seconds = number_in(object, key);
    return std::isnan(seconds) ? "-" : date(static_cast<uint64_t>(seconds * 1e6));
}

static std::string port_text(const json_object &object)
{
    const std::string name = text_in(object, "interface");
    return fmt::format("{:.0f}{}", number_in(object, "port"),
                       name == "-" ? "" : fmt::format(" ({})", name));
}

static const char *presence(const json_object &place)
{
    const auto found = place.find("present");
    if (found == place.end() || !found->is_boolean())
        return "not known";
    return found->get<bool>() ? "present" : "gone";
}

exit_code run_modules(const settings &common, const exporter_options &options)
{
    const json_object modules = ask(options, "/api/modules")["modules"];
    if (common.json) {
        write_elements(modules);
        return exit_code::done;
    }
    table shown({"SERIAL", "VENDOR", "PART", "PORT", "FIRST SEEN", "LAST SEEN", ""});
    for (const json_object &module : modules) {
        const json_object places = module.value("places", json_object::array());
        const auto in_it = std::ranges::count_if(places, [](const json_object &place) {
            return std::strcmp(presence(place), "present") == 0;
        });
        for (const json_object &place : places)
            shown.add({text_in(module, "serial"), text_in(module, "vendor"),
                       text_in(module, "part"), port_text(place), date_of(place, "since"),
                       date_of(place, "until"),
                       std::string(presence(place)) +
                           (in_it > 1 && text_in(module, "serial") != "-"
                                ? fmt::format(", this serial is in {} ports", in_it)
                                : "")});
    }
    write_text(modules.empty() ? "no module was seen yet\n" : shown.text(0));
    return exit_code::done;
}

/* The lane of a forecast; a dash for the whole module. */
static std::string lane_of(const json_object &forecast)
{
    const double lane = number_in(forecast, "lane");
    return std::isnan(lane) ? "-" : fmt::format("{:.0f}", lane);
}

exit_code run_forecast(const settings &common, const exporter_options &options)
{
    const json_object forecasts = ask(options, "/api/forecast")["forecasts"];
    if (common.json) {
        write_elements(forecasts);
        return exit_code::done;
    }
    table shown({"DAYS LEFT", "80 % OF CASES", "PORT", "LANE", "VALUE", "CAUSE", "SURE", "WHY"});
    for (const json_object &each : forecasts)
        shown.add({fmt::format("{:.1f}", number_in(each, "days_left")),
                   fmt::format("{:.1f} to {:.1f}", number_in(each, "low"), number_in(each, "high")),
                   port_text(each), lane_of(each), text_in(each, "value"), text_in(each, "cause"),
                   text_in(each, "confidence"), text_in(each, "reason")});
    write_text(forecasts.empty() ? "nothing is about to fail, as far as the readings show\n"
                                 : shown.text(common.on_terminal ? terminal_width() : 0));
    return exit_code::done;
}

/* The number of a port that is given by its number or by the name of its interface. */
static uint32_t port_number(const exporter_options &options, const std::string &port)
{
    if (!port.empty() && port.size() < 10 && port.find_first_not_of("0123456789") == port.npos)
        return static_cast<uint32_t>(std::stoul(port));
    const json_object ports = ask(options, "/api/ports")["ports"];
    for (const json_object &each : ports)
        if (text_in(each, "interface") == escape(port))
            return each.value("port", 0U);
    throw tool_error(exit_code::usage,
                     fmt::format("no port is named {}; give one number or name", escape(port)));
}

namespace
{

/* One value of the answer over time. */
struct trend {
    std::string name;
    int decimals;
    const json_object *values;
};

} // namespace

static std::vector<trend> trends_of(const json_object &answer)
{
    static constexpr struct {
        const char *key, *name;
        int decimals;
    } of_lane[] = {{"rx_power_dbm", "receive power, dBm", 2},
                   {"tx_power_dbm", "transmit power, dBm", 2},
                   {"tx_bias_ma", "bias, mA", 2},
                   {"error_ratio", "error ratio", 12}},
      of_port[] = {{"temperature_c", "temperature, C", 1}, {"voltage_v", "voltage, V", 3}};
    std::vector<trend> found;
    const auto add = [&found](const json_object &object, const auto &what,
                              const std::string &lane) {
        if (const auto values = object.find(what.key); values != object.end() && values->is_array())
            found.push_back({what.name + lane, what.decimals, &*values});
    };
    const json_object &lanes = answer.at("lanes");
    for (const auto &what : of_lane)
        for (size_t i = 0; i < lanes.size(); i++)
            add(lanes[i], what, lanes.size() > 1 ? fmt::format(", lane {}", i) : "");
    for (const auto &what : of_port)
        add(answer, what, "");
    return found;
}

/* The middle value of a point. */
static double middle_of(const json_object &point)
{
    const json_object &value = point.is_array() && point.size() == 3 ? point[1] : point;
    return value.is_number() ? value.get<double>() : std::numeric_limits<double>::quiet_NaN();
}

static void write_csv(const json_object &answer, const std::vector<trend> &trends, int64_t first)
{
    std::string line = "time,link";
    for (const trend &each : trends) {
        std::string name = each.name;
        std::erase(name, ',');
        std::ranges::replace(name, ' ', '_');
        line += fmt::format(",{0}_least,{0},{0}_greatest", name);
    }
    write_text(line + "\n");
    const json_object &times = answer.at("time"), &links = answer.at("link");
    for (size_t i = 0; i < times.size(); i++) {
        if (times[i].get<int64_t>() < first)
            continue;
        line = times[i].dump() + "," + (links[i].is_null() ? "" : links[i].dump());
        for (const trend &each : trends) {
            const json_object &point = each.values->at(i);
            for (size_t part = 0; part < 3; part++) {
                const json_object &value = point.is_array() ? point.at(part) : point;
                line += "," + (value.is_null() ? "" : value.dump());
            }
        }
        write_text(line + "\n");
    }
}

static void write_plots(const json_object &answer, const std::vector<trend> &trends, int64_t first,
                        int64_t last)
{
    const bool is_fine = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    const size_t width = std::min<size_t>(terminal_width(), 160) - 10;
    const json_object &times = answer.at("time");
    for (const trend &each : trends) {
        std::vector<std::pair<int64_t, double>> points;
        for (size_t i = 0; i < times.size(); i++)
            points.emplace_back(times[i].get<int64_t>(), middle_of(each.values->at(i)));
        write_text(each.name + "\n" +
                   draw_trend(points, first, last, width, each.decimals, is_fine));
    }
    std::vector<std::pair<int64_t, char>> marks;
    for (const json_object &each : answer.at("events")) {
        const std::string change = text_in(each, "change");
        const char mark = change == "down" ? 'v'
                          : change == "removed" || change == "replaced" || change == "inserted"
                              ? 'x'
                          : change == "forecast" ? '!'
                                                 : ' ';
        if (mark != ' ')
            marks.emplace_back(each.value("time", int64_t{0}), mark);
    }
    const std::string line = draw_marks(marks, first, last, width);
    if (!line.empty())
        write_text(line + "          v link down, x module changed, ! forecast\n");
    const auto when = [](int64_t time) { return date(static_cast<uint64_t>(time) * 1'000'000); };
    write_text(fmt::format("         {}{:>{}}\n", when(first), when(last), width - 10));
}

exit_code run_trend(const settings &common, const trend_options &options)
{
    const uint32_t port = port_number(options.exporter, options.port);
    const char *span = options.days <= 2 ? "2d" : options.days <= 56 ? "8w" : "2y";
    const json_object answer =
        ask(options.exporter, fmt::format("/api/history?port={}&span={}", port, span));
    if (common.json) {
        write_text(to_line(answer) + "\n");
        return exit_code::done;
    }
    try {
        const auto now = static_cast<int64_t>(now_us() / 1'000'000);
        const int64_t first = now - static_cast<int64_t>(options.days * a_day);
        const std::vector<trend> trends = trends_of(answer);
        if (options.csv)
            write_csv(answer, trends, first);
        else if (answer.at("time").empty())
            write_text(fmt::format("nothing was recorded of port {} yet; a step takes five "
                                   "minutes, an hour for more than two days\n",
                                   port));
        else
            write_plots(answer, trends, first, now);
    } catch (const json_object::exception &) {
        throw tool_error(
            exit_code::rejected,
            "the answer of tesk-exporter is of another version: update the older of both");
    }
    return exit_code::done;
}
