/* SPDX-License-Identifier: Apache-2.0 */
/* details_metrics - the series of /metrics that come from the details of the ports: limits, lanes,
   flags, CMIS diagnostics, and what reading costs. No state. */
#pragma once

#include "tesk_exporter/metrics_text.h"
#include "tesk_exporter/model.h"
#include "tesk_exporter/port_details.h"

namespace exporter
{

/* The series of all ports of the model that have details; those of lanes only with `has_lanes`. */
void write_details(metrics_writer &writer, const model &board, port_details &details,
                   bool has_lanes);

} // namespace exporter
