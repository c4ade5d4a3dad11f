/* board_file - what a board is at its start, read from an INI-like file:

     [board]
     ports = 32                  1 to 65535; without it as many as the sections name

     [port 0-3,7]                later sections win over earlier ones
     module = lc-own             a kind that teskboard's `insert` knows; without it the cage is
   empty link = up                   and any key that teskboard's `set` knows temperature = 41.5C

     [fail]
     subslink = busy             OPERATION = CODE [COUNT|always [PORTS]], as teskboard's `fail`

   Lines that begin with # are comments. */
#pragma once

#include "desk.h"
#include "simulated_ports.h"

#include <string>
#include <vector>

namespace board
{

struct board_plan {
    struct section {
        port_list ports;
        const module_kind *module; /* null: nothing is put in */
        std::vector<setting> settings;
    };
    uint32_t ports = 0;
    std::vector<section> sections;
    std::vector<failure> failures;
};

/* The plan in the file of that name, or the built-in one if it is null. A board_error names the
   file and what is wrong in it. */
board_plan read_board(const char *path);

} // namespace board
