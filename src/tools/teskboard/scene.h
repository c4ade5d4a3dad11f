/* SPDX-License-Identifier: Apache-2.0 */
/* scene - a file with one timed step a line:

   link 3 up # at once +0.5 link 3 down # half a second after the previous step

   A step is a command of teskboard, quoted as in the shell. No state. */
#pragma once

#include "tools/teskboard/command.h"

#include <chrono>
#include <string>
#include <vector>

namespace teskboard
{

struct scene_step {
    std::string where; /* "file:line" */
    std::string text;  /* the command */
    std::chrono::duration<double> pause;
    command what;
};

/* Reads the whole file. Throws a tool_error for the first invalid line. */
std::vector<scene_step> read_scene(const std::string &path);

} // namespace teskboard
