/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: feed() passes each step to the forecast of its module; settle() asks for the
   present forecasts, and compares them with those announced. */
#include "tesk_exporter/outlooks.h"

#include "tesk_exporter/forecast_json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

namespace exporter
{

/* The most modules with a forecast, as modules come and go; the state of one takes some KiB for
   each lane. */
static constexpr size_t most_followed = 1024;
static constexpr double a_day = 86400;
static constexpr int64_t longest_silence = int64_t{2} * 86400;

std::string lane_label(int lane)
{
    return lane > 0 ? std::to_string(lane - 1) : "";
}

std::string lane_text(int lane)
{
    return lane > 0 ? " of lane " + lane_label(lane) : "";
}

static double value_at(const history::row &values, size_t index)
{
    if (index >= values.size())
        return std::numeric_limits<double>::quiet_NaN();
    const history::measure what = history::measure_at(index);
    const double value = history::value_of(what, values[index]);
    switch (what) {
    case history::measure::rx_power:
    case history::measure::tx_power:
        return 1000 * std::pow(10, value / 10); /* microwatts */
    case history::measure::error_ratio:
        return std::pow(10, value);
    default:
        return value;
    }
}

static std::vector<forecast::lane_reading> lanes_of(const history::row &values)
{
    std::vector<forecast::lane_reading> lanes;
    for (size_t i = history::per_port; i + history::per_lane <= values.size();
         i += history::per_lane)
        lanes.push_back({value_at(values, i), value_at(values, i + 1), value_at(values, i + 2),
                         value_at(values, i + 3)});
    return lanes;
}

/* The lane and quantity in a text of key_text(): "LANE QUANTITY". */
static std::optional<std::pair<int, forecast::quantity>> lane_and_quantity(std::string_view key)
{
    int lane = 0, what = 0;
    const char *const end = key.data() + key.size();
    const auto first = std::from_chars(key.data(), end, lane);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != ' ')
        return std::nullopt;
    const auto second = std::from_chars(first.ptr + 1, end, what);
    if (second.ec != std::errc() || second.ptr != end || what < 0 || what >= forecast::quantities)
        return std::nullopt;
    return std::pair{lane, static_cast<forecast::quantity>(what)};
}

/* Four numbers for each quantity. */
static std::string limits_text(const outlooks::module_limits &own)
{
    std::string text;
    for (const forecast::limits &each : own)
        text += fmt::format("{} {} {} {} ", each.low_alarm, each.low_warning, each.high_warning,
                            each.high_alarm);
    return text;
}

/* If a number is missing, it and the limits after it stay 0. */
static outlooks::module_limits limits_in(const std::string &text)
{
    outlooks::module_limits own{};
    std::istringstream from(text);
    for (forecast::limits &each : own)
        if (forecast::limits read;
            from >> read.low_alarm >> read.low_warning >> read.high_warning >> read.high_alarm)
            each = read;
    return own;
}

static constexpr char limits_key[] = "limits"; /* a key like those of forecasts */

void outlooks::know_limits(history::chronicle &kept, uint32_t port, const module_limits &own)
{
    const int64_t id = kept.occupant_of(port).value_or(0);
    const std::string text = limits_text(own);
    const auto found = limits_.find(id);
    if (id == 0 || (found != limits_.end() && limits_text(found->second) == text))
        return;
    std::erase_if(limits_, [&](const auto &each) { return !kept.places().contains(each.first); });
    limits_[id] = own;
    kept.announce({id, limits_key, text});
}

