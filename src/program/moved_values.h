/* SPDX-License-Identifier: Apache-2.0 */
/* moved_values - whether a measured value has moved so far since the server graded it that its
   grade may be wrong: by 1 dB of power, 5 degrees, 2 % of the voltage or 10 % of the bias current,
   or to or from "not measured". No state. */
#pragma once

#include "tesk_client/tesk_client.h"

bool has_moved(const tesk_client_pm &graded, const tesk_client_pm &now,
               tesk_client_measurement measurement);
/* Whether any of the five values has moved. */
bool has_moved(const tesk_client_pm &graded, const tesk_client_pm &now);
