/* SPDX-License-Identifier: Apache-2.0 */
/* module_addresses - the I2C addresses of a module's memory. SFP modules keep their diagnostics
   at the second one; the others have their pages at the first. No state. */
#pragma once

#include <cstdint>

constexpr uint8_t identity_address = 0x50;
constexpr uint8_t diagnostics_address = 0x51;
