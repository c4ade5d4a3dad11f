/* SPDX-License-Identifier: Apache-2.0 */
/* words - the client library's records as text for people, in one line. No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <string>

/* The module of a port, in the same words in every command. `type` is one of tesk_client_sfp_type,
   or module_not_ready. */
inline constexpr uint32_t module_not_ready = 0x100; /* not a value of the server's enumeration */
const char *module_text(uint32_t type);
/* Within a sentence: "module optical", "no module", "module not ready". */
std::string module_phrase(uint32_t type);

/* The kind and the texts of the module. */
std::string describe(const tesk_client_sfp_info &info);
/* "not operational, no module": without a module the other fields have no meaning. */
std::string describe(const tesk_client_port_status &status);
/* The values that the module measures. */
std::string describe(const tesk_client_pm &pm);
/* The levels with their measurements, the worst first. */
std::string describe_levels(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS]);

/* "up 9.8 Gbps", "down", "up, speed not known". */
std::string link_text(const tesk_client_port_status &status);

/* The worst of the levels: alarms before warnings, "ok" before "not measured". */
uint32_t worst_level(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS]);
/* 0 for the best level; a worse level has a higher number. */
uint32_t severity(uint32_t level);

/* The name of a request's type: "subscribe status". */
std::string request_name(tesk_client_request_type type);
