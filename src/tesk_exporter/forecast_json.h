/* SPDX-License-Identifier: Apache-2.0 */
/* forecast_json - a report of the forecast as JSON, the same for recorded files and for present
   ports: time, lane, value, cause, days_left with low and high, limit, limit_value, level,
   change_per_day, days_since, confidence and reason; a withdrawn report has "withdraw" and reason.
   No state. */
#pragma once

#include "forecast/forecast.h"
#include "program/json_records.h"

namespace exporter
{

/* `line` with the keys of the report added at its end. */
json_object report_json(json_object line, const forecast::report &told);

} // namespace exporter
