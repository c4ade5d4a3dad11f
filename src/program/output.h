/* SPDX-License-Identifier: Apache-2.0 */
/* output - standard output and standard error of all tools. The tools have one thread. */
#pragma once

#include <string>

/* Writes to standard output. check_output() reports a failure. */
void write_text(const std::string &text);
/* Writes a text and flushes, for output that another program reads while the tool runs. */
void write_now(const std::string &text);
/* Flushes; throws a tool_error with exit_code::no_output if anything could not be written. */
void check_output();
/* Writes one line to standard error, "TOOL: TEXT", after flushing standard output. */
void complain(const char *tool, const std::string &text);
