/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: stored() and value_of() convert one value, encode() and decode() a record; the
   accumulator combines several records into one. */
#include "history/row.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace history
{

static constexpr uint8_t has_errors = 0x80;
static constexpr size_t head_size = 2;

/* In the order of enum measure. */
static constexpr decimal_step steps[] = {{1, 2}, {2, 4}, {2, 3}, {2, 3}, {1, 2}, {1, 3}};
static constexpr double powers_of_ten[] = {1, 10, 100, 1000, 10'000};

decimal_step step_of(measure what)
{
    return steps[static_cast<size_t>(what)];
}

measure measure_at(size_t index)
{
    static constexpr measure of_lane[per_lane] = {measure::rx_power, measure::tx_power,
                                                  measure::bias, measure::error_ratio};
    if (index < per_port)
        return index == 0 ? measure::temperature : measure::voltage;
    return of_lane[(index - per_port) % per_lane];
}

int16_t stored(measure what, double value)
{
    if (!std::isfinite(value))
        return absent;
    const decimal_step step = step_of(what);
    const double number = value * powers_of_ten[step.places] / step.multiple;
    return static_cast<int16_t>(std::lround(std::clamp(number, -32767.0, 32767.0)));
}

double value_of(measure what, int16_t kept)
{
    if (kept == absent)
        return std::numeric_limits<double>::quiet_NaN();
    const decimal_step step = step_of(what);
    return kept * step.multiple / powers_of_ten[step.places];
}

static bool is_error(size_t index)
{
    return measure_at(index) == measure::error_ratio;
}

static void append(std::string &blob, const row &values, size_t count, bool with_errors)
{
    for (size_t i = 0; i < count; i++) {
        if (is_error(i) && !with_errors)
            continue;
        const auto bits = static_cast<uint16_t>(i < values.size() ? values[i] : absent);
        blob += static_cast<char>(bits & 0xff);
        blob += static_cast<char>(bits >> 8);
    }
}

std::string encode(const record &kept, bool is_summary)
{
    const size_t count = std::max(kept.middle.size(), per_port);
    const size_t lanes = std::min((count - per_port) / per_lane, most_lanes);
    bool with_errors = false;
    for (size_t i = per_port; i < kept.middle.size(); i++)
        with_errors |= is_error(i) && kept.middle[i] != absent;
    std::string blob;
    blob += static_cast<char>(lanes | (with_errors ? has_errors : 0));
    blob += static_cast<char>(kept.link);
    const size_t used = per_port + lanes * per_lane;
    if (is_summary)
        append(blob, kept.least, used, with_errors);
    append(blob, kept.middle, used, with_errors);
    if (is_summary)
        append(blob, kept.greatest, used, with_errors);
    return blob;
}

static row take_row(std::string_view &rest, size_t lanes, bool with_errors)
{
    row values(per_port + lanes * per_lane, absent);
    for (size_t i = 0; i < values.size(); i++) {
        if (is_error(i) && !with_errors)
            continue;
        const auto low = static_cast<uint8_t>(rest[0]), high = static_cast<uint8_t>(rest[1]);
        values[i] = static_cast<int16_t>(low | high << 8);
        rest.remove_prefix(2);
    }
    return values;
}

std::optional<record> decode(std::string_view blob)
{
    if (blob.size() < head_size)
        return std::nullopt;
    const auto head = static_cast<uint8_t>(blob[0]);
    const bool with_errors = (head & has_errors) != 0;
    const size_t lanes = head & ~has_errors;
    const size_t row_size = 2 * (per_port + lanes * (with_errors ? per_lane : per_lane - 1));
    record found;
    found.link = static_cast<uint8_t>(blob[1]);
    std::string_view rest = blob.substr(head_size);
    const bool is_summary = rest.size() == 3 * row_size;
    if (lanes > most_lanes || (!is_summary && rest.size() != row_size))
        return std::nullopt;
    if (is_summary)
        found.least = take_row(rest, lanes, with_errors);
    found.middle = take_row(rest, lanes, with_errors);
    if (is_summary)
        found.greatest = take_row(rest, lanes, with_errors);
    return found;
}

/* Replaces each value of `kept` by that of `next` if choose() prefers it; an absent value is never
   preferred. */
template <typename choose_type>
static void widen(row &kept, const row &next, choose_type choose)
{
    kept.resize(std::max(kept.size(), next.size()), absent);
    for (size_t i = 0; i < next.size(); i++)
        if (next[i] != absent)
            kept[i] = kept[i] == absent ? next[i] : choose(kept[i], next[i]);
}

void accumulator::add(const record &next)
{
    count_++;
    if (next.link != unknown_share) {
        link_sum_ += next.link;
        link_count_++;
    }
    widen(least_, next.least.empty() ? next.middle : next.least,
          [](int16_t one, int16_t other) { return std::min(one, other); });
    widen(greatest_, next.greatest.empty() ? next.middle : next.greatest,
          [](int16_t one, int16_t other) { return std::max(one, other); });
    if (middles_.size() < most_middles)
        middles_.push_back(next.middle);
}

static int16_t median_of(const std::vector<row> &rows, size_t index)
{
    std::vector<int16_t> found;
    for (const row &each : rows)
        if (index < each.size() && each[index] != absent)
            found.push_back(each[index]);
    if (found.empty())
        return absent;
    const auto middle = found.begin() + static_cast<ptrdiff_t>(found.size() / 2);
    std::nth_element(found.begin(), middle, found.end());
    return *middle;
}

record accumulator::finish()
{
    record made;
    if (link_count_ > 0)
        made.link = static_cast<uint8_t>(link_sum_ / link_count_);
    made.middle.resize(least_.size());
    for (size_t i = 0; i < made.middle.size(); i++)
        made.middle[i] = median_of(middles_, i);
    made.least = std::move(least_);
    made.greatest = std::move(greatest_);
    *this = {};
    return made;
}

} // namespace history
