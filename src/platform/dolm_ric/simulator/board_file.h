/* SPDX-License-Identifier: Apache-2.0 */
/* board_file - the initial state of a simulated board: a text file of commands of
   control_protocol.h, one a line, that are carried out before the library's caller has the board.
   Lines that begin with # are comments.

     ports 32                                  comes first: 1 to 65535
     insert 0-3 lc-own link=up speed=9.8       a cage without a module is empty, its link down
     set 3 temperature=65.5C vendor_name=EXAMPLE\x20OPTICS
     fail subslink busy 2 */
#pragma once

#include "platform/dolm_ric/simulator/simulator.h"

#include <memory>

namespace board
{

/* Makes a board of empty cages. */
using board_maker = std::unique_ptr<simulator> (*)(uint32_t port_count, core &events);

/* Makes the board of the file `path`; with null the built-in board. Throws a board_error that names
   the file and the line. Takes the core's lock. */
std::unique_ptr<simulator> make_board(const char *path, core &events, board_maker make_empty);

} // namespace board
