/* SPDX-License-Identifier: Apache-2.0 */
/* units - measured values as on a data sheet, with the decimal places that the protocol's integers
   have. The arguments are the fields of tesk_client_pm. No state of its own; the degree sign is
   written only in a locale whose character set is UTF-8, so call setlocale first. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

/* `milliwatts` must be above 0. */
double milliwatts_to_dbm(double milliwatts);
/* Nothing for 0, which has no logarithm. */
std::optional<double> to_dbm(uint32_t microwatts);

std::string milliwatts(uint32_t microwatts);
/* "< -30.00 dBm" for 0, which is any power below the smallest one in the protocol. */
std::string dbm(uint32_t microwatts);
std::string celsius(int32_t tenths);
std::string volts(uint32_t tenths_of_millivolts);
std::string milliamperes(uint32_t hundredths);
std::string gbps(uint32_t tenths);

/* "°C", or "C" if the locale can't show the sign. */
const char *celsius_unit();
