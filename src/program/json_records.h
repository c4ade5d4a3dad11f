/* SPDX-License-Identifier: Apache-2.0 */
/* json_records - the client library's records as JSON objects: always the same keys, in the same
   order, with null for a missing value. teskctl(1) lists the keys. Texts of modules and of the
   server are escaped to ASCII, blanks included. No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

/* Keys stay in the order in which they are set. A source that uses an object includes
   <nlohmann/json.hpp>, which takes seconds to compile. */
using json_object = nlohmann::ordered_json;

json_object to_json(const tesk_client_sfp_info &info);
json_object to_json(const tesk_client_port_status &status);
json_object to_json(const tesk_client_pm &pm);
json_object to_json(const tesk_client_history_record &record, tesk_client_history_kind kind);

/* Null for an empty text. */
json_object text_or_null(const std::string &text);

/* One line, without a line feed. Bytes that are not UTF-8, as in a directory's name, are replaced
   and cause no exception. */
std::string to_line(const json_object &object);
