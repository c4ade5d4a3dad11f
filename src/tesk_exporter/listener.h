/* SPDX-License-Identifier: Apache-2.0 */
/* listener - the socket that the exporter listens on. At the start, before other threads run: the
   mask of new files is changed for a moment. */
#pragma once

#include <string>

namespace exporter
{

/* Opens a listening socket at "ADDRESS:PORT", with IPv6 addresses in brackets, or "unix:PATH".
   Throws std::runtime_error with a text that says what to do. A socket file on which no process
   listens is replaced. The file has mode 0660. Writes a line on standard error where a filter keeps
   other machines from the address, as that of the systemd unit does. */
int open_listener(const std::string &where);

/* Removes the socket file of "unix:PATH". */
void remove_listener(const std::string &where);

} // namespace exporter
