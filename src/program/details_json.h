/* SPDX-License-Identifier: Apache-2.0 */
/* details_json - the details of a port as a JSON object: always the same keys, in the same order,
   with null for a missing value. docs/protocol.md lists the keys. Texts of modules are escaped to
   ASCII. No state. */
#pragma once

#include "program/json_records.h"
#include "tesk_client/tesk_details.h"

/* Ages are counted up to `now`, in nanoseconds of CLOCK_BOOTTIME. */
json_object to_json(const dolm_ric_details_record &record, int64_t now);
