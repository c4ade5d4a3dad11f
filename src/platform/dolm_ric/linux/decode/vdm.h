/* SPDX-License-Identifier: Apache-2.0 */
/* vdm - the versatile diagnostics of CMIS modules: up to four groups of 64 observed values, each
   group with a page of descriptors, a page of values and a page of limits; one more page has the
   flags of all groups. Only current values are read: freezing them would need writes. Pure
   functions. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <cstdint>

namespace linux_board
{

/* The first pages of descriptors, values and limits. */
constexpr uint8_t vdm_descriptors = 0x20;
constexpr uint8_t vdm_values = 0x24;
constexpr uint8_t vdm_limits = 0x28;

constexpr memory_range vdm_groups_range = {identity_address, 0, 0x2f, 128, 2};
constexpr memory_range vdm_flags_range = {identity_address, 0, 0x2c, 128, 128};

constexpr memory_range vdm_range(uint8_t first_page, uint8_t group)
{
    return {identity_address, 0, static_cast<uint8_t>(first_page + group), 128, 128};
}

/* Whether page 01h says that the module has these pages. False until that page is known. */
bool has_vdm(const module_memory &memory);

/* 0 until the number has been read. */
uint8_t vdm_group_count(const module_memory &memory);

/* Fills the rows of the record that have a descriptor, and sets the reason where there are none.
   `pages` is the state (enum dolm_ric_details_state) of the module's upper pages: unless it is
   "valid" there are no rows. A row whose values can't be read any more keeps the time of its last
   value. */
void take_vdm(const module_memory &memory, uint32_t pages, dolm_ric_details_record &record);

} // namespace linux_board
