/* SPDX-License-Identifier: Apache-2.0 */
/* trend_plot - draws a value over time in a few lines of the terminal. No state. */
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/* Pairs of time and value between `first` and `last`, drawn in `width` columns and four lines, with
   the least and the greatest value at the left. With `is_fine` in eighths of a line, else in whole
   lines, in ASCII. Columns without values stay empty. Ends with a line feed. */
std::string draw_trend(const std::vector<std::pair<int64_t, double>> &points, int64_t first,
                       int64_t last, size_t width, int decimals, bool is_fine);
/* A line of `width` columns after the same margin, with each mark at its time; if several are in
   one column, the first one. */
std::string draw_marks(const std::vector<std::pair<int64_t, char>> &marks, int64_t first,
                       int64_t last, size_t width);
