/* SPDX-License-Identifier: Apache-2.0 */
/* module_details - fills the module's parts of a port's details from the memory of the module. Pure
   functions; any thread, with one record at a time. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <cstdint>

namespace linux_board
{

/* Fills in what has been read of a module: identity, values, limits, flags, and the reasons for
   what is missing. Flags are counted once for each reading. A part that could be read before and
   now can't has the state "no answer". `contents` is the result of decode_module(memory). */
void take_module(const module_memory &memory, const module_contents &contents,
                 const port_view &view, dolm_ric_details_record &record);

/* Counts the flags and conditions of a reading whose values are not used. */
void take_flags(const module_memory &memory, const module_contents &contents,
                dolm_ric_details_record &record);

/* Records that a module is present, ready or not. A module that stops being ready keeps its
   identity; its values get the state `why`. */
void set_presence(bool is_ready, uint32_t why, int64_t now, dolm_ric_details_record &record);

/* Gives the present values the state `why`, since they can't be read any more; their limits
   stay. */
void lose_values(uint32_t why, dolm_ric_details_record &record);

/* Fills the identity alone; texts that the module doesn't have are empty. */
void take_identity(const module_memory &memory, const module_contents &contents,
                   dolm_ric_details_identity &identity);

} // namespace linux_board
