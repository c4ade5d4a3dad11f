/* SPDX-License-Identifier: Apache-2.0 */
/* trend - finds a fall in the days of a series, and distinguishes a fade from weather. No state. */
#pragma once

#include "forecast/series.h"

#include <optional>

namespace forecast
{

/* The last days of a series, each 24 hours long; the first ends with the last block. */
struct days {
    int count = 0;
    std::array<day, kept_days> of;
};
days days_of(const series &of, const block_ring &temperatures, int64_t last, int most);

/* The middle of the falls a day between all pairs of days from `from` to `to`, and how far the
   pairs agree: 1 when all fall, 0 by chance. Not a number with fewer than three days. */
struct fall_rate {
    double a_day, agreement;
};
fall_rate fall_between(const days &seen, int from, int to);

/* The deepest fall that came back. */
double excursion(const days &seen);

struct fade {
    double fall;      /* of the level, without temperature */
    double span;      /* days in which it fell */
    double a_day;     /* the present pace */
    double certainty; /* in standard deviations of the changes that are normal in such a span */
};
/* A fade that is going on; nothing: none that is sure. */
std::optional<fade> find_fade(const series &of, const block_ring &temperatures, int64_t last,
                              const days &seen);

/* Days until a fall by `gap` (and by `early`, which the swing of a day takes off) with the present
   pace: middle, and an interval of 80 %. */
struct outlook {
    double left, low, high;
};
outlook outlook_of(const days &seen, double a_day, double gap, double early);

} // namespace forecast
