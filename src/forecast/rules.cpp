/* SPDX-License-Identifier: Apache-2.0 */
/* Contents: the table, then the conversions to levels. */
#include "forecast/rules.h"

#include <cmath>
#include <limits>

namespace forecast
{

/* Where the figures come from:
   - slope: a reading of light drifts by up to 0.1 dB a degree (measured on modules with lenses in
     plastic); an edge emitter needs 1 to 2 % more current a degree, a VCSEL is flat at its best
     temperature and bends by about 0.01 % a square degree; a controlled laser holds its power.
   - least_fall: the accuracy of a reading over months is a few tenths of a dB; steps of a laser
     table reach 0.35 dB; 5 % of bias is what a few degrees in error make.
   - hasty: cold squeezes a cable for up to a week, so that the light falls for up to three days by
     about 1.2 dB and comes back. Only a deeper or a longer fall is no weather. The far end's
   weather isn't in the module's temperature; lasers and errors have no such cause. Heat has: warm
     spells last for days.
   - sure: one look in a thousand exceeds 3.2 deviations by chance, and what isn't chance is left to
     the other tests. Warm days follow warm days, which second differences don't show: 5.
   - noise: light wanders by some hundredths of a dB within hours; a reading of bias moves by tenths
     of a percent; weather by a degree a day.
   - sudden_fall: more than the 1.2 dB that weather takes, with room for noise.
   - step: half of the least fall would hide in noise; a connector that was moved changes more. For
     transmit power above the steps of a laser table.
   - fastest: light that vanishes in two days still gives a day of warning.
   - horizon: nobody orders a module for next quarter because of a line through last week; four
     weeks are more than what a repair takes. Temperature follows weather, which has no four weeks.
   - default_fall: half of the light, one and a half times the current (end of life is commonly
     30 to 50 % more), 75 degrees less a usual 45. */
static constexpr rules table[quantities] = {
    {.name = "rx_uw",
     .why = cause::light_lost,
     .unit = "dB",
     .sign = 1,
     .resolution = 0.002,
     .slope = 0.03,
     .slope_sd = 0.06,
     .curve_sd = 1e-3,
     .noise = 0.06,
     .sure = 3.2,
     .least_noise = 0.02,
     .least_fall = 0.4,
     .follows_weather = true,
     .hasty = 4,
     .hasty_week = 1.75,
     .sudden_fall = 1.4,
     .step = 0.3,
     .notice = 0.8,
     .fastest = 2.5,
     .horizon = 28,
     .default_fall = 3},
    {.name = "tx_uw",
     .why = cause::laser_ageing,
     .unit = "dB",
     .sign = 1,
     .resolution = 0.002,
     .slope = 0.0,
     .slope_sd = 0.03,
     .curve_sd = 5e-4,
     .noise = 0.03,
     .sure = 3.2,
     .least_noise = 0.02,
     .least_fall = 0.5,
     .follows_weather = false,
     .hasty = 1.5,
     .hasty_week = 1,
     .sudden_fall = 1.4,
     .step = 0.5,
     .notice = 0.8,
     .fastest = 2.5,
     .horizon = 28,
     .default_fall = 3},
    {.name = "bias_ma",
     .why = cause::laser_ageing,
     .unit = "%",
     .sign = -1,
     .resolution = 0.02,
     .slope = -1.0,
     .slope_sd = 0.8,
     .curve_sd = 0.02,
     .noise = 0.5,
     .sure = 3.2,
     .least_noise = 0.2,
     .least_fall = 5,
     .follows_weather = false,
     .hasty = 1.3,
     .hasty_week = 1,
     .sudden_fall = 0,
     .step = 4,
     .notice = 1e9,
     .fastest = 20,
     .horizon = 28,
     .default_fall = 40},
    {.name = "error_ratio",
     .why = cause::signal_worse,
     .unit = "decades",
     .sign = -1,
     .resolution = 0.001,
     .slope = 0,
     .slope_sd = 0.03,
     .curve_sd = 5e-4,
     .noise = 0.1,
     .sure = 3.2,
     .least_noise = 0.05,
     .least_fall = 0.6,
     .follows_weather = false,
     .hasty = 2,
     .hasty_week = 1.5,
     .sudden_fall = 0,
     .step = 0.6,
     .notice = 1e9,
     .fastest = 2,
     .horizon = 28,
     .default_fall = 2},
    {.name = "temperature_c",
     .why = cause::overheating,
     .unit = "degrees",
     .sign = -1,
     .resolution = 0.01,
     .slope = 0,
     .slope_sd = 0,
     .curve_sd = 0,
     .noise = 1,
     .sure = 5,
     .least_noise = 0.2,
     .least_fall = 5,
     .follows_weather = true,
     .hasty = 2.5,
     .hasty_week = 1.2,
     .sudden_fall = 0,
     .step = 0,
     .notice = 1e9,
     .fastest = 1e9,
     .horizon = 14,
     .default_fall = 30},
};

const rules &rules_of(quantity value)
{
    return table[static_cast<int>(value)];
}

const char *name_of(quantity value)
{
    return rules_of(value).name;
}

const char *name_of(cause why)
{
    static constexpr const char *names[] = {"light_lost", "laser_ageing", "overheating",
                                            "signal_worse", "step"};
    return names[static_cast<int>(why)];
}

double level_of(quantity value, double measured)
{
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    /* No optical module has 10 W, 10 A or 1000 degrees. */
    if (!std::isfinite(measured) || std::fabs(measured) > 1e7)
        return none;
    if (value == quantity::temperature)
        return std::fabs(measured) <= 200 ? -measured : none;
    /* A module without light reads zero, and so does a failed reading. Zero has no logarithm. */
    if (measured <= 0)
        return none;
    switch (value) {
    case quantity::bias:
        return -100 * std::log(measured);
    case quantity::error_ratio:
        return -std::log10(measured);
    default:
        return 10 * std::log10(measured / 1000);
    }
}

double shown(quantity value, double level)
{
    switch (value) {
    case quantity::bias:
        return std::exp(-level / 100);
    case quantity::error_ratio:
        return std::pow(10, -level);
    case quantity::temperature:
        return -level;
    default:
        return level;
    }
}

} // namespace forecast
