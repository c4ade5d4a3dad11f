/* SPDX-License-Identifier: Apache-2.0 */
/* board_client - one connection to the simulated board inside a running server. */
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace teskboard
{

/* What ends the command: an exit code and, for stderr, a text that names what to do. */
enum class exit_code {
    done = 0,
    refused = 1,
    wrong_usage = 2,
    no_board = 3,
    no_answer = 4,
    no_output = 5,
    fault = 70, /* EX_SOFTWARE: our own */
};
struct failed : std::runtime_error {
    failed(exit_code why, const std::string &text) : std::runtime_error(text), code(why)
    {
    }
    exit_code code;
};

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

    /* Sends a request and waits for its answer. Throws what went wrong. After no_answer the
       connection is of no more use: the answer may still come and be taken for the next one's. */
    answer ask(const std::string &request, std::chrono::duration<double> deadline);

  private:
    int socket;
};

} // namespace teskboard
