/* SPDX-License-Identifier: Apache-2.0 */
/* refresh_rules - when the grades of a port are to be taken again. The server grades a port when it
   reports on it, that is at a change of link or module; a value that drifts changes no grade. Each
   refresh takes three of the thirty records in the server's action history, so refreshes are rare.
   No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <chrono>

namespace exporter
{

inline constexpr std::chrono::seconds refresh_port_pause{60}; /* between two of one port */
inline constexpr std::chrono::seconds refresh_pause{5};       /* between any two */

/* Whether a value has moved so far since the grades that they may have changed: 1 dB of power, 5
   degrees, 2 % of voltage, 10 % of bias, or to or from "absent". */
bool has_moved(const tesk_client_pm &graded, const tesk_client_pm &now);

} // namespace exporter
