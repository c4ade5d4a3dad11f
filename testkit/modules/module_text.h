/* SPDX-License-Identifier: Apache-2.0 */
/* module_text - the decoded contents of a module in the words and units of `ethtool -m`, so that
   the two can be compared line by line. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"

#include <string>
#include <string_view>
#include <vector>

/* Each line without blanks, as their number differs, and without the text that ethtool adds after a
   slash: "Modulevoltage:3.2689V". Empty for a module that isn't ready. */
std::vector<std::string> module_text(const linux_board::module_contents &contents);

/* The output of ethtool in the form of module_text, reduced to the same lines: identity, values,
   limits and flags. */
std::vector<std::string> comparable_text(std::string_view ethtool);
