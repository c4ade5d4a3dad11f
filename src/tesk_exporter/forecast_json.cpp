/* SPDX-License-Identifier: Apache-2.0 */
/* One report as members of an object, after those that name its port. */
#include "tesk_exporter/forecast_json.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace exporter
{

/* A hundredth of a day is a quarter of an hour. */
static double rounded(double value)
{
    return std::round(value * 100) / 100;
}

json_object report_json(json_object line, const forecast::report &told)
{
    line["time"] = told.time;
    line["lane"] = told.lane;
    line["value"] = forecast::name_of(told.value);
    if (told.what == forecast::change::withdrawn) {
        line["withdraw"] = true;
        line["reason"] = told.reason;
        return line;
    }
    line["cause"] = forecast::name_of(told.cause);
    if (told.what == forecast::change::notice) {
        line["days_left"] = nullptr;
        line["reason"] = told.reason;
        return line;
    }
    line["days_left"] = rounded(told.days_left);
    line["low"] = rounded(told.low);
    line["high"] = rounded(told.high);
    line["limit"] = told.is_default_limit ? "default" : "module";
    line["limit_value"] = rounded(told.limit);
    line["level"] = rounded(told.level);
    line["change_per_day"] = rounded(told.change_per_day);
    line["days_since"] = rounded(told.days_since);
    line["confidence"] = told.confidence;
    line["reason"] = told.reason;
    return line;
}

} // namespace exporter
