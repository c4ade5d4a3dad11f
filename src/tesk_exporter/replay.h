/* SPDX-License-Identifier: Apache-2.0 */
/* replay - the forecast on files of readings, as JSON lines. docs/forecast.md has both formats.
   One thread. */
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace exporter
{

/* Reads each file, or each *.csv.gz and *.csv in a folder in the order of their names, and writes a
   line to `out` for each alarm that is raised, changed or withdrawn. Reports unusable input to
   `errors`, with file and line: the first place of each kind in a file, and the number of further
   places. Memory is bounded, whatever a file contains. The result is an exit code: done, rejected
   if a file is unreadable or ends too early, no_output if `out` can't be written. */
int replay(const std::vector<std::string> &paths, FILE *out, FILE *errors);

} // namespace exporter
