/* view - what teskboard prints: tables for people, or JSON with one object a line. */
#pragma once

#include "board_client.h"

#include <string>
#include <vector>

namespace teskboard
{

/* Ports as the board's "show" answers them: one line each. */
std::string format_table(const std::vector<answer> &ports);
/* One port with everything that it reports. */
std::string format_port(const answer &port);
/* The answer to "board". */
std::string format_board(const answer &board);
/* How far a change reached. */
std::string format_change(const answer &change);

/* Any of these as JSON. */
std::string to_json(const answer &lines);

} // namespace teskboard
