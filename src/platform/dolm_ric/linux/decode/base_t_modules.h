/* SPDX-License-Identifier: Apache-2.0 */
/* base_t_modules - modules for twisted pair whose memory describes an optical one. No state: any
   thread. */
#pragma once

#include <cstdint>
#include <string_view>

namespace linux_board
{

/* The speed, in 0.1 Gb/s, of the module of this maker and part number, both without padding, if it
   is known to be for twisted pair whatever its memory says; 0 for all other modules. */
uint32_t speed_of_base_t(std::string_view vendor, std::string_view part);

} // namespace linux_board
