/* SPDX-License-Identifier: Apache-2.0 */
/* Most makers of 10GBASE-T modules copy the memory of a 10GBASE-SR one, with made-up powers and
   currents, since hosts accept no other. Nothing but the names tells them apart. */
#include "platform/dolm_ric/linux/base_t_modules.h"

namespace linux_board
{

bool is_known_base_t(std::string_view vendor, std::string_view part)
{
    static constexpr struct {
        std::string_view vendor;
        std::string_view part;
    } modules[] = {
        /* Seen with constant 6 mA and 501 uW: netdev mailing list, 2025-02-23, "Phy access methods
           for copper SFP+ disguised as SR". */
        {"OEM", "SFP-10G-T8"},
        /* Without the code for 10GBASE-T: table of quirks of the kernel's sfp driver, 6.1. */
        {"OEM", "SFP-10G-T"},
        {"OEM", "RTSFP-10"},
        {"OEM", "RTSFP-10G"},
        {"Turris", "RTSFP-10"},
        {"Turris", "RTSFP-10G"},
        /* "Doesn't identify as copper": the same table, 6.4 to 6.8. */
        {"FS", "SFP-10G-T"},
        {"Walsun", "HXSX-ATRC-1"},
        {"Walsun", "HXSX-ATRI-1"},
        /* Seen at work at 10 Gb/s on copper: openwrt/openwrt pull request 22910, 2026-05-15. */
        {"OEM", "SFP-10G-T-I"},
    };

    for (const auto &module : modules)
        if (module.vendor == vendor && module.part == part)
            return true;
    return false;
}

} // namespace linux_board
