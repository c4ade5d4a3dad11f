/* SPDX-License-Identifier: Apache-2.0 */
/* module_details - from the memory of a module to the parts of its port's details that are the
   module's. Pure functions; any thread, with one record at a time. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <cstdint>

namespace linux_board
{

/* Takes what has been read of a module: identity, values, limits, flags, and the reasons for what
   is missing. Flags are counted once for each reading. A part that the memory has no more has "no
   answer". `contents` is what decode_module() makes of the memory. */
void take_module(const module_memory &memory, const module_contents &contents,
                 const port_view &view, dolm_ric_details_record &record);

/* Counts the flags and conditions of a reading whose values aren't taken. */
void take_flags(const module_memory &memory, const module_contents &contents,
                dolm_ric_details_record &record);

/* A module is there, ready or not. One that was ready before keeps its identity while it isn't, and
   loses its values for that reason. */
void set_presence(bool is_ready, uint32_t why, int64_t now, dolm_ric_details_record &record);

/* The values that are there are not readable any more, for that reason; their limits stay. */
void lose_values(uint32_t why, dolm_ric_details_record &record);

/* The identity alone; texts that the module doesn't have are empty. */
void take_identity(const module_memory &memory, const module_contents &contents,
                   dolm_ric_details_identity &identity);

} // namespace linux_board
