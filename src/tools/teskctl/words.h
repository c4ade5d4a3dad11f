/* SPDX-License-Identifier: Apache-2.0 */
/* words - the client library's records as text for people, in one line. No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <string>

std::string describe(const tesk_client_sfp_info &info);
std::string describe(const tesk_client_port_status &status);
std::string describe(const tesk_client_pm &pm);
std::string describe_levels(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS]);

/* The name of a request's type: "subscribe status". */
std::string request_name(tesk_client_request_type type);
