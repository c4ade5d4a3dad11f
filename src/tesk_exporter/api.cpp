/* SPDX-License-Identifier: Apache-2.0 */
/* Long lists are written element by element: as one JSON object they would take many times the
   memory of their text. */
#include "tesk_exporter/api.h"

#include "program/clock.h"
#include "program/details_json.h"
#include "program/json_records.h"
#include "util/boot_clock.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace exporter
{

template <typename record_type>
static json_object object_or_null(const std::optional<record_type> &record)
{
    return record ? to_json(*record) : json_object(nullptr);
}

static json_object age_or_null(bool has, steady_time since, steady_time now)
{
    if (!has)
        return nullptr;
    return std::round(std::chrono::duration<double>(now - since).count() * 10) / 10;
}

static json_object time_or_null(uint64_t time_us)
{
    return time_us == 0 ? json_object(nullptr) : json_object(iso_time(time_us));
}

static json_object days_or_null(std::span<const forecast_sample> forecasts, uint32_t port)
{
    const auto soonest = std::ranges::find(forecasts, port, &forecast_sample::port);
    if (soonest == forecasts.end())
        return nullptr;
    return std::round(soonest->days_left * 10) / 10;
}

/* While the server is away, old values are returned with their age, and the page shows that. */
static json_object port_to_json(const model &board, const port_state &port,
                                std::span<const forecast_sample> forecasts, steady_time now)
{
    const bool has_values = port.reading && (!board.is_up() || board.values_of(port, now));
    return {{"port", port.number},
            {"interface", text_or_null(port.interface)},
            {"sfp", object_or_null(port.info)},
            {"status", object_or_null(port.status)},
            {"pm", has_values ? to_json(*port.reading) : json_object(nullptr)},
            {"pm_trouble", text_or_null(port.unread)},
            {"reading_age_s", age_or_null(port.reading.has_value(), port.read_at, now)},
            {"grade_age_s", age_or_null(port.status.has_value(), port.graded_at, now)},
            {"link_changes", port.link_changes},
            {"last_change", time_or_null(port.changed_us)},
            {"forecast_days", days_or_null(forecasts, port.number)}};
}

/* The text of an object whose last key is an open list. */
static std::string open_list(const json_object &head, const char *key)
{
    std::string text = head.dump();
    text.pop_back();
    return text + ",\"" + key + "\":[";
}

std::string ports_json(const model &board, const event_ring &events,
                       std::chrono::milliseconds interval,
                       std::span<const forecast_sample> forecasts, const moment &now)
{
    std::string text = open_list({{"time", iso_time(now.wall_us)},
                                  {"id", events.id(events.next() - 1)},
                                  {"version", TESK_VERSION},
                                  {"up", board.is_up()},
                                  {"trouble", board.trouble()},
                                  {"known", time_or_null(board.known_us(now))},
                                  {"interval_s", std::chrono::duration<double>(interval).count()}},
                                 "ports");
    const char *separator = "";
    for (const auto &[number, port] : board.ports()) {
        text.append(separator).append(port_to_json(board, port, forecasts, now.steady).dump());
        separator = ",";
    }
    return text + "]}\n";
}

std::string port_json(const model &board, const port_state &port,
                      const dolm_ric_details_record *details, tesk_details_result result,
                      std::span<const forecast_sample> forecasts, const moment &now)
{
    json_object object = port_to_json(board, port, forecasts, now.steady);
    const int64_t since_boot = util::boot_time().time_since_epoch().count();
    object["details"] = details != nullptr ? to_json(*details, since_boot) : json_object(nullptr);
    object["details_trouble"] =
        details != nullptr ? json_object(nullptr) : json_object(tesk_details_result_text(result));
    return object.dump() + "\n";
}

static std::string stored_text(plotted value, int16_t stored)
{
    return json_object(plots::in_unit(value, stored)).dump();
}

static std::string hour_point(const plots::slot &slot, plotted value)
{
    return slot[value] == plots::absent ? "null" : stored_text(value, slot[value]);
}

static std::string day_point(const plots::range &range, plotted value)
{
    if (range.least[value] == plots::absent)
        return "null";
    return "[" + stored_text(value, range.least[value]) + "," +
           stored_text(value, range.greatest[value]) + "]";
}

std::string plot_json(const port_state &port, bool is_day, const moment &now)
{
    static constexpr const char *keys[] = {"tx_power_dbm", "rx_power_dbm", "temperature_c",
                                           "voltage_v", "tx_bias_ma"};
    const auto since_start = now.steady.time_since_epoch();
    const auto now_s = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(since_start).count());
    const size_t slots = is_day ? plots::day_slots : plots::hour_slots;
    std::string text = json_object{{"port", port.number},
                                   {"range", is_day ? "day" : "hour"},
                                   {"step_s", is_day ? plots::day_step_s : plots::hour_step_s},
                                   {"end", now.wall_us / 1'000'000}}
                           .dump();
    text.pop_back();
    for (size_t i = 0; i < plotted_values; i++) {
        const auto value = static_cast<plotted>(i);
        text.append(",\"").append(keys[i]).append("\":[");
        for (size_t age = slots; age-- > 0;) {
            text += is_day ? day_point(port.values.day(now_s, age), value)
                           : hour_point(port.values.hour(now_s, age), value);
            text += age > 0 ? "," : "]";
        }
    }
    return text + "}\n";
}

std::string events_json(const event_ring &events, uint32_t port_no)
{
    json_object head;
    head["port"] = port_no;
    std::string text = open_list(head, "events");
    const char *separator = "";
    for (uint64_t number = events.first(); number < events.next(); number++) {
        if (port_of(events.at(number)) != port_no)
            continue;
        text.append(separator).append(events.line(number));
        separator = ",";
    }
    return text + "]}\n";
}

} // namespace exporter
