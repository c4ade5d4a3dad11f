/* SPDX-License-Identifier: Apache-2.0 */
/* history_json - the history as JSON. Times are seconds since 1970 by the wall clock of the box.
   The history's thread.

   GET /api/history?port=3&span=2d    and span=8w, span=2y
     {"port": 3, "span": "8w", "step_s": 3600,
      "modules": [{"vendor", "part", "serial", "since", "until"}],   that were in it; until is null
                                   for the one that is in it now
      "time": [..],                the begin of each point, rising; times without readings are left
   out "link": [..],                percent of the time with a link; null where it isn't known
      "temperature_c": [..], "voltage_v": [..],
      "lanes": [{"rx_power_dbm": [..], "tx_power_dbm": [..], "tx_bias_ma": [..]}],
                                   and "error_ratio" of a module that measures it
      "events": [{"time", "change", "text"}]}     at most 1000, the newest
     Of 2d a point is a number, of 8w and 2y [least, middle, greatest]; null where nothing was
     measured, as the power of no light.

   GET /api/modules
     {"modules": [{"vendor", "part", "serial",
        "places": [{"port", "interface", "since", "until", "present"}]}]}
     One element for each serial (or port, where a module has none), each port in which it was once.
     "present": whether it is there now; null where that isn't known yet. */
#pragma once

#include "history/chronicle.h"

#include <string>

namespace exporter
{

/* Empty for a port of which nothing is known, unless it is followed now; and where the file turns
   out to be damaged, see trouble(). The chronicle must be open. `boot` is the present. */
std::string history_json(history::chronicle &kept, uint32_t port, history::level of, int64_t boot,
                         bool is_followed = false);
std::string modules_json(history::chronicle &kept);

} // namespace exporter
