/* SPDX-License-Identifier: Apache-2.0 */
/* rules - how each quantity is measured, and what is known of its physics. Constants, no state.

   A value is kept as a level: on a scale on which a fade is a straight fall, whatever the level.
   Light in dB, bias in percent of its logarithm, temperature in degrees, errors in decades; those
   that fail upwards with the sign changed. */
#pragma once

#include "forecast/forecast.h"

namespace forecast
{

struct rules {
    const char *name;
    cause why;
    const char *unit;     /* of a change of the level */
    double sign;          /* -1: the value fails by rising */
    double resolution;    /* the step of the level in its 16 bits */
    double slope;         /* level a degree, before anything is learnt */
    double slope_sd;      /* how far a module may be from that */
    double curve_sd;      /* how far from a straight line; level a square degree, around 40 */
    double noise;         /* from one day to the next, before anything is learnt */
    double sure;          /* a fall has to exceed so many deviations of what days wander */
    double least_noise;   /* no series is taken to be quieter */
    double least_fall;    /* a smaller fall is never reported */
    bool follows_weather; /* weather lowers the level for days */
    double hasty;         /* factor of least_fall where only three days fell */
    double hasty_week;    /* factor of least_fall where four or five days fell */
    double sudden_fall;   /* a fall in one to three days that no weather makes; 0: not looked for */
    double step;          /* a smaller change at once doesn't begin a new series; 0: none does */
    double notice;        /* a larger fall at once is reported as a step */
    double fastest;       /* fall a day that isn't taken for a step between rare readings */
    double horizon;       /* days: no alarm is raised for a limit that is further away */
    double default_fall;  /* the limit, from the first level on, where the module has none */
};

const rules &rules_of(quantity value);

/* Level of a value; not a number for one that can't be right. */
double level_of(quantity value, double measured);
/* The value of a level as it is shown: powers in dBm, others in their unit. */
double shown(quantity value, double level);

} // namespace forecast
