/* SPDX-License-Identifier: Apache-2.0 */
/* details_metrics - the series of /metrics that come from the details of the ports: limits,
   lanes, flags, CMIS diagnostics, and what reading costs. Main thread only. */
#pragma once

#include "tesk_exporter/metrics_text.h"
#include "tesk_exporter/model.h"
#include "tesk_exporter/port_details.h"

#include <vector>

namespace exporter
{

/* One text for each family, with the series of all ports of the model that have details; series of
   lanes only with `has_lanes`. Empty if the board publishes no details. */
std::vector<metrics_writer> details_texts(const model &board, port_details &details, bool has_lanes,
                                          text_format format, steady_time now);

} // namespace exporter
