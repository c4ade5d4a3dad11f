/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: evaluate() chooses the limit, then looks for a fade or follows the announced one;
   standing() writes the present report. */
#include "forecast/alarm.h"

#include <algorithm>
#include <fmt/format.h>

namespace forecast
{

/* The number of days that are examined: twice the horizon shows the usual weather of the series. */
static constexpr int looked_at = 42;

static double own_limit(quantity value, const std::optional<limits> &own)
{
    if (!own || !(own->low_alarm <= own->low_warning && own->low_warning < own->high_warning &&
                  own->high_warning <= own->high_alarm))
        return none;
    return level_of(value, rules_of(value).sign < 0 ? own->high_alarm : own->low_alarm);
}

alarm::alarm(quantity value, int lane, const std::optional<limits> &own)
    : value_(value), lane_(lane), own_limit_(own_limit(value, own))
{
}

void alarm::set_limits(const std::optional<limits> &own)
{
    const double found = own_limit(value_, own);
    if (found == own_limit_ || (std::isnan(found) && std::isnan(own_limit_)))
        return;
    own_limit_ = found;
    is_limit_old_ = true; /* an alarm uses the old limit until the next look */
}

void alarm::forget()
{
    limit_ = none;
    is_raised_ = false;
    seen_in_a_row_ = 0;
    quiet_until_ = 0;
    pace_ = 0;
}

/* The module's own limit, unless the series began beyond it: many modules have the limits of
   another type. */
void alarm::choose_limit(const days &seen)
{
    if ((!std::isnan(limit_) && !is_limit_old_) || seen.count == 0 || std::isnan(seen.of[0].level))
        return;
    is_limit_old_ = false;
    is_default_ = !(seen.of[0].level > own_limit_);
    limit_ = is_default_ ? seen.of[0].level - rules_of(value_).default_fall : own_limit_;
}

void alarm::evaluate(series &of, const block_ring &temperatures, int64_t last, int64_t time,
                     std::vector<report> &reports)
{
    if (std::isnan(of.blocks().at(last)))
        return;
    const days seen = days_of(of, temperatures, last, looked_at);
    choose_limit(seen);
    if (seen.count == 0 || std::isnan(seen.of[0].level) || std::isnan(limit_))
        return;
    level_ = seen.of[0].level;
    look_block_ = last;
    look_time_ = time;
    if (is_raised_)
        follow(last, time, seen, reports);
    else
        look_for_one(of, temperatures, last, seen, reports);
    if (!is_raised_ && last % blocks_a_day == 0)
        of.remember_excursion(excursion(seen));
}

/* Half of the day's swing: how far the lowest hours of a day are below its middle. */
static double usual_swing(const days &seen)
{
    double sum = 0;
    int count = 0;
    for (int i = 0; i < std::min(seen.count, 3); i++)
        if (const day &found = seen.of[static_cast<size_t>(i)]; !std::isnan(found.level)) {
            sum += found.level - found.lowest;
            count++;
        }
    return count > 0 ? sum / count : 0;
}

outlook alarm::ahead(const days &seen) const
{
    return outlook_of(seen, pace_, seen.of[0].level - limit_, usual_swing(seen));
}

void alarm::look_for_one(const series &of, const block_ring &temperatures, int64_t last,
                         const days &seen, std::vector<report> &reports)
{
    const auto found = find_fade(of, temperatures, last, seen);
    pace_ = found ? found->a_day : 0;
    if (!found || last < quiet_until_) {
        seen_in_a_row_ = 0;
        return;
    }
    next_ = ahead(seen);
    if (next_.left > rules_of(value_).horizon) {
        seen_in_a_row_ = 0;
        return;
    }
    if (++seen_in_a_row_ < 2)
        return;
    is_raised_ = true;
    first_pace_ = pace_;
    certainty_ = found->certainty;
    began_ = last - static_cast<int64_t>(found->span * blocks_a_day);
    told_block_ = last;
    told_day_ = static_cast<double>(last) / blocks_a_day + next_.left;
    fall_ = found->fall;
    reports.push_back(*standing());
    reports.back().what = change::raised;
}

/* The present pace, measured over as many days as the level needs to fall by more than noise. */
void alarm::update_pace(const days &seen)
{
    for (const int span : {3, 5, 7, 10}) {
        if (span >= seen.count)
            break;
        const double a_day = fall_between(seen, 0, span).a_day;
        if (!std::isnan(a_day))
            pace_ = std::max(a_day, first_pace_ / 4);
        if (pace_ * span > rules_of(value_).least_fall)
            break;
    }
}

void alarm::follow(int64_t last, int64_t time, const days &seen, std::vector<report> &reports)
{
    const rules &known = rules_of(value_);
    const auto back = [&](int64_t block) {
        return static_cast<int>(
            std::clamp<int64_t>((last - block) / blocks_a_day, 0, seen.count - 1));
    };
    double highest = none, lowest = none;
    for (int i = back(began_); i >= 0; i--) {
        const double here = seen.of[static_cast<size_t>(i)].corrected;
        highest = std::isnan(highest) ? here : highest;
        lowest = std::fmin(lowest, here);
    }
    const double today = seen.of[0].corrected;
    fall_ = highest - lowest;
    if (today - lowest > fall_ / 2 && today - lowest > known.least_fall / 2) {
        withdraw(time,
                 fmt::format("{:.2g} of {:.2g} {} came back.", today - lowest, fall_, known.unit),
                 reports);
        quiet_until_ = last + int64_t{2} * blocks_a_day;
        return;
    }
    const bool is_beyond = seen.of[0].level < limit_;
    if (seen.count > 6 && !is_beyond && last - began_ > int64_t{6} * blocks_a_day &&
        fall_between(seen, 0, 6).a_day < 0.15 * first_pace_) {
        withdraw(time, "The level has stood for a week.", reports);
        quiet_until_ = last + int64_t{2} * blocks_a_day;
        return;
    }
    update_pace(seen);
    next_ = ahead(seen);
    const double day = static_cast<double>(last) / blocks_a_day + next_.left;
    if (last - told_block_ < blocks_a_day / 2 ||
        std::fabs(day - told_day_) < std::max(0.25 * next_.left, 0.5) ||
        (is_beyond && next_.left == 0))
        return;
    told_day_ = day;
    told_block_ = last;
    reports.push_back(*standing());
}

void alarm::note_step(double change, int64_t time, std::vector<report> &reports)
{
    withdraw(time, "A step began a new series.", reports);
    seen_in_a_row_ = 0;
    pace_ = 0;
    limit_ = none;
    if (-change < rules_of(value_).notice)
        return;
    report told = form(change::notice, time);
    told.cause = cause::step;
    told.reason = fmt::format("It fell by {:.2f} {} at once.", -change, rules_of(value_).unit);
    reports.push_back(std::move(told));
}

void alarm::withdraw(int64_t time, const std::string &reason, std::vector<report> &reports)
{
    if (!is_raised_)
        return;
    is_raised_ = false;
    seen_in_a_row_ = 0;
    pace_ = 0;
    reports.push_back(form(change::withdrawn, time));
    reports.back().reason = reason;
}

report alarm::form(change what, int64_t time) const
{
    const char *confidence = certainty_ > 8 ? "high" : certainty_ > 5 ? "good" : "fair";
    return {.what = what,
            .time = time,
            .lane = lane_,
            .value = value_,
            .cause = rules_of(value_).why,
            .days_left = 0,
            .low = 0,
            .high = 0,
            .level = shown(value_, level_),
            .limit = shown(value_, limit_),
            .is_default_limit = is_default_,
            .change_per_day = -rules_of(value_).sign * pace_,
            .days_since = 0,
            .confidence = confidence,
            .reason = {}};
}

std::optional<report> alarm::standing() const
{
    if (!is_raised_)
        return std::nullopt;
    const rules &known = rules_of(value_);
    report told = form(change::changed, look_time_);
    told.days_left = next_.left;
    told.low = next_.low;
    told.high = next_.high;
    told.days_since = static_cast<double>(look_block_ - began_) / blocks_a_day;
    told.reason = fmt::format(
        "It {} by {:.2g} {} in {:.1f} days, now {:.2g} a day{}.", known.sign < 0 ? "rose" : "fell",
        fall_, known.unit, told.days_since, pace_,
        value_ == quantity::temperature ? "" : ", apart from what its temperature makes");
    return told;
}

} // namespace forecast
