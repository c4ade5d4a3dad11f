/* SPDX-License-Identifier: Apache-2.0 */
/* run_tool - runs the body of a tool's main, and ends the tool with its exit code. The tools have
   one thread. */
#pragma once

#include "program/exit_code.h"

#include <functional>

/* Calls the body and checks that its output could be written. Returns what main returns: the body's
   code, or that of the exception that ended it, with a line on standard error. */
int run_tool(const char *name, const std::function<exit_code()> &body);
