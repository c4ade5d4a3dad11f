/* SPDX-License-Identifier: Apache-2.0 */
/* command - parses a command line, or a line of a scene. One thread. */
#pragma once

#include "platform/dolm_ric/simulator/vocabulary.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace teskboard
{

enum class action { change, wait, show, ports, play };

struct command {
    action what = action::change;
    std::string request;    /* of a change or a wait, as the board takes it */
    board::port_list ports; /* the ports that the command names */
    std::string scene;      /* the file to play */
    double timeout = 5;     /* seconds */
};

/* Options that hold for a whole run. */
struct settings {
    std::string socket;
    bool json = false;
};

/* Reads the words. With `global` null they are those of a scene, which can't
   play another scene. Throws CLI::Error, also for --help, and board::board_error. */
command parse_command(std::vector<std::string> words, settings *global, CLI::App &app);

} // namespace teskboard
