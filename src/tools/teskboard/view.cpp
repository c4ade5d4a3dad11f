/* SPDX-License-Identifier: Apache-2.0 */
/* Answers have raw values under the board's keys. The board's own table of fields gives the kind of
   each value, which decides how it is shown; a key that isn't in the table is a count. */
#include "tools/teskboard/view.h"

#include "platform/dolm_ric/simulator/vocabulary.h"
#include "program/units.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace teskboard
{

using board::field;
using board::field_kind;
using board::find_field;

/* The kinds of measured values are adjacent in the enumeration. */
static bool is_measure(const field &known)
{
    return known.kind >= field_kind::temperature && known.kind <= field_kind::ratio;
}

/* Fits into 100 columns; the degree sign counts as one column in fmt, too. */
static constexpr auto table_row = "{:>4}  {:<14} {:<7} {:<5} {:<6} {:>9} {:>8} {:>8}  {:<16} {}\n";

/* A decimal or 0x number. Not checked, since the board wrote it. */
static int64_t number_of(std::string_view text)
{
    return std::strtoll(std::string(text).c_str(), nullptr, 0);
}

/* The value as on a data sheet. The board has thousandths and millionths; a power of 0 has no value
   in dBm. */
static std::string format_measure(field_kind kind, std::string_view raw)
{
    const auto value = static_cast<double>(number_of(raw));
    switch (kind) {
    case field_kind::temperature:
        return fmt::format("{:g} {}", value / 1e3, celsius_unit());
    case field_kind::voltage:
        return fmt::format("{:g} V", value / 1e6);
    case field_kind::current:
        return fmt::format("{:g} mA", value / 1e3);
    case field_kind::decibels:
        return fmt::format("{:g} dB", value / 100);
    case field_kind::ratio:
        return fmt::format("{:.2e}", std::pow(10, -value / 1000));
    default:
        return value > 0
                   ? fmt::format("{:g} mW {:.1f} dBm", value / 1e3, 10 * std::log10(value / 1e3))
                   : "0 mW";
    }
}

/* The value with its unit, or its name, if it has one. */
static std::string format_value(const field &known, std::string_view raw)
{
    if (is_measure(known))
        return format_measure(known.kind, raw);
    if (known.kind == field_kind::text)
        return std::string(raw);
    const std::string_view name =
        board::name_of_value(known.kind, static_cast<uint32_t>(number_of(raw)));
    return std::string(name.empty() ? raw : name);
}

static std::string value_in(const answer &port, std::string_view key)
{
    const field *known = find_field(key);
    return format_value(*known, value_of(port, key));
}

static std::string format_cage(const answer &port)
{
    std::string words = value_of(port, "inserted") == "0" ? "empty" : "module";
    if (value_of(port, "ready") != "0")
        words += " ready";
    if (value_of(port, "power_fault") != "0")
        words += " fault";
    return value_of(port, "started") == "0" ? words + " stopped" : words;
}

static std::string format_subscriptions(const answer &port)
{
    return fmt::format("{} {}", value_of(port, "subscribed_port"),
                       value_of(port, "subscribed_link"));
}

/* Measured values stay raw, for programs; other values are shown by name. */
static nlohmann::ordered_json json_value(const std::string &key, const std::string &raw)
{
    const field *known = find_field(key);
    if (known == nullptr)
        return number_of(raw);
    if (known->kind == field_kind::flag)
        return raw != "0";
    const std::string shown = is_measure(*known) ? raw : format_value(*known, raw);
    if (known->kind == field_kind::speed) /* null for a code without a speed */
        return shown == raw ? nlohmann::ordered_json(nullptr)
                            : nlohmann::ordered_json(std::strtod(shown.c_str(), nullptr));
    if (known->kind == field_kind::text || shown != raw)
        return shown;
    return number_of(raw);
}

std::string format_table_head()
{
    return fmt::format(table_row, "PORT", "CAGE", "LINK", "Gbps", "PLUG", "TEMP", "VOLTAGE", "BIAS",
                       "PART", "SUBSCRIBED (PORT LINK)");
}

std::string format_table_row(const answer &port)
{
    /* The board keeps values without meaning: the speed of a link that is down, the measurements of
       a removed module. The table leaves them out. */
    const bool up = value_of(port, "link") == "2";
    const bool there = value_of(port, "inserted") != "0";
    const bool measured = there && value_of(port, "diagnostics") != "0";
    const auto value_if = [&](bool shown, const char *key) {
        return shown ? value_in(port, key) : std::string("-");
    };
    return fmt::format(table_row, value_of(port, "port"), format_cage(port), value_in(port, "link"),
                       value_if(up, "speed"), value_if(there, "connector"),
                       value_if(measured, "temperature"), value_if(measured, "voltage"),
                       value_if(measured, "txbias"), value_if(there, "vendor_pn"),
                       format_subscriptions(port));
}

/* After each measured value come its thresholds. */
std::string format_port(const answer &port)
{
    std::string text = fmt::format("port {}\n", value_of(port, "port"));
    for (const auto &[key, raw] : port) {
        const field *known = find_field(key);
        const bool is_threshold = key.ends_with("_warn") || key.ends_with("_alarm");
        if (key == "port" || is_threshold)
            continue;
        const std::string shown = known != nullptr ? format_value(*known, raw) : raw;
        text += fmt::format("  {:<17} {}\n", key, shown);
        if (known == nullptr || !is_measure(*known) || known->stride != 0)
            continue;
        for (const char *limit : {"low_alarm", "low_warn", "high_warn", "high_alarm"})
            text += fmt::format("    {:<15} {}\n", limit, value_in(port, key + "_" + limit));
    }
    return text;
}

std::string format_board(const answer &board)
{
    std::string text;
    for (const auto &[key, value] : board)
        text += fmt::format("{:<21} {}\n", key, value);
    return text;
}

std::string format_change(const answer &change)
{
    const auto counted = [&](const char *key) {
        const std::string_view count = value_of(change, key);
        const std::string_view one(key, std::string_view(key).size() - 1);
        return fmt::format("{} {}", count, count == "1" ? one : key);
    };
    if (!value_of(change, "failures").empty())
        return counted("failures") + " withdrawn";
    return value_of(change, "events").empty() ? "done" : counted("events");
}

std::string to_json(const answer &lines)
{
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (const auto &[key, value] : lines) {
        if (key == "failure")
            object["failures"].push_back(value);
        else if (key.starts_with("calls."))
            object["calls"][key.substr(6)] = number_of(value);
        else if (key == "step")
            object[key] = board::escape(value, false);
        else if (key == "time")
            object[key] = std::strtod(value.c_str(), nullptr);
        else
            object[key] = json_value(key, value);
    }
    return object.dump() + "\n";
}

} // namespace teskboard
