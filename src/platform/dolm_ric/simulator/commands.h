/* SPDX-License-Identifier: Apache-2.0 */
/* commands - carries out the commands of control_protocol.h. */
#pragma once

#include "platform/dolm_ric/simulator/simulator.h"

#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace board
{

using condition = std::function<bool()>;

/* Carries out a command and returns its answer, which begins with "ok" or "error". A command with
   an error changes nothing. A "wait" has no answer yet: its condition is stored in `pending`, to be
   called under the core's lock until it is true. The caller holds that lock. */
std::string run_command(std::string_view command, simulator &board, condition &pending);

} // namespace board
