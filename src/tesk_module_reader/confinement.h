/* SPDX-License-Identifier: Apache-2.0 */
/* confinement - drops the process's rights before it takes the first request. The reader has one
   thread. */
#pragma once

namespace module_reader
{

/* Keeps CAP_NET_ADMIN, if the process has it, and drops all other rights; programs started by the
   process get none. Throws a std::system_error. */
void keep_net_admin_only();

/* From this call on the process can only use its open sockets and buses, and exit. Any other system
   call makes the kernel end it. Throws a std::system_error. */
void allow_requests_only();

} // namespace module_reader
