/* SPDX-License-Identifier: Apache-2.0 */
/* view - the output of teskboard: tables for people, or JSON with one object a line. One thread. */
#pragma once

#include "tools/teskboard/board_client.h"

#include <string>

namespace teskboard
{

/* One line of a table for a port, from the board's answer to "show". */
std::string format_table_head();
std::string format_table_row(const answer &port);
/* All values of the port, one in each line. */
std::string format_port(const answer &port);
/* The answer to "board". */
std::string format_board(const answer &board);
/* The numbers of ports and events that a command changed. */
std::string format_change(const answer &change);

/* Any of these answers as JSON, under the board's keys. Failures become a list, and the calls of
   the operations an object. */
std::string to_json(const answer &lines);

} // namespace teskboard
