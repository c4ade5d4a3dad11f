/* SPDX-License-Identifier: Apache-2.0 */
/* ethtool_comparison - what was decoded of a module, beside the output of `ethtool -m` for
   these bytes. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"

#include <string>
#include <string_view>
#include <vector>

/* A line that only one of the two has: "-" ethtool, "+" we. */
struct text_difference {
    std::string line;
    const char *why_ethtool_is_wrong; /* nullptr where it is not known to be */
};

/* `module` is the name of the image, by which the known differences are looked up. */
std::vector<text_difference> compare_with_ethtool(const std::string &module,
                                                  const linux_board::module_contents &contents,
                                                  std::string_view ethtool);
