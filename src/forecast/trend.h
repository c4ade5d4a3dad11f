/* SPDX-License-Identifier: Apache-2.0 */
/* trend - finds a fall in the days of a series, and distinguishes a fade from weather. No state. */
#pragma once

#include "forecast/series.h"

#include <optional>

namespace forecast
{

/* The last days of a series, each 24 hours long; the first one ends with the last block. */
struct days {
    int count = 0;
    std::array<day, kept_days> of;
};
days days_of(const series &of, const block_ring &temperatures, int64_t last, int most);

/* The median of the falls per day of all pairs of days between `from` and `to`, and how far the
   pairs agree: 1 if all fall, 0 by chance. Not a number with fewer than three days. */
struct fall_rate {
    double a_day, agreement;
};
fall_rate fall_between(const days &seen, int from, int to);

/* The deepest fall that recovered. */
double excursion(const days &seen);

struct fade {
    double fall;      /* fall of the level, without the effect of temperature */
    double span;      /* days of the fall */
    double a_day;     /* the present fall per day */
    double certainty; /* the fall in standard deviations of normal changes in such a span */
};
/* A fade that continues; nothing if none is certain enough. */
std::optional<fade> find_fade(const series &of, const block_ring &temperatures, int64_t last,
                              const days &seen);

/* Days until the level has fallen by `gap`, at the present pace: middle, and an interval of 80 %.
   Within a day the level may be lower by `early`, which makes the lower end earlier. */
struct outlook {
    double left, low, high;
};
outlook outlook_of(const days &seen, double a_day, double gap, double early);

} // namespace forecast
