/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: history_json() reads the rows of each module that was in the port, orders them by
   time, and writes one list after the other; as JSON objects the lists would take many times the
   memory of their text. */
#include "tesk_exporter/history_json.h"

#include "program/json_records.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>
#include <iterator>
#include <nlohmann/json.hpp>

namespace exporter
{

static constexpr size_t most_events = 1000;
static constexpr const char *spans[] = {"2d", "8w", "2y"}; /* by level */

namespace
{

struct point {
    int64_t number;
    history::record kept;
};

/* The modules of a port, and the values measured in them. */
struct port_history {
    json_object modules = json_object::array();
    std::vector<point> points; /* in order of time */
    bool is_known = false;     /* the history has a module of this port */
};

} // namespace

static bool is_present(const history::chronicle &kept, const history::place &in)
{
    return kept.occupant_of(in.port) == in.id;
}

static json_object until(const history::chronicle &kept, const history::place &in)
{
    return is_present(kept, in) ? json_object(nullptr) : json_object(kept.time().wall_of(in.last));
}

/* Eight weeks of eight lanes are 129,024 numbers: 2.2 ms to write, and 14 ms as doubles. */
static void append_decimal(std::string &text, int value, size_t places)
{
    char digits[16];
    const auto size = static_cast<size_t>(
        std::to_chars(std::begin(digits), std::end(digits), std::abs(value)).ptr - digits);
    const size_t whole = size - std::min(size, places);
    text += value < 0 ? "-" : "";
    text.append(whole == 0 ? "0" : digits, std::max<size_t>(whole, 1));
    text += '.';
    text.append(places - (size - whole), '0').append(digits + whole, size - whole);
}

/* Writes as many decimal places as the history stores. */
static void append_number(std::string &text, history::measure what, int16_t number)
{
    const history::decimal_step step = history::step_of(what);
    if (number == history::absent)
        text += "null";
    else if (what == history::measure::error_ratio)
        fmt::format_to(std::back_inserter(text), "{:.3g}",
                       std::pow(10, history::value_of(what, number)));
    else
        append_decimal(text, number * step.multiple, static_cast<size_t>(step.places));
}

static void append_values(std::string &text, const char *key, const std::vector<point> &points,
                          size_t index)
{
    const history::measure what = history::measure_at(index);
    const auto at = [index](const history::row &values) {
        return index < values.size() ? values[index] : history::absent;
    };
    text.append("\"").append(key).append("\":[");
    for (const point &each : points) {
        if (&each != points.data())
            text += ',';
        if (each.kept.least.empty() || at(each.kept.middle) == history::absent) {
            append_number(text, what, at(each.kept.middle));
            continue;
        }
        text += '[';
        append_number(text, what, at(each.kept.least));
        text += ',';
        append_number(text, what, at(each.kept.middle));
        text += ',';
        append_number(text, what, at(each.kept.greatest));
        text += ']';
    }
    text += ']';
}

static bool has_errors(const std::vector<point> &points, size_t index)
{
    return std::ranges::any_of(points, [index](const point &each) {
        return index < each.kept.middle.size() && each.kept.middle[index] != history::absent;
    });
}

static void append_lanes(std::string &text, const std::vector<point> &points)
{
    static constexpr const char *keys[] = {"rx_power_dbm", "tx_power_dbm", "tx_bias_ma",
                                           "error_ratio"};
    size_t width = 0;
    for (const point &each : points)
        width = std::max(width, each.kept.middle.size());
    text += "\"lanes\":[";
    for (size_t first = history::per_port; first < width; first += history::per_lane) {
        text += first == history::per_port ? "{" : ",{";
        const bool with_errors = has_errors(points, first + history::per_lane - 1);
        for (size_t i = 0; i < history::per_lane - (with_errors ? 0 : 1); i++) {
            text += i == 0 ? "" : ",";
            append_values(text, keys[i], points, first + i);
        }
        text += '}';
    }
    text += ']';
}

static json_object events_of(history::chronicle &kept, uint32_t port, int64_t first)
{
    json_object list = json_object::array();
    for (const history::event &each : kept.events(port, first, most_events))
        list.push_back({{"time", kept.time().wall_of(each.time)},
                        {"change", each.kind},
                        {"text", text_or_null(each.text)}});
    return list;
}

/* Incomplete if the file turns out to be damaged: then trouble() of the history is set. */
static port_history read_port(history::chronicle &kept, uint32_t port, history::level of,
                              int64_t first, int64_t last)
{
    const int64_t step = history::level_seconds[of];
    port_history read;
    const auto places = kept.places(); /* a copy: a read that finds damage clears them */
    for (const auto &[id, in] : places) {
        if (in.port != port)
            continue;
        read.is_known = true;
        if (in.last / step < first)
            continue;
        read.modules.push_back({{"vendor", text_or_null(in.vendor)},
                                {"part", text_or_null(in.part)},
                                {"serial", text_or_null(in.serial)},
                                {"since", kept.time().wall_of(in.first)},
                                {"until", until(kept, in)}});
        const int64_t behind = is_present(kept, in) ? last : in.last / step;
        kept.read(of, id, std::max(first, in.first / step), behind,
                  [&](int64_t number, const history::record &found) {
                      read.points.push_back({number, found});
                  });
        if (!kept.trouble().empty())
            break;
    }
    std::ranges::stable_sort(read.points, {}, &point::number);
    return read;
}

static void append_points(std::string &text, const history::chronicle &kept, int64_t step,
                          const std::vector<point> &points)
{
    text += ",\"time\":[";
    for (const point &each : points)
        fmt::format_to(std::back_inserter(text), "{}{}", &each == points.data() ? "" : ",",
                       kept.time().wall_of(each.number * step));
    text += "],\"link\":[";
    for (const point &each : points) {
        text += &each == points.data() ? "" : ",";
        text += each.kept.link == history::unknown_share ? "null" : std::to_string(each.kept.link);
    }
    text += "],";
    append_values(text, "temperature_c", points, 0);
    text += ',';
    append_values(text, "voltage_v", points, 1);
    text += ',';
    append_lanes(text, points);
}

std::string history_json(history::chronicle &kept, uint32_t port, history::level of, int64_t boot,
                         bool is_followed)
{
    const int64_t step = history::level_seconds[of], last = kept.time().at(boot) / step,
                  first = last - history::level_length[of];
    port_history read = read_port(kept, port, of, first, last);
    if (!kept.trouble().empty())
        return "";
    const json_object events = events_of(kept, port, first * step);
    if (!kept.trouble().empty() || (!read.is_known && events.empty() && !is_followed))
        return "";
    std::string text = json_object{{"port", port},
                                   {"span", spans[of]},
                                   {"step_s", step},
                                   {"modules", std::move(read.modules)}}
                           .dump();
    text.pop_back();
    append_points(text, kept, step, read.points);
    return text + ",\"events\":" + to_line(events) + "}\n";
}

std::string modules_json(history::chronicle &kept)
{
    std::map<std::array<std::string, 4>, json_object> modules;
    for (const auto &[id, in] : kept.places()) {
        const std::string port = in.serial.empty() ? std::to_string(in.port) : "";
        json_object &module = modules[{in.vendor, in.part, in.serial, port}];
        if (module.is_null())
            module = {{"vendor", text_or_null(in.vendor)},
                      {"part", text_or_null(in.part)},
                      {"serial", text_or_null(in.serial)},
                      {"places", json_object::array()}};
        const bool is_known = kept.occupant_of(in.port).has_value();
        module["places"].push_back(
            {{"port", in.port},
             {"interface", text_or_null(in.interface)},
             {"since", kept.time().wall_of(in.first)},
             {"until", until(kept, in)},
             {"present", is_known ? json_object(is_present(kept, in)) : json_object(nullptr)}});
    }
    json_object list = json_object::array();
    for (auto &[key, module] : modules)
        list.push_back(std::move(module));
    return to_line({{"modules", std::move(list)}}) + "\n";
}

} // namespace exporter
