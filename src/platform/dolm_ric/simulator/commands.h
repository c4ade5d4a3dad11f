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

/* An answer that comes later: the function returns an empty text until then. Called under the
   core's lock. */
using pending_answer = std::function<std::string()>;

/* Carries out a command and returns its answer, which begins with "ok" or "error". A command with
   an error changes nothing. A "wait", and a command that would queue events while the queue is
   full, has no answer yet: `pending` is set, and must be called until it returns the answer. The
   caller holds the core's lock. */
std::string run_command(std::string_view command, simulator &board, pending_answer &pending);

} // namespace board
