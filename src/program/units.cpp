/* SPDX-License-Identifier: Apache-2.0 */
/* Each function writes one value of the protocol in the unit that people use. */
#include "program/units.h"

#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <langinfo.h>

double milliwatts_to_dbm(double milliwatts)
{
    return 10 * std::log10(milliwatts);
}

std::optional<double> to_dbm(uint32_t microwatts)
{
    if (microwatts == 0)
        return std::nullopt;
    return milliwatts_to_dbm(microwatts / 1000.0);
}

std::string milliwatts(uint32_t microwatts)
{
    return fmt::format("{:.3f} mW", microwatts / 1000.0);
}

std::string dbm(uint32_t microwatts)
{
    const auto value = to_dbm(microwatts);
    return value ? fmt::format("{:.2f} dBm", *value) : "< -30.00 dBm";
}

std::string celsius(int32_t tenths)
{
    return fmt::format("{:.1f} {}", tenths / 10.0, celsius_unit());
}

std::string volts(uint32_t tenths_of_millivolts)
{
    return fmt::format("{:.4f} V", tenths_of_millivolts / 10000.0);
}

std::string milliamperes(uint32_t hundredths)
{
    return fmt::format("{:.2f} mA", hundredths / 100.0);
}

std::string gbps(uint32_t tenths)
{
    return fmt::format("{:.1f} Gbps", tenths / 10.0);
}

const char *celsius_unit()
{
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? "°C" : "C";
}
