/* SPDX-License-Identifier: Apache-2.0 */
/* Only codes whose meaning is certain are listed. */
#include "platform/dolm_ric/linux/decode/code_names.h"

#include <algorithm>

namespace linux_board
{
namespace
{

struct code_name {
    uint8_t code;
    const char *name;
};

} // namespace

static constexpr code_name form_factors[] = {
    {0x01, "GBIC"},
    {0x02, "soldered"},
    {0x03, "SFP"},
    {0x06, "XFP"},
    {0x0b, "DWDM-SFP"},
    {0x0c, "QSFP"},
    {0x0d, "QSFP+"},
    {0x0e, "CXP"},
    {0x11, "QSFP28"},
    {0x12, "CXP2"},
    {0x18, "QSFP-DD"},
    {0x19, "OSFP"},
    {0x1a, "SFP-DD"},
    {0x1b, "DSFP"},
    {0x1e, "QSFP with CMIS"},
    {0x1f, "SFP-DD with CMIS"},
    {0x20, "SFP with CMIS"},
    {0x21, "OSFP-XD"},
};
static constexpr code_name connectors[] = {
    {0x01, "SC"},
    {0x02, "Fibre Channel style 1 copper"},
    {0x03, "Fibre Channel style 2 copper"},
    {0x04, "BNC/TNC"},
    {0x05, "Fibre Channel coaxial"},
    {0x06, "fiber jack"},
    {0x07, "LC"},
    {0x08, "MT-RJ"},
    {0x09, "MU"},
    {0x0a, "SG"},
    {0x0b, "optical pigtail"},
    {0x0c, "MPO 1x12"},
    {0x0d, "MPO 2x16"},
    {0x20, "HSSDC II"},
    {0x21, "copper pigtail"},
    {0x22, "RJ45"},
    {0x23, "no separable connector"},
    {0x24, "MXC 2x16"},
    {0x25, "CS"},
    {0x26, "SN"},
    {0x27, "MPO 2x12"},
    {0x28, "MPO 1x16"},
};
static constexpr code_name sfp_encodings[] = {
    {0x01, "8B/10B"},          {0x02, "4B/5B"},   {0x03, "NRZ"},       {0x04, "Manchester"},
    {0x05, "SONET scrambled"}, {0x06, "64B/66B"}, {0x07, "256B/257B"}, {0x08, "PAM4"},
};
static constexpr code_name qsfp_encodings[] = {
    {0x01, "8B/10B"},  {0x02, "4B/5B"},      {0x03, "NRZ"},       {0x04, "SONET scrambled"},
    {0x05, "64B/66B"}, {0x06, "Manchester"}, {0x07, "256B/257B"}, {0x08, "PAM4"},
};
static constexpr code_name technologies[] = {
    {0x00, "850 nm VCSEL"},
    {0x01, "1310 nm VCSEL"},
    {0x02, "1550 nm VCSEL"},
    {0x03, "1310 nm FP"},
    {0x04, "1310 nm DFB"},
    {0x05, "1550 nm DFB"},
    {0x06, "1310 nm EML"},
    {0x07, "1550 nm EML"},
    {0x08, "other"},
    {0x09, "1490 nm DFB"},
    {0x0a, "copper, unequalized"},
    {0x0b, "copper, passive equalized"},
    {0x0c, "copper, limiting at both ends"},
    {0x0d, "copper, limiting at the far end"},
    {0x0e, "copper, limiting at the near end"},
    {0x0f, "copper, linear"},
    {0x10, "C-band tunable"},
    {0x11, "L-band tunable"},
};
static constexpr code_name extended_compliances[] = {
    {0x01, "100G or 25G AOC, BER 5e-5"},
    {0x02, "100GBASE-SR4 or 25GBASE-SR"},
    {0x03, "100GBASE-LR4 or 25GBASE-LR"},
    {0x04, "100GBASE-ER4 or 25GBASE-ER"},
    {0x05, "100GBASE-SR10"},
    {0x06, "100G CWDM4"},
    {0x07, "100G PSM4"},
    {0x08, "100G or 25G ACC, BER 5e-5"},
    {0x0b, "100GBASE-CR4 or 25GBASE-CR CA-L"},
    {0x0c, "25GBASE-CR CA-S"},
    {0x0d, "25GBASE-CR CA-N"},
    {0x10, "40GBASE-ER4"},
    {0x11, "4x10GBASE-SR"},
    {0x12, "40G PSM4"},
    {0x16, "10GBASE-T"},
    {0x17, "100G CLR4"},
    {0x18, "100G or 25G AOC, BER 1e-12"},
    {0x19, "100G or 25G ACC, BER 1e-12"},
    {0x1a, "100GE-DWDM2"},
    {0x1c, "10GBASE-T, short reach"},
    {0x1d, "5GBASE-T"},
    {0x1e, "2.5GBASE-T"},
    {0x1f, "40G SWDM4"},
    {0x20, "100G SWDM4"},
    {0x21, "100G PAM4 BiDi"},
    {0x22, "100G 4WDM-10"},
    {0x23, "100G 4WDM-20"},
    {0x24, "100G 4WDM-40"},
    {0x25, "100GBASE-DR"},
    {0x26, "100GBASE-FR1"},
    {0x27, "100GBASE-LR1"},
    {0x47, "400GBASE-DR4"},
    {0x48, "400GBASE-FR4"},
};
static constexpr code_name host_interfaces[] = {
    {0x01, "1000BASE-CX"},
    {0x02, "XAUI"},
    {0x03, "XFI"},
    {0x04, "SFI"},
    {0x05, "25GAUI"},
    {0x06, "XLAUI"},
    {0x07, "XLPPI"},
    {0x08, "LAUI-2"},
    {0x09, "50GAUI-2"},
    {0x0a, "50GAUI-1"},
    {0x0b, "CAUI-4"},
    {0x0c, "100GAUI-4"},
    {0x0d, "100GAUI-2"},
    {0x0e, "200GAUI-8"},
    {0x0f, "200GAUI-4"},
    {0x10, "400GAUI-16"},
    {0x11, "400GAUI-8"},
    {0x13, "10GBASE-CX4"},
    {0x14, "25GBASE-CR CA-L"},
    {0x15, "25GBASE-CR CA-S"},
    {0x16, "25GBASE-CR CA-N"},
    {0x17, "40GBASE-CR4"},
    {0x18, "50GBASE-CR"},
    {0x19, "100GBASE-CR10"},
    {0x1a, "100GBASE-CR4"},
    {0x1b, "100GBASE-CR2"},
    {0x1c, "200GBASE-CR4"},
    {0x1d, "400G CR8"},
    {0x4b, "100GAUI-1-S"},
    {0x4c, "100GAUI-1-L"},
    {0x4d, "200GAUI-2-S"},
    {0x4e, "200GAUI-2-L"},
    {0x4f, "400GAUI-4-S"},
    {0x50, "400GAUI-4-L"},
    {0x51, "800GAUI-8-S"},
    {0x52, "800GAUI-8-L"},
};
static constexpr code_name multi_mode_media[] = {
    {0x01, "10GBASE-SW"},   {0x02, "10GBASE-SR"},    {0x03, "25GBASE-SR"},
    {0x04, "40GBASE-SR4"},  {0x05, "40GE SWDM4"},    {0x06, "40GE BiDi"},
    {0x07, "50GBASE-SR"},   {0x08, "100GBASE-SR10"}, {0x09, "100GBASE-SR4"},
    {0x0a, "100GE SWDM4"},  {0x0b, "100GE BiDi"},    {0x0c, "100GBASE-SR2"},
    {0x0d, "100GBASE-SR1"}, {0x0e, "200GBASE-SR4"},  {0x0f, "400GBASE-SR16"},
    {0x10, "400GBASE-SR8"}, {0x11, "400GBASE-SR4"},  {0x12, "800GBASE-SR8"},
};
static constexpr code_name single_mode_media[] = {
    {0x01, "10GBASE-LW"},   {0x02, "10GBASE-EW"},   {0x04, "10GBASE-LR"},   {0x05, "10GBASE-ER"},
    {0x07, "25GBASE-LR"},   {0x08, "25GBASE-ER"},   {0x09, "40GBASE-LR4"},  {0x0a, "40GBASE-FR"},
    {0x0b, "50GBASE-FR"},   {0x0c, "50GBASE-LR"},   {0x0d, "100GBASE-LR4"}, {0x0e, "100GBASE-ER4"},
    {0x0f, "100G PSM4"},    {0x10, "100G CWDM4"},   {0x11, "100G 4WDM-10"}, {0x12, "100G 4WDM-20"},
    {0x13, "100G 4WDM-40"}, {0x14, "100GBASE-DR"},  {0x15, "100GBASE-FR1"}, {0x16, "100GBASE-LR1"},
    {0x17, "200GBASE-DR4"}, {0x18, "200GBASE-FR4"}, {0x19, "200GBASE-LR4"}, {0x1a, "400GBASE-FR8"},
    {0x1b, "400GBASE-LR8"}, {0x1c, "400GBASE-DR4"}, {0x1d, "400GBASE-FR4"},
};
static constexpr code_name copper_media[] = {
    {0x01, "copper cable"},
};
static constexpr code_name active_cable_media[] = {
    {0x01, "active cable, BER 1e-12"},
    {0x02, "active cable, BER 5e-5"},
    {0x03, "active cable, BER 2.6e-4"},
    {0x04, "active cable, BER 1e-6"},
};
static constexpr code_name base_t_media[] = {
    {0x01, "1000BASE-T"},
    {0x02, "2.5GBASE-T"},
    {0x03, "5GBASE-T"},
    {0x04, "10GBASE-T"},
};
static constexpr compliance_bit sfp_bits[] = {
    {3, 0x80, "10GBASE-ER"},
    {3, 0x40, "10GBASE-LRM"},
    {3, 0x20, "10GBASE-LR"},
    {3, 0x10, "10GBASE-SR"},
    {3, 0x08, "Infiniband 1X SX"},
    {3, 0x04, "Infiniband 1X LX"},
    {3, 0x02, "Infiniband 1X copper, active"},
    {3, 0x01, "Infiniband 1X copper, passive"},
    {6, 0x80, "BASE-PX"},
    {6, 0x40, "BASE-BX10"},
    {6, 0x20, "100BASE-FX"},
    {6, 0x10, "100BASE-LX10"},
    {6, 0x08, "1000BASE-T"},
    {6, 0x04, "1000BASE-CX"},
    {6, 0x02, "1000BASE-LX"},
    {6, 0x01, "1000BASE-SX"},
    {8, 0x08, "active cable"},
    {8, 0x04, "passive cable"},
    {7, 0x80, "FC very long distance"},
    {7, 0x40, "FC short distance"},
    {7, 0x20, "FC intermediate distance"},
    {7, 0x10, "FC long distance"},
    {7, 0x08, "FC medium distance"},
    {10, 0x80, "FC 1200 MB/s"},
    {10, 0x40, "FC 800 MB/s"},
    {10, 0x20, "FC 1600 MB/s"},
    {10, 0x10, "FC 400 MB/s"},
    {10, 0x08, "FC 3200 MB/s"},
    {10, 0x04, "FC 200 MB/s"},
    {10, 0x01, "FC 100 MB/s"},
};
static constexpr compliance_bit qsfp_bits[] = {
    {131, 0x40, "10GBASE-LRM"},       {131, 0x20, "10GBASE-LR"},
    {131, 0x10, "10GBASE-SR"},        {131, 0x08, "40GBASE-CR4"},
    {131, 0x04, "40GBASE-SR4"},       {131, 0x02, "40GBASE-LR4"},
    {131, 0x01, "40G active cable"},  {134, 0x08, "1000BASE-T"},
    {134, 0x04, "1000BASE-CX"},       {134, 0x02, "1000BASE-LX"},
    {134, 0x01, "1000BASE-SX"},       {135, 0x80, "FC very long distance"},
    {135, 0x40, "FC short distance"}, {135, 0x20, "FC intermediate distance"},
    {135, 0x10, "FC long distance"},  {135, 0x08, "FC medium distance"},
    {138, 0x80, "FC 1200 MB/s"},      {138, 0x40, "FC 800 MB/s"},
    {138, 0x20, "FC 1600 MB/s"},      {138, 0x10, "FC 400 MB/s"},
    {138, 0x08, "FC 3200 MB/s"},      {138, 0x04, "FC 200 MB/s"},
    {138, 0x01, "FC 100 MB/s"},
};

static std::string name_in(std::span<const code_name> names, uint8_t code)
{
    const auto found = std::ranges::find(names, code, &code_name::code);
    if (found != names.end())
        return found->name;
    static constexpr char digits[] = "0123456789abcdef";
    return {'0', 'x', digits[code >> 4], digits[code & 15]};
}

std::string form_factor_name(uint8_t code)
{
    return name_in(form_factors, code);
}

std::string connector_name(uint8_t code)
{
    return name_in(connectors, code);
}

std::string sfp_encoding_name(uint8_t code)
{
    return name_in(sfp_encodings, code);
}

std::string qsfp_encoding_name(uint8_t code)
{
    return name_in(qsfp_encodings, code);
}

std::string technology_name(uint8_t code)
{
    return name_in(technologies, code);
}

std::string extended_compliance_name(uint8_t code)
{
    return name_in(extended_compliances, code);
}

std::string host_interface_name(uint8_t code)
{
    return name_in(host_interfaces, code);
}

std::string media_interface_name(uint8_t kind, uint8_t code)
{
    static constexpr std::span<const code_name> kinds[] = {
        {}, multi_mode_media, single_mode_media, copper_media, active_cable_media, base_t_media};
    return name_in(kind < std::size(kinds) ? kinds[kind] : kinds[0], code);
}

std::span<const compliance_bit> sfp_compliance_bits()
{
    return sfp_bits;
}

std::span<const compliance_bit> qsfp_compliance_bits()
{
    return qsfp_bits;
}

} // namespace linux_board
