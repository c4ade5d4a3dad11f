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
    std::string request;    /* of a change or a wait, as sent to the board */
    board::port_list ports; /* ports that the command names */
    std::string scene;      /* path of the scene to play */
    double timeout = 5;     /* seconds */
};

/* Options for the whole run. */
struct settings {
    std::string socket;
    bool json = false;
};

/* Parses the words. With `global` null they are a line of a scene, which can't play another scene.
   Throws CLI::Error, also for --help, and board::board_error. */
command parse_command(std::vector<std::string> words, settings *global, CLI::App &app);

} // namespace teskboard
