/* SPDX-License-Identifier: Apache-2.0 */
/* details_record - functions of both boards for the record of a port's details. Pure functions; any
   thread, with one record at a time. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"

#include <cstddef>
#include <cstdint>

namespace board
{

/* A text as the record has it: printable ASCII, terminated, cut to fit. `length` is the most that
   `text` has. */
void set_text(char *field, size_t size, const char *text, size_t length);

/* As the server grades: a value on a limit counts as beyond it. None without limits. */
uint32_t grade_value(double value, const dolm_ric_details_limits &limits, bool has_low_limits);

dolm_ric_details_limits without_limits(uint32_t why);

/* Lanes that the record hasn't are zero: they take no memory. */
void set_lane_count(uint32_t count, dolm_ric_details_record &record);

/* Forgets the module, for a port that has none, or whose module isn't known. Each value
   of the module gets the state `why` (enum dolm_ric_details_state). */
void forget_module(uint32_t presence, uint32_t why, dolm_ric_details_record &record);

} // namespace board
