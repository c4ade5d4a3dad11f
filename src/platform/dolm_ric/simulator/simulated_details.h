/* SPDX-License-Identifier: Apache-2.0 */
/* simulated_details - the values of a simulated port as the details of a port. Pure functions. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/simulator/vocabulary.h"

#include <cstdint>

namespace board
{

/* Brings the record up to date at the time `now`. Values that a simulated module lacks are "not
   supported". */
void describe_port(const port_values &port, const module_values &module, int64_t now,
                   dolm_ric_details_record &record);

/* The diagnostics as the library's calls give them, which know no lanes: of several the value is
   that of the lane nearest to its limits, without those whose laser is switched off. */
dolm_ric_module_diag diagnostics_of(const module_values &module);

} // namespace board
