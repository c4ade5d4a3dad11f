/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the distance to each known word is computed, and the nearest word is the result.
 */
#include "program/nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

/* Levenshtein's distance, one row of its table at a time. */
static size_t distance(const std::string &left, const std::string &right)
{
    std::vector<size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < left.size(); i++) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < right.size(); j++) {
            const size_t replaced = diagonal + (left[i] == right[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

std::string nearest(const std::string &word, const std::vector<std::string> &known)
{
    return *std::ranges::min_element(
        known, {}, [&word](const std::string &each) { return distance(word, each); });
}
