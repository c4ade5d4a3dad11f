/* SPDX-License-Identifier: Apache-2.0 */
/* board_client - one connection to the simulated board inside a running server. One thread. */
#pragma once

#include "util/descriptor.h"

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace teskboard
{

/* The lines of an answer, as key and value, in the board's order. */
using answer = std::vector<std::pair<std::string, std::string>>;
/* The value of the line with this key; empty if there is none. */
std::string_view value_of(const answer &lines, std::string_view key);

class board_client
{
  public:
    /* Connects to the board at that path. Throws a tool_error. */
    explicit board_client(const std::string &path);

    /* Sends a request and waits for its answer. Throws a tool_error. After exit_code::no_answer the
       connection must not be used again: a late answer would be taken for that of the next
       request. */
    answer ask(const std::string &request, std::chrono::duration<double> deadline);

  private:
    util::descriptor socket_;
};

} // namespace teskboard
