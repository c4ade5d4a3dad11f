/* SPDX-License-Identifier: Apache-2.0 */
/* board_client - one connection to the simulated board inside a running server. */
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace teskboard
{

/* The lines of an answer, in the board's order. */
using answer = std::vector<std::pair<std::string, std::string>>;
std::string_view value_of(const answer &lines, std::string_view key);

class board_client
{
  public:
    explicit board_client(const std::string &path);
    ~board_client();
    board_client(const board_client &) = delete;
    board_client &operator=(const board_client &) = delete;

    /* Sends a request and waits for its answer. Throws a tool_error. After exit_code::no_answer the
       connection must not be used again: a late answer would be taken for that of the next
       request. */
    answer ask(const std::string &request, std::chrono::duration<double> deadline);

  private:
    int socket_;
};

} // namespace teskboard
