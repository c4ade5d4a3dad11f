/* SPDX-License-Identifier: Apache-2.0 */
/* details_record - functions of both boards for the record of a port's details. Pure functions; any
   thread, with one record at a time. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"

#include <cstddef>
#include <cstdint>

namespace board
{

/* Writes a text as the record requires: printable ASCII, terminated, cut to fit. `text` has at most
   `length` bytes. */
void set_text(char *field, size_t size, const char *text, size_t length);

/* Grades as the server does: a value equal to a limit counts as beyond it. Without limits the
   result is DOLM_RIC_GRADE_NONE. */
uint32_t grade_value(double value, const dolm_ric_details_limits &limits, bool has_low_limits);

dolm_ric_details_limits without_limits(uint32_t why);

/* Sets the number of lanes. Unused lanes of the record are zero, so that they take no memory. */
void set_lane_count(uint32_t count, dolm_ric_details_record &record);

/* Removes the module's data, for an empty port or one whose module isn't known. Each value of the
   module gets the state `why` (enum dolm_ric_details_state). */
void forget_module(uint32_t presence, uint32_t why, dolm_ric_details_record &record);

} // namespace board
