/* SPDX-License-Identifier: Apache-2.0 */
/* rules - the scale of each quantity, and constants of its physics. No state.

   A value is stored as a level, on a scale on which a fade is a straight line: light in dB, bias in
   percent of its logarithm, temperature in degrees, errors in decades. Quantities that fail by
   rising have the sign changed. */
#pragma once

#include "forecast/forecast.h"

namespace forecast
{

struct rules {
    const char *name;
    cause why;
    const char *unit;     /* unit of a change of the level */
    double sign;          /* -1: the value fails by rising */
    double resolution;    /* step in which the level is stored in 16 bits */
    double slope;         /* change of the level per degree, before it is learnt */
    double slope_sd;      /* how far a module's slope may differ */
    double curve_sd;      /* curvature: level per square degree, around 40 degrees */
    double noise;         /* change of the level from one day to the next, before it is learnt */
    double sure;          /* a fall has to exceed so many deviations of the daily changes */
    double least_noise;   /* the noise of no series counts as smaller */
    double least_fall;    /* a smaller fall is never reported */
    bool follows_weather; /* weather lowers the level for days */
    double hasty;         /* factor of least_fall if only three days fell */
    double hasty_week;    /* factor of least_fall if four or five days fell */
    double sudden_fall;   /* a fall in one to three days that weather can't cause; 0: not checked */
    double step;          /* a smaller sudden change begins no new series; 0: no change does */
    double notice;        /* a larger sudden fall is reported as a step */
    double fastest;       /* a fall per day that isn't taken for a step between rare readings */
    double horizon;       /* days: no alarm is raised for a limit further away */
    double default_fall;  /* the limit below the first level, if the module has no limit */
};

const rules &rules_of(quantity value);

/* The level of a value; not a number for a value that is impossible. */
double level_of(quantity value, double measured);
/* The value of a level for display: powers in dBm, others in their unit. */
double shown(quantity value, double level);

} // namespace forecast
