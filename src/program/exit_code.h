/* SPDX-License-Identifier: Apache-2.0 */
/* exit_code - the exit codes of all tools, and the error that ends a tool with one of them. No
   state. */
#pragma once

#include <stdexcept>
#include <string>

/* teskctl, teskboard and tesk-abi-check have the same codes, so that scripts need one list. */
enum class exit_code : int {
    done = 0,
    rejected = 1, /* refused by the server or the board, or a check found a fault */
    usage = 2,
    no_server = 3, /* no server or board, or no access to it */
    no_answer = 4,
    no_output = 5,
    fault = 70, /* EX_SOFTWARE: a fault of the tool itself */
};

/* Ends the tool with an exit code and one line, which says what to do. */
class tool_error : public std::runtime_error
{
  public:
    tool_error(exit_code code, const std::string &text) : std::runtime_error(text), code_(code)
    {
    }
    exit_code code() const
    {
        return code_;
    }

  private:
    exit_code code_;
};
