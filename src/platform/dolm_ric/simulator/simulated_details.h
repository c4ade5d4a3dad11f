/* SPDX-License-Identifier: Apache-2.0 */
/* simulated_details - writes the values of a simulated port into the details of a port. Pure
   functions. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/simulator/vocabulary.h"

#include <cstdint>

namespace board
{

/* Updates the record at the time `now`. Values that a simulated module lacks are "not
   supported". */
void describe_port(const port_values &port, const module_values &module, int64_t now,
                   dolm_ric_details_record &record);

/* The diagnostics for the library's calls, which have no lanes: of several lanes the value is that
   of the lane nearest to its limits, without lanes whose laser is switched off. */
dolm_ric_module_diag diagnostics_of(const module_values &module);

} // namespace board
