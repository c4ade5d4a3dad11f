/* SPDX-License-Identifier: Apache-2.0 */
/* ethtool_comparison - compares the decoded contents of a module with the output of `ethtool -m`
   for the same bytes. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"

#include <string>
#include <string_view>
#include <vector>

/* A line that only one output has: "-" for ethtool's, "+" for ours. */
struct text_difference {
    std::string line;
    const char *why_ethtool_is_wrong; /* nullptr if no fault of ethtool is known for it */
};

/* `module` is the name of the image, by which the known differences are looked up. */
std::vector<text_difference> compare_with_ethtool(const std::string &module,
                                                  const linux_board::module_contents &contents,
                                                  std::string_view ethtool);
