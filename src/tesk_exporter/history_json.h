/* SPDX-License-Identifier: Apache-2.0 */
/* history_json - the history as JSON. Times are seconds since 1970 by the wall clock of the box.
   The history's thread.

   GET /api/history?port=3&span=2d    and span=8w, span=2y
     {"port": 3, "span": "8w", "step_s": 3600,
      "modules": [{"vendor", "part", "serial", "since", "until"}],   once in the port; until
                                   is null for the present module
      "time": [..],                the begin of each point, rising; there is none without
                                   readings
      "link": [..],                percent of the time with a link; null where it isn't known
      "temperature_c": [..], "voltage_v": [..],
      "lanes": [{"rx_power_dbm": [..], "tx_power_dbm": [..], "tx_bias_ma": [..]}],
                                   and "error_ratio" of a module that measures it
      "events": [{"time", "change", "text"}]}     at most 1000, the newest
     With 2d a point is a number, with 8w and 2y [least, middle, greatest]; null if nothing was
     measured, or for the power of no light.

   GET /api/modules
     {"modules": [{"vendor", "part", "serial",
        "places": [{"port", "interface", "since", "until", "present"}]}]}
     One element for each serial number (modules without one: for each port), with each port in
     which the module was. "present": whether it is in the port now; null if not known yet. */
#pragma once

#include "history/chronicle.h"

#include <string>

namespace exporter
{

/* Empty for a port without history, unless it is followed now; also empty if the file turns out to
   be damaged, see trouble(). The chronicle must be open. `boot` is the present time since boot. */
std::string history_json(history::chronicle &kept, uint32_t port, history::level of, int64_t boot,
                         bool is_followed = false);
std::string modules_json(history::chronicle &kept);

} // namespace exporter
