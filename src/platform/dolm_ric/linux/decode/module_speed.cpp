/* SPDX-License-Identifier: Apache-2.0 */
/* Codes that aren't listed are reserved, or belong to other networks than Ethernet. */
#include "platform/dolm_ric/linux/decode/module_speed.h"

#include "platform/dolm_ric/dolm_ric.h"

namespace linux_board
{

/* The lower half holds up to 6.5 Tb/s; more counts as unknown. */
static uint32_t other_code(uint32_t tenth_gbps)
{
    return tenth_gbps == 0 || tenth_gbps > 0xffff ? 0 : DOLM_RIC_SPEED_CODE(tenth_gbps);
}

uint32_t link_speed_code(uint32_t tenth_gbps)
{
    static constexpr struct {
        uint32_t tenth_gbps;
        uint32_t code;
    } codes[] = {{12, 0x0001}, {25, 0x0002},  {49, 0x0008},
                 {98, 0x0020}, {101, 0x0040}, {100, 0x1000}};

    for (const auto &row : codes)
        if (row.tenth_gbps == tenth_gbps)
            return row.code;
    return other_code(tenth_gbps);
}

uint32_t module_speed_code(uint32_t tenth_gbps)
{
    switch (tenth_gbps) {
    case 10:
        return DOLM_SFP_ETHSPEED_1000MB;
    case 100:
        return DOLM_SFP_ETHSPEED_10GB;
    default:
        return other_code(tenth_gbps);
    }
}

uint32_t tenth_gbps_of(uint32_t megabits)
{
    return megabits == UINT32_MAX ? 0 : megabits / 100;
}

/* Makers state the rate of the line code, the bit rate or something between, so each speed has a
   range of rates. Rates between the ranges belong to other networks and have no Ethernet speed. */
uint32_t speed_of_rate(uint32_t megabaud, bool is_pam4)
{
    static constexpr struct {
        uint32_t lowest;
        uint32_t highest;
        uint32_t tenth_gbps;
    } ranges[] = {{1000, 1400, 10},     {2300, 3300, 25},    {4900, 5400, 50},
                  {9800, 11900, 100},   {24000, 29000, 250}, {48000, 58000, 500},
                  {96000, 116000, 1000}};

    const uint32_t rate = is_pam4 ? 2 * megabaud : megabaud;
    for (const auto &range : ranges)
        if (rate >= range.lowest && rate <= range.highest)
            return range.tenth_gbps;
    return 0;
}

compliance_meaning meaning_of_compliance(uint8_t extended_code)
{
    static constexpr struct {
        uint8_t first;
        uint8_t last;
        compliance_meaning meaning;
    } codes[] = {
        {0x01, 0x04, {250, 1000, medium::light}},   /* AOC, SR, LR, ER */
        {0x05, 0x07, {0, 1000, medium::light}},     /* SR10, CWDM4, PSM4 */
        {0x08, 0x08, {250, 1000, medium::copper}},  /* ACC */
        {0x0b, 0x0d, {250, 1000, medium::copper}},  /* CR4, CR-S, CR-N */
        {0x10, 0x12, {0, 400, medium::light}},      /* ER4, 4 x SR, PSM4 */
        {0x16, 0x16, {100, 0, medium::copper}},     /* 10GBASE-T */
        {0x17, 0x17, {0, 1000, medium::light}},     /* CLR4 */
        {0x18, 0x18, {250, 1000, medium::light}},   /* AOC */
        {0x19, 0x19, {250, 1000, medium::copper}},  /* ACC */
        {0x1a, 0x1b, {0, 1000, medium::light}},     /* DWDM */
        {0x1c, 0x1c, {100, 0, medium::copper}},     /* 10GBASE-T, 30 m */
        {0x1d, 0x1d, {50, 0, medium::copper}},      /* 5GBASE-T */
        {0x1e, 0x1e, {25, 0, medium::copper}},      /* 2.5GBASE-T */
        {0x1f, 0x1f, {0, 400, medium::light}},      /* SWDM4 */
        {0x20, 0x28, {0, 1000, medium::light}},     /* SWDM4, BiDi, 4WDM, DR, FR, LR, SR1 */
        {0x29, 0x29, {1000, 4000, medium::light}},  /* SR1, SR4 */
        {0x2a, 0x2b, {1000, 1000, medium::light}},  /* FR1, LR1 */
        {0x2c, 0x2e, {0, 1000, medium::light}},     /* LR1-20, ER1-30, ER1-40 */
        {0x2f, 0x2f, {1000, 1000, medium::light}},  /* LR1-20 */
        {0x30, 0x30, {500, 2000, medium::copper}},  /* ACC */
        {0x31, 0x31, {500, 2000, medium::light}},   /* AOC */
        {0x32, 0x32, {500, 2000, medium::copper}},  /* ACC */
        {0x33, 0x33, {500, 2000, medium::light}},   /* AOC */
        {0x34, 0x35, {1000, 1000, medium::light}},  /* ER1-30, ER1-40 */
        {0x36, 0x36, {1000, 4000, medium::light}},  /* VR1, VR4 */
        {0x37, 0x37, {100, 0, medium::light}},      /* 10GBASE-BR */
        {0x38, 0x38, {250, 0, medium::light}},      /* 25GBASE-BR */
        {0x39, 0x39, {500, 0, medium::light}},      /* 50GBASE-BR */
        {0x3a, 0x3a, {0, 1000, medium::light}},     /* VR1 */
        {0x3f, 0x3f, {1000, 4000, medium::copper}}, /* CR1, CR4 */
        {0x40, 0x40, {500, 2000, medium::copper}},  /* CR, CR4 */
        {0x41, 0x42, {500, 2000, medium::light}},   /* SR, FR, SR4, DR4 */
        {0x43, 0x44, {0, 2000, medium::light}},     /* FR4, PSM4 */
        {0x45, 0x45, {500, 0, medium::light}},      /* LR */
        {0x46, 0x46, {0, 2000, medium::light}},     /* LR4 */
        {0x47, 0x49, {0, 4000, medium::light}},     /* DR4, FR4, LR4 */
        {0x4a, 0x4a, {500, 0, medium::light}},      /* ER */
        {0x4b, 0x4c, {0, 4000, medium::light}},     /* LR4, ZR */
    };

    for (const auto &row : codes)
        if (extended_code >= row.first && extended_code <= row.last)
            return row.meaning;
    return {0, 0, medium::unknown};
}

uint32_t speed_of_host_interface(uint8_t code)
{
    static constexpr struct {
        uint8_t first;
        uint8_t last;
        uint16_t tenth_gbps;
    } codes[] = {
        {0x01, 0x01, 10},   {0x02, 0x04, 100},   {0x05, 0x05, 250},  {0x06, 0x07, 400},
        {0x08, 0x0a, 500},  {0x0b, 0x0d, 1000},  {0x0e, 0x0f, 2000}, {0x10, 0x11, 4000},
        {0x13, 0x13, 100},  {0x14, 0x16, 250},   {0x17, 0x17, 400},  {0x18, 0x18, 500},
        {0x19, 0x1b, 1000}, {0x1c, 0x1c, 2000},  {0x1d, 0x1d, 4000}, {0x1e, 0x1e, 2000},
        {0x1f, 0x1f, 4000}, {0x20, 0x20, 1000},  {0x21, 0x21, 2000}, {0x22, 0x22, 4000},
        {0x23, 0x23, 8000}, {0x41, 0x42, 1000},  {0x43, 0x45, 500},  {0x46, 0x46, 1000},
        {0x47, 0x47, 2000}, {0x48, 0x48, 4000},  {0x49, 0x49, 8000}, {0x4b, 0x4c, 1000},
        {0x4d, 0x4e, 2000}, {0x4f, 0x50, 4000},  {0x51, 0x52, 8000}, {0x55, 0x56, 16000},
        {0x57, 0x57, 8000}, {0x58, 0x58, 16000}, {0x80, 0x80, 2000}, {0x81, 0x81, 4000},
        {0x82, 0x82, 8000}, {0x83, 0x83, 16000},
    };

    for (const auto &row : codes)
        if (code >= row.first && code <= row.last)
            return row.tenth_gbps;
    return 0;
}

} // namespace linux_board
