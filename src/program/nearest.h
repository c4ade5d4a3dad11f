/* SPDX-License-Identifier: Apache-2.0 */
/* nearest - the known word that is most like a mistyped one. No state. */
#pragma once

#include <string>
#include <vector>

/* The known word that needs the fewest insertions, deletions and replacements of letters; of
   several the first. `known` must not be empty. */
std::string nearest(const std::string &word, const std::vector<std::string> &known);
