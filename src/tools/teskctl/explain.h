/* SPDX-License-Identifier: Apache-2.0 */
/* explain - results of the client library as exit codes and as advice. No state. */
#pragma once

#include "program/exit_code.h"
#include "tesk_client/tesk_client.h"

#include <string>

inline constexpr char server_name[] = "tesk-server";
inline constexpr char default_mailbox_directory[] = "/run/mbx";

/* The exit code of a command, by the result of its request or connection. */
exit_code exit_code_of(tesk_client_result result);

/* The error and its remedy, for one line on standard error. `text` is the library's or the
   server's. */
std::string explain(tesk_client_result result, const std::string &text);
/* The error and its remedy, for a rejected or failed request. A port that doesn't exist has one
   text in all commands. */
std::string explain(const tesk_client_answer &answer);

/* The directory in which the client library looks for the server. */
std::string mailbox_directory();