void outlooks::feed(const history::place &of, int64_t time, const history::record &read,
                    bool is_past)
{
    const auto lanes = lanes_of(read.middle);
    if (lanes.empty())
        return;
    if (!ports_.contains(of.id) && ports_.size() >= most_followed)
        ports_.erase(
            std::ranges::min_element(ports_, {}, [](const auto &each) { return each.second.fed; }));
    followed &its = ports_[of.id];
    its.fed = time;
    const auto own = limits_.find(of.id);
    for (int i = 0; own != limits_.end() && i < forecast::quantities; i++)
        its.port.set_limits(static_cast<forecast::quantity>(i),
                            own->second[static_cast<size_t>(i)]);
    std::vector<forecast::report> reports;
    its.port.feed({.time = time,
                   .has_link = read.link >= 50, /* an unknown share is larger than 50, too */
                   .has_module = true,
                   .serial = of.serial,
                   .temperature_c = value_at(read.middle, 0),
                   .voltage_v = value_at(read.middle, 1),
                   .lanes = lanes,
                   .is_past = is_past},
                  reports);
    for (const forecast::report &told : reports)
        if (told.what == forecast::change::withdrawn)
            reasons_[{of.id, told.lane, told.value}] = told.reason;
}

/* If a value can't be read for two days, its forecast ends. */
void outlooks::look(int64_t present)
{
    active_.clear();
    for (const auto &[id, its] : ports_)
        for (forecast::report &told : its.port.standing()) {
            const key at{id, told.lane, told.value};
            if (present - told.time > longest_silence) {
                reasons_[at] = "There have been no readings for two days.";
                continue;
            }
            reasons_.erase(at);
            active_.emplace(at, std::move(told));
        }
}

static std::string key_text(int lane, forecast::quantity value)
{
    return fmt::format("{} {}", lane, static_cast<int>(value));
}

/* Feeds hours where steps were dropped, then steps. Returns the time of the history's end. */
int64_t outlooks::feed_all(history::chronicle &kept, const std::function<bool()> &must_stop)
{
    const auto length = [](history::level of) {
        return history::level_length[of] * history::level_seconds[of];
    };
    const int64_t end = kept.time().start(), first_step = end - length(history::step_rows);
    int64_t present = 0; /* time of the rows being read; thousands of rows have the same */
    bool is_over = false;
    const auto take = [&](history::level of) {
        return [&, of](int64_t number, int64_t id, const history::record &read) {
            if (std::exchange(present, number) != number)
                is_over = is_over || must_stop();
            const auto place = kept.places().find(id);
            const bool is_past = of == history::hour_rows;
            const int64_t middle = is_past ? history::level_seconds[of] / 2 : 0;
            if (place != kept.places().end() && !is_over)
                feed(place->second, number * history::level_seconds[of] + middle, read, is_past);
        };
    };
    const int64_t hour = history::level_seconds[history::hour_rows],
                  step = history::level_seconds[history::step_rows];
    kept.read_all(history::hour_rows, (end - length(history::hour_rows)) / hour,
                  first_step / hour - 1, take(history::hour_rows));
    kept.read_all(history::step_rows, first_step / hour * hour / step, end / step,
                  take(history::step_rows));
    return end;
}

void outlooks::restore(history::chronicle &kept, const std::function<bool()> &must_stop)
{
    ports_.clear();
    active_.clear();
    announced_.clear();
    reasons_.clear();
    limits_.clear();
    const auto known = kept.announcements();
    for (const history::announcement &each : known)
        if (each.key == limits_key)
            limits_[each.place] = limits_in(each.text);
    look(feed_all(kept, must_stop));
    for (const history::announcement &each : known) {
        const auto kept_as = lane_and_quantity(each.key);
        if (!kept_as)
            continue;
        const auto [lane, what] = *kept_as;
        const auto found = active_.find({each.place, lane, what});
        forecast::report told{};
        told.lane = lane;
        told.value = what;
        announced_.emplace(key{each.place, lane, what},
                           found == active_.end() ? told : found->second);
    }
}

/* A forecast holds while its module is in its port; if that isn't known yet, the forecast stays. */
static bool is_there(const history::chronicle &kept, int64_t id)
{
    const auto place = kept.places().find(id);
    return place != kept.places().end() && kept.occupant_of(place->second.port).value_or(id) == id;
}

