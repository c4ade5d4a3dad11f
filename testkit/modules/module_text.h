/* SPDX-License-Identifier: Apache-2.0 */
/* module_text - all that was decoded of a module, in the words and units of `ethtool -m`, so that
   the two can be compared line by line. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"

#include <string>
#include <string_view>
#include <vector>

/* Each line without blanks, as their number differs, and without what ethtool adds behind a slash:
   "Modulevoltage:3.2689V". Nothing for a module that isn't ready. */
std::vector<std::string> module_text(const linux_board::module_contents &contents);

/* The output of ethtool in the form of module_text, with the lines that module_text has: identity,
   values, limits and flags. */
std::vector<std::string> comparable_text(std::string_view ethtool);
