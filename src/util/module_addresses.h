/* SPDX-License-Identifier: Apache-2.0 */
/* module_addresses - the I2C addresses of a module's memory. SFP modules have their diagnostics at
   the second address; other modules have pages at the first one. No state. */
#pragma once

#include <cstdint>

constexpr uint8_t identity_address = 0x50;
constexpr uint8_t diagnostics_address = 0x51;
