/* SPDX-License-Identifier: Apache-2.0 */
/* explain - results of the client library as exit codes and as advice. No state. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tools/common/exit_code.h"

#include <string>

exit_code exit_code_of(tesk_client_result result);

/* What is wrong and what to do about it, for one line on standard error. `text` is the library's or
   the server's. */
std::string explain(tesk_client_result result, const std::string &text);

/* The directory in which the client library looks for the server. */
std::string mailbox_directory();
