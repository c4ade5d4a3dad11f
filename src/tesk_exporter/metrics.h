/* SPDX-License-Identifier: Apache-2.0 */
/* metrics - the content of /metrics: the board's state from the model, and the exporter's own
   figures. No state. */
#pragma once

#include "tesk_exporter/metrics_text.h"
#include "tesk_exporter/model.h"
#include "tesk_exporter/outlooks.h"
#include "tesk_exporter/port_details.h"

#include <map>

namespace exporter
{

/* The exporter's own figures. */
struct exporter_figures {
    std::map<unsigned, uint64_t> responses; /* by HTTP status */
    uint64_t connections = 0;               /* open now */
    uint64_t streams = 0;                   /* event streams that are open now */
    uint64_t ended_connections = 0;         /* as too slow, or as idle when there were too many */
    uint64_t events = 0;
    uint64_t lost_journal_records = 0;
    bool has_history = false;     /* a history is enabled */
    bool is_history_well = false; /* the history is open and can be written */
    uint64_t lost_history_records = 0;
    std::vector<forecast_sample> forecasts;
    uint64_t started_us = 0; /* wall clock */
    std::chrono::milliseconds interval{15000};
};

/* The whole text of /metrics at the time `now`, with series of lanes if `has_lanes`. */
std::string render_metrics(const model &board, port_details &details, bool has_lanes,
                           const exporter_figures &figures, text_format format, steady_time now);

} // namespace exporter
