/* SPDX-License-Identifier: Apache-2.0 */
/* One table lists all facts; the functions that read, write and omit facts go through it. */
#include "causes/facts_json.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <iterator>
#include <span>
#include <type_traits>
#include <variant>

namespace causes
{
namespace
{

using json = nlohmann::ordered_json;
using member = std::variant<flag facts::*, number facts::*, text facts::*, by_lane facts::*>;

struct row {
    const char *key;
    member where;
    double least = 0, most = 1e12;           /* of numbers */
    std::span<const char *const> words = {}; /* permitted words of a text; empty: any text */
};

} // namespace

static constexpr double coldest = -60, hottest = 200, weakest = -60, strongest = 30;

static constexpr const char *media[] = {"light", "copper"};
static constexpr const char *states[] = {"ready", "low power", "starting", "fault"};

static const row rows[] = {
    {"interface", &facts::interface},
    {"device", &facts::device},
    {"neighbour", &facts::neighbour},
    {"port", &facts::port},
    {"time", &facts::time},
    {"boot", &facts::boot},
    {"since_boot_s", &facts::since_boot_s},
    {"clock_error_s", &facts::clock_error_s},
    {"up_for_s", &facts::up_for_s},
    {"falls_in_minute", &facts::falls_in_minute},
    {"falls_in_hour", &facts::falls_in_hour},
    {"falls_in_day", &facts::falls_in_day},
    {"device_others_fell", &facts::device_others_fell},
    {"device_others_stayed", &facts::device_others_stayed},
    {"machine_others_fell", &facts::machine_others_fell},
    {"machine_others_stayed", &facts::machine_others_stayed},
    {"set_down", &facts::set_down},
    {"interface_removed", &facts::interface_removed},
    {"interface_moved", &facts::interface_moved},
    {"driver_unbound", &facts::driver_unbound},
    {"device_removed", &facts::device_removed},
    {"left_after_s", &facts::left_after_s},
    {"device_reset", &facts::device_reset},
    {"driver_error", &facts::driver_error},
    {"settings_changed", &facts::settings_changed},
    {"extended_state", &facts::extended_state},
    {"remote_fault", &facts::remote_fault},
    {"negotiates", &facts::negotiates},
    {"speed_before", &facts::speed_before},
    {"speed_after", &facts::speed_after},
    {"lanes_before", &facts::lanes_before},
    {"lanes_after", &facts::lanes_after},
    {"fec_before", &facts::fec_before},
    {"fec_after", &facts::fec_after},
    {"corrected_in_minute", &facts::corrected_in_minute},
    {"uncorrectable_in_minute", &facts::uncorrectable_in_minute},
    {"symbol_errors_in_minute", &facts::symbol_errors_in_minute},
    {"frame_errors_in_minute", &facts::frame_errors_in_minute},
    {"counted_for_s", &facts::counted_for_s},
    {"signal_quality_before", &facts::signal_quality_before},
    {"signal_quality_most", &facts::signal_quality_most},
    {"present_before", &facts::present_before},
    {"present_after", &facts::present_after},
    {"serial_before", &facts::serial_before},
    {"serial_after", &facts::serial_after},
    {"serial_after_s", &facts::serial_after_s},
    {"medium", &facts::medium, 0, 0, media},
    {"state_before", &facts::state_before, 0, 0, states},
    {"state_after", &facts::state_after, 0, 0, states},
    {"temperature_before", &facts::temperature_before, coldest, hottest},
    {"temperature_high_alarm", &facts::temperature_high_alarm, coldest, hottest},
    {"rx_before", &facts::rx_before, weakest, strongest},
    {"rx_after", &facts::rx_after, weakest, strongest},
    {"tx_before", &facts::tx_before, weakest, strongest},
    {"tx_after", &facts::tx_after, weakest, strongest},
    {"bias_before", &facts::bias_before},
    {"bias_after", &facts::bias_after},
    {"rx_los_after", &facts::rx_los_after, 0, 1},
    {"rx_lol_after", &facts::rx_lol_after, 0, 1},
    {"tx_los_after", &facts::tx_los_after, 0, 1},
    {"tx_fault_before", &facts::tx_fault_before, 0, 1},
    {"tx_fault_after", &facts::tx_fault_after, 0, 1},
    {"tx_off_before", &facts::tx_off_before, 0, 1},
    {"tx_off_after", &facts::tx_off_after, 0, 1},
    {"rx_low_alarm", &facts::rx_low_alarm, weakest, strongest},
    {"rx_lost_before", &facts::rx_lost_before, -100, 100},
    {"lost_in_s", &facts::lost_in_s},
    {"errors_before", &facts::errors_before, 0, 1},
    {"errors_limit", &facts::errors_limit, 0, 1},
    {"is_up", &facts::is_up},
    {"down_for_s", &facts::down_for_s},
    {"rx_again", &facts::rx_again, weakest, strongest},
    {"errors_again", &facts::errors_again, 0, 1},
    {"uncorrectable_again", &facts::uncorrectable_again},
};

/* The end of the JSON text that begins at this quotation mark. */
static size_t end_of_text(std::string_view json, size_t begin)
{
    size_t at = begin + 1;
    while (at < json.size() && json[at] != '"')
        at += json[at] == '\\' ? 2 : 1;
    return at;
}

/* Facts are at most four levels deep, in objects of some dozens of keys. Deeper objects would need
   too much stack to show, and each key is compared with all others of its object. The parser checks
   whether the text is JSON at all. */
static void expect_bounds(std::string_view json)
{
    constexpr size_t deepest = 8, most_keys = 256, most_objects = size_t{2} * 32 * 1024 + 1;
    std::array<size_t, deepest + 1> keys = {}; /* number of keys of the object on each level */
    size_t level = 0, objects = 0;
    const auto expect = [](size_t count, size_t most, const char *of_what) {
        if (count > most)
            throw facts_error(fmt::format("there are more than {} {}", most, of_what));
    };
    for (size_t i = 0; i < json.size(); i++)
        switch (json[i]) {
        case '"':
            i = end_of_text(json, i);
            break;
        case '{':
            expect(++objects, most_objects, "objects");
            [[fallthrough]];
        case '[':
            expect(++level, deepest, "levels of brackets");
            keys[level] = 0;
            break;
        case '}':
        case ']':
            level -= std::min<size_t>(level, 1);
            break;
        case ':':
            expect(++keys[level], most_keys, "keys in an object");
            break;
        default:
            break;
        }
}

json parse_facts(std::string_view written)
{
    expect_bounds(written);
    return json::parse(written);
}

/* A value in a message: its beginning is enough to find it in the text. */
static std::string shown(const json &value)
{
    constexpr size_t longest = 60;
    const std::string whole = value.dump();
    return whole.size() <= longest ? whole : whole.substr(0, longest) + "..";
}

static double number_of(const row &its, const json &value)
{
    const double read = value.is_number() ? value.get<double>() : NAN;
    if (!(read >= its.least && read <= its.most))
        throw facts_error(fmt::format("{} must be a number from {} to {}, not {}", its.key,
                                      its.least, its.most, shown(value)));
    return read;
}

static std::vector<double> list_of(const row &its, const json &value)
{
    if (!value.is_array() || value.empty() || value.size() > most_lanes)
        throw facts_error(fmt::format("{} must be a list with a number for each of 1 to {} lanes, "
                                      "not {}",
                                      its.key, most_lanes, shown(value)));
    std::vector<double> list;
    for (const json &each : value)
        list.push_back(number_of(its, each));
    return list;
}

static std::string text_of(const row &its, const json &value)
{
    if (!value.is_string() || value.get<std::string>().size() > longest_text)
        throw facts_error(
            fmt::format("{} must be a text of at most {} bytes", its.key, longest_text));
    auto read = value.get<std::string>();
    if (!its.words.empty() && std::ranges::find(its.words, read) == its.words.end())
        throw facts_error(fmt::format("{} must be one of \"{}\", not {}", its.key,
                                      fmt::join(its.words, "\", \""), shown(value)));
    return read;
}

static void take(const row &its, const json &value, facts &to)
{
    std::visit(
        [&](auto where) {
            using kind = std::decay_t<decltype(to.*where)>;
            if constexpr (std::is_same_v<kind, number>) {
                to.*where = number_of(its, value);
            } else if constexpr (std::is_same_v<kind, by_lane>) {
                to.*where = list_of(its, value);
            } else if constexpr (std::is_same_v<kind, flag>) {
                if (!value.is_boolean())
                    throw facts_error(
                        fmt::format("{} must be true or false, not {}", its.key, shown(value)));
                to.*where = value.get<bool>();
            } else {
                to.*where = text_of(its, value);
            }
        },
        its.where);
}

/* Lists of different lengths would compare one lane with another. */
static void expect_one_length(const facts &known)
{
    size_t length = 0;
    for (const row &its : rows)
        if (const auto *where = std::get_if<by_lane facts::*>(&its.where)) {
            const by_lane &list = known.**where;
            if (!list)
                continue;
            if (length != 0 && list->size() != length)
                throw facts_error(
                    fmt::format("{} has {} lanes, others have {}", its.key, list->size(), length));
            length = list->size();
        }
}

facts facts_from(const json &object)
{
    if (!object.is_object())
        throw facts_error("facts must be an object");
    facts known;
    for (const auto &[key, value] : object.items()) {
        const auto *its =
            std::ranges::find_if(rows, [&key = key](const row &each) { return key == each.key; });
        if (its == std::end(rows))
            throw facts_error(
                fmt::format("{} is no fact: see docs/causes.md for their names", shown(key)));
        if (!value.is_null())
            take(*its, value, known);
    }
    expect_one_length(known);
    return known;
}

json to_json(const facts &known)
{
    json object = json::object();
    for (const row &its : rows)
        std::visit(
            [&](auto where) {
                if (known.*where)
                    object[its.key] = *(known.*where);
            },
            its.where);
    return object;
}

std::vector<std::pair<std::string, facts>> without_each(const facts &known)
{
    std::vector<std::pair<std::string, facts>> found;
    for (const row &its : rows)
        std::visit(
            [&](auto where) {
                if (!(known.*where))
                    return;
                facts fewer = known;
                (fewer.*where).reset();
                found.emplace_back(its.key, std::move(fewer));
            },
            its.where);
    return found;
}

} // namespace causes
