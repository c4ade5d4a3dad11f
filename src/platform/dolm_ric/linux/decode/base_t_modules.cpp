/* SPDX-License-Identifier: Apache-2.0 */
/* Most makers of 10GBASE-T modules copy the memory of a 10GBASE-SR module, with made-up powers and
   currents, since hosts accept no other. Only the names of maker and part distinguish them from
   optical modules. */
#include "platform/dolm_ric/linux/decode/base_t_modules.h"

namespace linux_board
{

uint32_t speed_of_base_t(std::string_view vendor, std::string_view part)
{
    static constexpr struct {
        std::string_view vendor;
        std::string_view part;
        uint32_t tenth_gbps;
    } modules[] = {
        /* Seen with constant 6 mA and 501 uW: netdev mailing list, 2025-02-23, "Phy access methods
           for copper SFP+ disguised as SR". */
        {"OEM", "SFP-10G-T8", 100},
        /* Without the code for 10GBASE-T: table sfp_quirks of the kernel's drivers/net/phy/sfp.c,
           with sfp_fixup_rollball_cc. */
        {"OEM", "SFP-10G-T", 100},
        {"OEM", "RTSFP-10", 100},
        {"OEM", "RTSFP-10G", 100},
        /* "Doesn't identify as copper": table sfp_quirks, too. */
        {"FS", "SFP-10G-T", 100},
        {"Walsun", "HXSX-ATRC-1", 100},
        {"Walsun", "HXSX-ATRI-1", 100},
        /* Copper behind the same bridge as the modules above: table sfp_quirks, and linux-kernel
           mailing list, 2025-02-26, "Add quirk for a copper SFP that identifies itself as FS
           SFP-10GM-T". */
        {"FS", "SFP-10GM-T", 100},
        /* Seen at work at 10 Gb/s on copper: openwrt/openwrt, pull request 22910, 2026-05-15. */
        {"OEM", "SFP-10G-T-I", 100},
        /* "Wrongly report 25Gbps fiber connector": netdev mailing list, 2024-01-06. */
        {"TP-LINK", "TL-SM410U", 25},
    };

    for (const auto &module : modules)
        if (module.vendor == vendor && module.part == part)
            return module.tenth_gbps;
    return 0;
}

} // namespace linux_board
