/* SPDX-License-Identifier: Apache-2.0 */
/* board_requests - what the requests of dolm_ric_board.h do. */
#pragma once

#include "platform/dolm_ric/desk.h"
#include "platform/dolm_ric/simulator/simulated_ports.h"

#include <functional>
#include <string>
#include <string_view>

namespace board
{

/* What can be played. */
struct stage {
    desk &events;
    simulated_ports &ports;
};

using condition = std::function<bool()>;

/* Carries out a request and gives the answer to it, which begins with "ok" or "error". A "wait"
   isn't answered but handed out as the condition, to be looked at under the lock too, until it
   holds. The caller holds the desk's lock. A request that is wrong changes nothing and is answered
   so. */
std::string answer_request(std::string_view request, const stage &on, condition &pending);

/* Reads "busy 3 0-7": what follows the operation in an order of failures. Throws a board_error. */
failure parse_failure(operation op, std::span<const std::string_view> words);

} // namespace board
