/* SPDX-License-Identifier: Apache-2.0 */
/* refresh_rules - when the grades of a port are to be taken again. The server grades a port when it
   sends an indication, that is after a change of link or module; the grade of a drifting value
   isn't updated (program/moved_values.h). Each refresh takes two of the thirty records in the
   server's action history, so refreshes are rare. No state. */
#pragma once

#include <chrono>

namespace exporter
{

inline constexpr std::chrono::seconds refresh_port_pause{60}; /* between two of the same port */
inline constexpr std::chrono::seconds refresh_pause{5};       /* between any two refreshes */

} // namespace exporter
