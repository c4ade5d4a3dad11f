/* SPDX-License-Identifier: Apache-2.0 */
/* listener - the socket that the exporter listens on. Used at the start, before there are other
   threads, since the umask is changed for a moment. */
#pragma once

#include <string>

namespace exporter
{

/* Opens a listening socket at "ADDRESS:PORT", with IPv6 addresses in brackets, or "unix:PATH".
   Throws std::runtime_error with a text that says what to do. A socket file on which no process
   listens is replaced. The file has mode 0660. Writes a line on standard error if a packet filter,
   such as that of the systemd unit, keeps other machines away from the address. */
int open_listener(const std::string &where);

/* Removes the socket file of "unix:PATH". */
void remove_listener(const std::string &where);

} // namespace exporter
