/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: each column gets the mean of its values; then each line draws the part of the
   column that is in this line. */
#include "tools/teskctl/trend_plot.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <limits>

static constexpr size_t margin = 9; /* width of a value and a blank */
static constexpr size_t height = 4;
static constexpr double none = std::numeric_limits<double>::quiet_NaN();

static size_t column_of(int64_t time, int64_t first, int64_t last, size_t width)
{
    const double share =
        static_cast<double>(time - first) / static_cast<double>(std::max<int64_t>(last - first, 1));
    return std::min(static_cast<size_t>(share * static_cast<double>(width)), width - 1);
}

static std::vector<double> means(const std::vector<std::pair<int64_t, double>> &points,
                                 int64_t first, int64_t last, size_t width)
{
    std::vector<double> sums(width, 0);
    std::vector<int> counts(width, 0);
    for (const auto &[time, value] : points) {
        if (time < first || time > last || std::isnan(value))
            continue;
        const size_t column = column_of(time, first, last, width);
        sums[column] += value;
        counts[column]++;
    }
    for (size_t i = 0; i < width; i++)
        sums[i] = counts[i] == 0 ? none : sums[i] / counts[i];
    return sums;
}

/* The character for a column that fills `eighths` of the line. */
static const char *block(int eighths, bool is_fine)
{
    static constexpr const char *blocks[][9] = {{" ", ".", ".", ".", ":", ":", ":", "#", "#"},
                                                {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"}};
    return blocks[is_fine ? 1 : 0][std::clamp(eighths, 0, 8)];
}

std::string draw_trend(const std::vector<std::pair<int64_t, double>> &points, int64_t first,
                       int64_t last, size_t width, int decimals, bool is_fine)
{
    const std::vector<double> columns = means(points, first, last, width);
    double least = none, greatest = none;
    for (const double value : columns) {
        least = std::fmin(least, value);
        greatest = std::fmax(greatest, value);
    }
    if (std::isnan(least))
        return fmt::format("{:>{}} nothing was measured\n", "", margin - 1);
    /* A value that varies only in its last digit is drawn flat. */
    const double span = std::max(greatest - least, 2 * std::pow(10, -decimals));
    std::string text;
    for (size_t line = height; line-- > 0;) {
        if (line == height - 1)
            text += fmt::format("{:>{}.{}f} ", greatest, margin - 1, decimals);
        else if (line == 0)
            text += fmt::format("{:>{}.{}f} ", least, margin - 1, decimals);
        else
            text += std::string(margin, ' ');
        for (const double value : columns) {
            /* The least value fills one eighth, so that it is visible. */
            const double filled = 1 + (value - least) / span * (8.0 * height - 1);
            text += std::isnan(value)
                        ? " "
                        : block(static_cast<int>(filled) - static_cast<int>(8 * line), is_fine);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    return text;
}

std::string draw_marks(const std::vector<std::pair<int64_t, char>> &marks, int64_t first,
                       int64_t last, size_t width)
{
    std::string line(width, ' ');
    for (const auto &[time, mark] : marks) {
        if (time < first || time > last)
            continue;
        char &place = line[column_of(time, first, last, width)];
        place = place == ' ' ? mark : place;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line.empty() ? "" : std::string(margin, ' ') + line + '\n';
}
