/* SPDX-License-Identifier: Apache-2.0 */
/* recorded_falls - the falls of links from the board's files, one for each port, or from any file;
   and their verdicts in words. No state, any thread. */
#pragma once

#include "causes/facts.h"
#include "causes/verdict.h"
#include "causes/verdict_json.h"
#include "program/json_records.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/* The folder "falls" beside the file of the ports' details; empty if MBX_DIR selects another server
   than that of the default folder. */
std::string falls_folder();

/* All ports that have a file in the folder, in order; a board records falls for at most
   most_ports_with_falls. Throws a tool_error if the folder doesn't exist or can't be read. */
constexpr size_t most_ports_with_falls = 1024;
std::vector<uint32_t> ports_with_falls(const std::string &folder);

/* The falls of one port, oldest first; none if it has no file. Invalid lines are left out: `fault`,
   which may be null, says how many, and what is wrong with the first. Throws a tool_error if the
   file can't be read, or can't have been written by a board. */
std::vector<causes::facts> falls_of(const std::string &folder, uint32_t port_no,
                                    std::string *fault = nullptr);

/* The newest fall of the port; only its line, and invalid lines after it, are parsed. Throws like
   falls_of(). */
std::optional<causes::facts> last_fall_of(const std::string &folder, uint32_t port_no);

/* Sorts newest first; if all falls are of one start of one machine, by the clock since boot, which
   nobody can set. */
void sort_newest_first(std::vector<causes::facts> &falls);

/* Texts in one line: "light lost, likely: The received light is gone ..", and "link is up, but ill:
   ..", or empty if the link isn't ill. Escaped. */
std::string cause_text(const causes::verdict &its);
std::string illness_text(const causes::verdict &its);

/* The facts in a file, "-" for standard input: an object, a list of objects, or an object in each
   line; the output of causes::json_of() and of the exporter can be read as well. Throws a
   tool_error with the file and the place of the error, also if it has no facts, or more than a
   machine can have. */
std::vector<causes::facts> facts_in(const std::string &path);
