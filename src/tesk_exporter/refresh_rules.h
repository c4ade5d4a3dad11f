/* SPDX-License-Identifier: Apache-2.0 */
/* refresh_rules - when the grades of a port are to be taken again. The server grades a port when it
   reports on it, that is with a change of link or module; a value that creeps away changes no
   grade; tools/common/moved_values.h says when one has. Each refresh costs three records of the
   server's action history, of thirty: so they are few. */
#pragma once

#include <chrono>

namespace exporter
{

inline constexpr std::chrono::seconds refresh_port_pause{60}; /* between two of one port */
inline constexpr std::chrono::seconds refresh_pause{5};       /* between any two */

} // namespace exporter