static std::string sentence(const outlooks::news &each)
{
    const forecast::report &told = each.told;
    const std::string what = std::string(forecast::name_of(told.value)) + lane_text(told.lane);
    if (!each.is_raised)
        return fmt::format("{}: withdrawn: {}", what, told.reason);
    return fmt::format("{}: {}, {:.1f} days left ({:.1f} to {:.1f}): {}", what,
                       forecast::name_of(told.cause), told.days_left, told.low, told.high,
                       told.reason);
}

std::vector<outlooks::news> outlooks::settle(history::chronicle &kept, const history::clocks &now)
{
    look(kept.time().at(now.boot));
    std::vector<news> found;
    for (const auto &[at, told] : active_)
        if (!announced_.contains(at) && is_there(kept, std::get<0>(at)))
            found.push_back({true, kept.places().at(std::get<0>(at)), told});
    for (const auto &[at, told] : announced_) {
        const auto place = kept.places().find(std::get<0>(at));
        if (place == kept.places().end() ||
            (active_.contains(at) && is_there(kept, std::get<0>(at))))
            continue;
        news over{false, place->second, told};
        const auto reason = reasons_.find(at);
        over.told.reason = active_.contains(at)       ? "The module isn't in the port any more."
                           : reason == reasons_.end() ? "The history doesn't show it any more."
                                                      : reason->second;
        found.push_back(std::move(over));
    }
    for (const news &each : found) {
        const key at{each.of.id, each.told.lane, each.told.value};
        const std::string text = sentence(each);
        kept.note(each.of.port, "forecast", text, now);
        kept.announce(
            {each.of.id, key_text(each.told.lane, each.told.value), each.is_raised ? text : ""});
        if (each.is_raised)
            announced_.insert_or_assign(at, each.told);
        else
            announced_.erase(at);
    }
    return found;
}

std::vector<forecast::report> outlooks::now_of(const history::chronicle &kept, int64_t boot,
                                               std::vector<history::place> &places) const
{
    std::vector<std::pair<forecast::report, history::place>> found;
    for (const auto &[at, told] : active_) {
        if (!is_there(kept, std::get<0>(at)))
            continue;
        forecast::report now = told;
        now.time = kept.time().at(boot);
        const double passed = static_cast<double>(now.time - told.time) / a_day;
        for (double forecast::report::*each :
             {&forecast::report::days_left, &forecast::report::low, &forecast::report::high})
            now.*each = std::max(now.*each - passed, 0.0);
        now.days_since += passed;
        now.time = kept.time().wall_of(now.time);
        found.emplace_back(std::move(now), kept.places().at(std::get<0>(at)));
    }
    std::ranges::stable_sort(found, {}, [](const auto &each) { return each.first.days_left; });
    std::vector<forecast::report> reports;
    for (auto &[told, place] : found) {
        reports.push_back(std::move(told));
        places.push_back(std::move(place));
    }
    return reports;
}

std::string outlooks::json(const history::chronicle &kept, int64_t boot) const
{
    std::vector<history::place> places;
    const auto reports = now_of(kept, boot, places);
    json_object list = json_object::array();
    for (size_t i = 0; i < reports.size(); i++) {
        const int lane = reports[i].lane;
        json_object line = report_json({{"port", places[i].port},
                                        {"interface", places[i].interface},
                                        {"vendor", places[i].vendor},
                                        {"part", places[i].part},
                                        {"serial", places[i].serial}},
                                       reports[i]);
        line["lane"] = lane > 0 ? json_object(lane - 1) : json_object(nullptr);
        list.push_back(std::move(line));
    }
    return to_line({{"forecasts", std::move(list)}}) + "\n";
}

std::vector<forecast_sample> outlooks::samples(const history::chronicle &kept, int64_t boot) const
{
    std::vector<history::place> places;
    std::vector<forecast_sample> made;
    const auto reports = now_of(kept, boot, places);
    for (size_t i = 0; i < reports.size(); i++)
        made.push_back({places[i].port, reports[i].lane, forecast::name_of(reports[i].value),
                        reports[i].days_left});
    return made;
}

} // namespace exporter
