/* SPDX-License-Identifier: Apache-2.0 */
/* recorded_falls - the falls of links: as the board records them, one file for each port, or in any
   file; and their verdicts in words. No state, any thread. */
#pragma once

#include "causes/facts.h"
#include "causes/verdict.h"
#include "causes/verdict_json.h"
#include "program/json_records.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/* "falls" beside the file of the details of ports; empty where the default would be the folder of
   another server than the one that MBX_DIR selects. */
std::string falls_folder();

/* The ports that have a file there, in order: all, though a board records those of so many at most.
   Throws a tool_error for a folder that isn't there or can't be read. */
constexpr size_t most_ports_with_falls = 1024;
std::vector<uint32_t> ports_with_falls(const std::string &folder);

/* The falls of one port, oldest first; none where it has no file. Lines that are wrong are left
   out: `fault`, which may be null, says how many, and what is wrong with the first. Throws a
   tool_error for a file that can't be read, or that a board can't have written. */
std::vector<causes::facts> falls_of(const std::string &folder, uint32_t port_no,
                                    std::string *fault = nullptr);

/* The newest fall of the port; only its line, and wrong lines behind it, are parsed. Throws as
   falls_of(). */
std::optional<causes::facts> last_fall_of(const std::string &folder, uint32_t port_no);

/* Newest first: by the clock that nobody sets, where all are of one start of one machine. */
void sort_newest_first(std::vector<causes::facts> &falls);

/* For one line: "light lost, likely: The received light is gone ..", and "link is up, but ill: ..",
   which is empty where it isn't. Escaped. */
std::string cause_text(const causes::verdict &its);
std::string illness_text(const causes::verdict &its);

/* The facts in a file, "-" for standard input: an object, a list of objects, or an object in each
   line; the output of causes::json_of() and of the exporter can be read as well. Throws a
   tool_error that names the file and the place where it is wrong, that it has none, or more than a
   machine can have. */
std::vector<causes::facts> facts_in(const std::string &path);
