/* scene - a file with one timed step a line:

     # A link flaps.
     link 3 up               at once
     +0.5 link 3 down        half a second after the step before
     +0.5 link 3 up

   A step is a command of teskboard, quoted as in the shell. */
#pragma once

#include "command.h"

#include <chrono>
#include <string>
#include <vector>

namespace teskboard
{

struct scene_step {
    std::string where;                  /* "file:line" */
    std::string text;                   /* the command as written */
    std::chrono::duration<double> time; /* since the start of the scene */
    command what;
};

/* Reads the whole file. Throws `failed` for the first line that can't be played. */
std::vector<scene_step> read_scene(const std::string &path);

} // namespace teskboard
