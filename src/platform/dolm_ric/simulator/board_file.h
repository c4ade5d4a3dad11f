/* SPDX-License-Identifier: Apache-2.0 */
/* board_file - what a board is at its start: a text file of requests from dolm_ric_board.h, one a
   line, that are carried out before anybody sees the board. Lines that begin with # are comments.

     ports 32                                  comes first: 1 to 65535
     insert 0-3 lc-own link=up speed=9.8       a cage without a module is empty, its link down
     set 3 temperature=65.5C vendor_name=EXAMPLE\x20OPTICS
     fail subslink busy 2 */
#pragma once

#include "platform/dolm_ric/simulator/board_requests.h"

#include <memory>

namespace board
{

/* Opens the desk for the board in the file of that name, or for the built-in one if it is null, and
   makes its ports. A board_error names the file and the line. The caller holds the desk's lock. */
std::unique_ptr<simulated_ports> make_board(const char *path, desk &events);

} // namespace board
