/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_rejection - the reasons of rejections. No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <cstdint>
#include <string_view>

/* The reason for a rejection's code and text; TESK_CLIENT_REJECTION_OTHER if the text isn't in the
   table. */
tesk_client_rejection rejection_of(int32_t error_code, std::string_view text);
