/* SPDX-License-Identifier: Apache-2.0 */
/* module_view - the details of a port as lines for one screen. No state. */
#pragma once

#include "tesk_client/tesk_details.h"

#include <string>
#include <vector>

struct module_style {
    bool coloured = false;
    bool has_unicode = false; /* the terminal can show more than ASCII */
    size_t width = 0;         /* 0: no limit */
};

/* The lines for people: identity, link, a table of the values, conditions, VDM and costs. `name` is
   the port's name in the port map, or empty. Ages are counted up to `now`, in nanoseconds of
   CLOCK_BOOTTIME. */
std::vector<std::string> module_lines(const dolm_ric_details_record &record,
                                      const std::string &name, int64_t now,
                                      const module_style &style);

/* The position of a value between its alarm limits, in `cells` characters: warning limits are '+',
   the value is '#', or '<' or '>' beyond the alarm limits. Empty without a value or usable
   limits. */
std::string limits_bar(const dolm_ric_details_value &value, const dolm_ric_details_limits &limits,
                       bool is_logarithmic, size_t cells);
