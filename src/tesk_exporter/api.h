/* SPDX-License-Identifier: Apache-2.0 */
/* api - the JSON that the page requests. Objects of ports have teskctl --json's keys. No state.

   GET /api/ports
     {"time": "2026-03-01T13:02:11.123456Z",   now; all times are in UTC
      "id": "5f0c1-120",             of the last event before this answer, see /events
      "version": "1.0.0",
      "up": true,                    tesk-server is connected and answers in time
      "trouble": "",                 what is wrong; if "up" is false the ports are as last known
      "known": "2026-..",            when that was: now with "up"; null if never known
      "interval_s": 15,              between two reads of the measured values
      "ports": [                     in ascending order
        {"port": 3,
         "interface": "eth3",        null where no name is known
         "sfp": {..} or null,        teskctl's object "sfp", without "time"
         "status": {..} or null,     teskctl's object "status": link, levels (the grades)
         "pm": {..} or null,         teskctl's object "pm": the measured values; null where they
                                     are too old to be those of now
         "pm_trouble": ".." or null, why the last read of them failed
         "reading_age_s": 3.2,       age of the last values; null without any
         "grade_age_s": 120.5,       age of the levels in status; null without it
         "link_changes": 4,          seen since the exporter runs
         "last_change": "2026-..",   null where nothing has changed since
         "forecast_days": 9.5}       until the first limit is met; null without a forecast
      ]}

   GET /api/ports/3
     The port's object as above, and in it
         "details": {..} or null,    teskctl module --json, without "time" and "event"
         "details_trouble": ".."     or null: why there are none

   GET /api/plot?port=3&range=hour   and range=day
     {"port": 3, "range": "hour", "step_s": 15,
      "end": 1772370131,   the last point, in seconds since 1970
      "tx_power_dbm": [..], "rx_power_dbm": [..], "temperature_c": [..], "voltage_v": [..],
      "tx_bias_ma": [..]}
     The hour has 240 points, oldest first, null where nothing was read or there was no light. The
     day has 144 points of 600 s, each of them a pair [least, greatest] or null.

   GET /api/events?port=3
     {"port": 3, "events": [..]}: the port's events that the ring has not yet dropped, oldest first;
     each is the object that /events sends.

   GET /events (see event_stream.h) sends one object a message, in the message's data, with ids:
     {"time", "event": "sfp" | "status", .. teskctl's keys .., "change": ..}
        change of sfp: "initial", "inserted", "removed", "replaced", "not ready"
        change of status: "initial", "up", "down", "grades" (the link is as before)
     {"time", "event": "fall", "port", "cause", "certainty", "side", "layer", "evidence", "ill"}
                                     two seconds after a fall of the link, and once more when the
                                     link is up again and ill; /api/falls has the facts
     {"time", "event": "lost"}       tesk-server went away
     {"time", "event": "restored"}   and is back; initial states of its ports follow
     {"time", "event": "missed"}     events are missing here; initial states of all ports follow
     Each object has an "id", EPOCH-NUMBER: its own, or that of the last event that its state
     includes. Numbers of one epoch, which is one run of the exporter, rise by one for each event;
     times need not rise.

   Errors are text: 400 for a wrong argument, 404 for a port that isn't there. */
#pragma once

#include "tesk_client/tesk_details.h"
#include "tesk_exporter/model.h"
#include "tesk_exporter/outlooks.h"

#include <optional>
#include <span>
#include <string>

namespace exporter
{

/* The bodies of /api/ports, /api/plot and /api/events. `forecasts` are ordered, soonest first. */
std::string ports_json(const model &board, const event_ring &events,
                       std::chrono::milliseconds interval,
                       std::span<const forecast_sample> forecasts, const moment &now);
/* The body of /api/ports/N. `details` is null if there are none; `result` is then the reason. */
std::string port_json(const model &board, const port_state &port,
                      const dolm_ric_details_record *details, tesk_details_result result,
                      std::span<const forecast_sample> forecasts, const moment &now);
std::string plot_json(const port_state &port, bool is_day, const moment &now);
std::string events_json(const event_ring &events, uint32_t port_no);

} // namespace exporter
