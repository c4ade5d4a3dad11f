/* SPDX-License-Identifier: Apache-2.0 */
/* host_check - protects from DNS rebinding. The browser of a foreign web page, whose host name is
   made to resolve to this machine, sends that name in the Host header: by refusing it the exporter
   keeps such pages from reading data that only local users may see. No state. */
#pragma once

#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace exporter
{

/* Whether `host`, the header's value, is the address and port at which the connection arrived; or
   "localhost", if that address is a loopback address or a local socket; or one of `names`, with any
   port. */
bool is_host_allowed(std::string_view host, const sockaddr_storage &local,
                     const std::vector<std::string> &names);

} // namespace exporter
