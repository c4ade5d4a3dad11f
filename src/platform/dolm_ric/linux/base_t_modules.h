/* SPDX-License-Identifier: Apache-2.0 */
/* base_t_modules - modules for twisted pair that say they are optical. */
#pragma once

#include <string_view>

namespace linux_board
{

/* Whether the module of this maker and part number, both without padding, is a 10GBASE-T one
   whatever else its memory says. */
bool is_known_base_t(std::string_view vendor, std::string_view part);

} // namespace linux_board
