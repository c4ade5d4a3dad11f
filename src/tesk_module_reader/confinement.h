/* SPDX-License-Identifier: Apache-2.0 */
/* confinement - drops the process's rights before it takes the first request. The reader has one
   thread. */
#pragma once

namespace module_reader
{

/* Keeps CAP_NET_ADMIN, if the process has it, and no other right; no program that it might start
   gets any. Throws a std::system_error. */
void keep_net_admin_only();

/* From now on the process can use the sockets and buses that it has open, and exit. The kernel ends
   it at any other system call. Throws a std::system_error. */
void allow_requests_only();

} // namespace module_reader
