/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the days, then a robust line through them, then the tests of find_fade(). */
#include "forecast/trend.h"

#include <algorithm>

namespace forecast
{

days days_of(const series &of, const block_ring &temperatures, int64_t last, int most)
{
    days seen;
    const int64_t whole = (last - of.first() + 1) / blocks_a_day;
    seen.count = static_cast<int>(std::clamp<int64_t>(whole, 0, most));
    double reference = none;
    for (int i = 0; i < seen.count; i++) {
        day &found = seen.of[static_cast<size_t>(i)];
        found = day_of(of, temperatures, last - static_cast<int64_t>(i) * blocks_a_day, reference);
        if (i == 0)
            reference = found.temperature;
    }
    return seen;
}

fall_rate fall_between(const days &seen, int from, int to)
{
    std::array<float, kept_days *(kept_days - 1) / 2> slopes;
    size_t count = 0;
    int agree = 0, points = 0;
    for (int i = from; i <= to; i++) {
        const float newer = seen.of[static_cast<size_t>(i)].corrected;
        if (std::isnan(newer))
            continue;
        points++;
        for (int j = i + 1; j <= to; j++) {
            const float older = seen.of[static_cast<size_t>(j)].corrected;
            if (std::isnan(older))
                continue;
            slopes[count++] = (older - newer) / static_cast<float>(j - i);
            agree += older > newer ? 1 : older < newer ? -1 : 0;
        }
    }
    if (points < 3)
        return {none, 0};
    const auto centre = slopes.begin() + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(slopes.begin(), centre, slopes.begin() + static_cast<std::ptrdiff_t>(count));
    return {*centre, static_cast<double>(agree) / static_cast<double>(count)};
}

double excursion(const days &seen)
{
    std::array<float, kept_days> newest_side;
    float highest = none;
    for (int i = 0; i < seen.count; i++) {
        highest = std::fmax(highest, seen.of[static_cast<size_t>(i)].corrected);
        newest_side[static_cast<size_t>(i)] = highest;
    }
    double deepest = 0;
    highest = none;
    for (int i = seen.count - 1; i >= 0; i--) {
        const float here = seen.of[static_cast<size_t>(i)].corrected;
        highest = std::fmax(highest, here);
        if (!std::isnan(here))
            deepest =
                std::fmax(deepest, std::fmin(highest, newest_side[static_cast<size_t>(i)]) - here);
    }
    return deepest;
}

static double mean_of(const days &seen, int from, int to)
{
    double sum = 0;
    int count = 0;
    for (int i = from; i <= to; i++)
        if (const float found = seen.of[static_cast<size_t>(i)].corrected; !std::isnan(found)) {
            sum += found;
            count++;
        }
    return count > 0 ? sum / count : none;
}

/* The swing of a day that temperature doesn't explain: the usual one of the days before the
   fall. */
static double usual_spread(const days &seen, int from)
{
    std::array<float, 7> found;
    size_t count = 0;
    for (int i = from; i < seen.count && count < found.size(); i++)
        if (const float spread = seen.of[static_cast<size_t>(i)].spread; !std::isnan(spread))
            found[count++] = spread;
    return count > 0 ? middle({found.data(), count}) : 0;
}

/* Whether the level falls in each third of `span` days, and is still falling. A fall at once,
   weather that is turning, and a level that has settled don't pass this test. */
static bool falls_throughout(const days &seen, int span, double a_day, bool is_hasty)
{
    const int third = std::max(1, (span + 1) / 3);
    const double newest = mean_of(seen, 0, third - 1);
    const double centre = mean_of(seen, third, span - third);
    const double oldest = mean_of(seen, span - third + 1, span);
    /* A straight fall has half of its change on each side; a fall that doubles its pace has a
       quarter. */
    const double least_share = span <= 5 ? 0.2 : 0.3;
    const double whole = oldest - newest;
    if (!(oldest - centre >= least_share * whole && centre - newest >= least_share * whole))
        return false;
    /* A cold spell begins slowly, and slows down before it turns: the test looks at both ends, over
       enough days to see more than noise. */
    const int end = span <= 5 ? 1 : 2;
    const double last = seen.of[0].corrected,
                 before_last = seen.of[static_cast<size_t>(end)].corrected;
    if (before_last - last < 0.6 * a_day * end)
        return false;
    const double first = seen.of[static_cast<size_t>(span)].corrected;
    const double second = seen.of[static_cast<size_t>(span - end)].corrected;
    return !(is_hasty && first - second < 0.4 * a_day * end);
}

/* Whether the level is lower than ever: by the least fall, and by half of its range before the
   fall. For quantities that follow the weather, which need a week of comparison. */
static bool is_new_record(const days &seen, int span, double least)
{
    float lowest = none, highest = none;
    int count = 0;
    for (int i = span + 1; i < seen.count; i++)
        if (const float found = seen.of[static_cast<size_t>(i)].corrected; !std::isnan(found)) {
            lowest = std::fmin(lowest, found);
            highest = std::fmax(highest, found);
            count++;
        }
    return count >= 7 &&
           lowest - seen.of[0].corrected > std::max<double>(least, (highest - lowest) / 2);
}

static std::optional<fade> test_span(const series &of, const days &seen, int span, double deepest)
{
    const rules &known = rules_of(of.value());
    const auto oldest = static_cast<size_t>(span);
    if (std::isnan(seen.of[oldest].corrected) || std::isnan(seen.of[0].corrected))
        return std::nullopt;
    const double least = known.least_fall * (span <= 3   ? known.hasty
                                             : span <= 5 ? known.hasty_week
                                                         : 1);
    const int third = std::max(1, (span + 1) / 3);
    /* A cheap test that excludes nearly every healthy series. */
    if (!(mean_of(seen, span - third + 1, span) - mean_of(seen, 0, third - 1) > least / 2))
        return std::nullopt;
    const fall_rate line = fall_between(seen, 0, span);
    if (std::isnan(line.a_day))
        return std::nullopt;
    const double raw = seen.of[oldest].level - seen.of[0].level;
    /* A change that an uncertain slope could explain, within two deviations, is no evidence. */
    const double doubt = 2 * of.slope().doubt(seen.of[oldest].temperature, seen.of[0].temperature);
    const double fall = line.a_day * span - doubt;
    /* Daily changes are random: over a span their sum grows at most with the span's root. */
    const double wander = of.noise() * std::sqrt(span);
    /* All pairs but one in seven; by chance half of the pairs would agree. */
    constexpr double agreement = 0.7;
    /* A fall that recovered before can do so again: for spans that weather has, the fall must
       exceed the deepest one. */
    const double weather = deepest * (span <= 7 ? 1.25 : 0.7);
    const double swing = 0.5 * usual_spread(seen, span);
    if (fall < least || fall < known.sure * wander || fall < 2.5 * of.quantum() || fall < weather ||
        fall < swing || raw < 0.3 * fall || line.agreement < agreement ||
        !falls_throughout(seen, span, line.a_day, span <= 5 && known.follows_weather) ||
        (of.value() == quantity::temperature && !is_new_record(seen, span, known.least_fall)))
        return std::nullopt;
    const fall_rate now = fall_between(seen, 0, std::clamp(span, 3, 5));
    const double pace = std::isnan(now.a_day) ? line.a_day : std::max(now.a_day, line.a_day / 2);
    return fade{fall, static_cast<double>(span), pace, fall / wander};
}

namespace
{
/* Means of two blocks each, which is six hours, the newest first. */
struct block_pairs {
    static constexpr int most = 12;
    std::array<double, most + 1> level, warmth;
    int count = 0;
};
} // namespace

/* Only up to the first gap: a fall across a gap isn't a sudden one. */
static block_pairs newest_pairs(const series &of, const block_ring &temperatures, int64_t last,
                                float present_temperature)
{
    block_pairs made;
    int64_t newest = last; /* last of the two blocks that make a pair */
    for (; made.count <= block_pairs::most && newest - 1 >= of.first(); made.count++, newest -= 2) {
        double sum = 0, warm = 0;
        int valid = 0;
        for (int64_t block = newest - 1; block <= newest; block++)
            if (const float found = of.blocks().at(block); !std::isnan(found)) {
                const double temperature = -temperatures.at(block);
                sum += found - of.slope().effect(present_temperature, temperature);
                warm += temperature;
                valid++;
            }
        if (valid == 0)
            break;
        made.level[static_cast<size_t>(made.count)] = sum / valid;
        made.warmth[static_cast<size_t>(made.count)] = warm / valid;
    }
    return made;
}

/* A fall within one to three days that is deeper than any caused by weather. */
static std::optional<fade> test_sudden(const series &of, const block_ring &temperatures,
                                       int64_t last, const days &seen, double deepest)
{
    const rules &known = rules_of(of.value());
    if (known.sudden_fall <= 0 || seen.count < 2)
        return std::nullopt;
    const auto [level, warmth, count] =
        newest_pairs(of, temperatures, last, seen.of[0].temperature);
    for (const int span : {4, 6, 8, block_pairs::most}) {
        if (span >= count)
            break;
        const auto oldest = static_cast<size_t>(span);
        const double fall =
            level[oldest] - level[0] - 2 * of.slope().doubt(warmth[oldest], warmth[0]);
        const double spread = usual_spread(seen, span / 4 + 1);
        if (fall < known.sudden_fall || fall < 1.3 * deepest || fall < 1.2 * spread ||
            fall < 2.5 * of.quantum())
            continue;
        int agree = 0, pairs = 0;
        double steepest = 0;
        for (size_t i = 0; i < oldest; i++) {
            steepest = std::max(steepest, level[i + 1] - level[i]);
            for (size_t j = i + 1; j <= oldest; j++, pairs++)
                agree += level[j] > level[i] ? 1 : -1;
        }
        /* A step is one jump, whereas a fall has no dominant part and continues at half its pace or
           more. */
        if (agree < 0.8 * pairs || steepest > 0.45 * fall ||
            level[1] - level[0] < 0.5 * fall / span || level[2] - level[1] < 0.3 * fall / span)
            continue;
        const double a_day = (level[4] - level[0]);
        return fade{fall, span / 4.0, a_day, fall / (of.noise() + spread / 4)};
    }
    return std::nullopt;
}

std::optional<fade> find_fade(const series &of, const block_ring &temperatures, int64_t last,
                              const days &seen)
{
    const double deepest = std::max(excursion(seen), of.past_excursion());
    /* From the shortest span in which a fade differs from weather up to the horizon; each span is a
       third longer, so that one of them fits a fade of any age. */
    for (const int span : {3, 4, 5, 7, 9, 12, 16, 21, 27})
        if (span < seen.count)
            if (const auto found = test_span(of, seen, span, deepest))
                return found;
    return test_sudden(of, temperatures, last, seen, deepest);
}

outlook outlook_of(const days &seen, double a_day, double gap, double early)
{
    /* The middle of the last day is half a day in the past. */
    gap = std::max(0.0, gap - a_day / 2);
    const double straight = gap / a_day;
    const double sooner = std::max(0.0, gap - early) / a_day;
    /* How much faster the fall became within ten days: growth per day, at most a doubling in four
       days. */
    const int half = std::min(5, seen.count / 2);
    double growth = 0;
    if (half >= 3) {
        const double older = fall_between(seen, half, 2 * half - 1).a_day;
        if (older > 0.1 * a_day)
            growth = std::clamp(std::log(a_day / older) / half, 0.0, 0.17);
    }
    /* A fall without visible growth may begin to grow. */
    constexpr double unseen = 0.08;
    const auto with_growth = [](double left, double rate) {
        return rate > 1e-3 ? std::log1p(rate * left) / rate : left;
    };
    const double likely = with_growth(straight, growth * 0.7);
    return {likely, 0.55 * with_growth(sooner, growth + unseen), 1.5 * straight + 0.5};
}

} // namespace forecast
