/* SPDX-License-Identifier: Apache-2.0 */
/* Numbers of connectors and kinds of modules are codes of SFF-8024. */
#include "platform/dolm_ric/linux/decode/module_family.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace linux_board
{

float memory_view::f32(size_t offset) const
{
    return std::bit_cast<float>(static_cast<uint32_t>(u16(offset)) << 16 | u16(offset + 2));
}

bool is_sum_right(const memory_view &view, size_t offset, size_t length)
{
    const auto bytes = view.bytes(offset, length);
    return view.trusts_sums() ||
           (std::accumulate(bytes.begin(), bytes.end(), 0u) & 0xff) == view.u8(offset + length);
}

bool are_blank(std::span<const uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0x00; }) ||
           std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0xff; });
}

double conversion::operator()(double raw) const
{
    double value = 0;
    for (auto coefficient = coefficients.rbegin(); coefficient != coefficients.rend();
         ++coefficient)
        value = value * raw + *coefficient;
    return value * multiplier / divisor;
}

measurement_limits limits_at(const memory_view &view, size_t offset, const conversion &convert)
{
    return {.high_alarm = convert(view.u16(offset)),
            .low_alarm = convert(view.u16(offset + 2)),
            .high_warning = convert(view.u16(offset + 4)),
            .low_warning = convert(view.u16(offset + 6))};
}

measurement_limits signed_limits_at(const memory_view &view, size_t offset,
                                    const conversion &convert)
{
    return {.high_alarm = convert(view.s16(offset)),
            .low_alarm = convert(view.s16(offset + 2)),
            .high_warning = convert(view.s16(offset + 4)),
            .low_warning = convert(view.s16(offset + 6))};
}

medium medium_of_connector(uint8_t code)
{
    static constexpr struct {
        uint8_t first;
        uint8_t last;
        medium carrier;
    } codes[] = {
        {0x01, 0x01, medium::light},  /* SC */
        {0x02, 0x05, medium::copper}, /* Fibre Channel copper, BNC/TNC, coaxial */
        {0x06, 0x0d, medium::light},  /* fibre jack to MPO, with LC between */
        {0x20, 0x22, medium::copper}, /* HSSDC II, copper pigtail, RJ45 */
        {0x24, 0x28, medium::light},  /* MXC, CS, SN, MPO */
    };

    for (const auto &row : codes)
        if (code >= row.first && code <= row.last)
            return row.carrier;
    return medium::unknown;
}

uint8_t connector_of(medium carrier)
{
    switch (carrier) {
    case medium::light:
        return DOLM_SFP_CONNECTOR_LC;
    case medium::copper:
        return DOLM_SFP_CONNECTOR_RJ45;
    default:
        return DOLM_SFP_CONNECTOR_OTHER;
    }
}

const module_layout *layout_of(const module_memory &memory)
{
    const memory_view view(memory, identifier_range);
    if (!view.was_read())
        return nullptr;
    switch (view.u8(0)) {
    case 0x02: /* a module soldered to the board */
    case 0x03: /* SFP, SFP+, SFP28, SFP56 */
    case 0x0b: /* DWDM-SFP */
        return &sfp_layout;
    case 0x0c: /* QSFP */
    case 0x0d: /* QSFP+ */
    case 0x11: /* QSFP28, QSFP56 */
        return &qsfp_layout;
    case 0x18: /* QSFP-DD */
    case 0x19: /* OSFP */
    case 0x1b: /* DSFP */
    case 0x1e: /* QSFP with CMIS */
    case 0x1f: /* SFP-DD with CMIS */
    case 0x20: /* SFP with CMIS */
    case 0x21: /* OSFP-XD */
        return &cmis_layout;
    default:
        return nullptr;
    }
}

bool is_range_right(const module_memory &memory, const memory_range &range)
{
    const module_layout *layout = layout_of(memory);
    const memory_view view(memory, range);
    if (layout == nullptr || !view.was_read())
        return true;
    const auto row = std::ranges::find_if(
        layout->plan, [&](const plan_row &one) { return one.step.range == range; });
    return row == layout->plan.end() || row->is_right == nullptr || row->is_right(view);
}

/* Whether a row is wanted depends on what earlier rows have read, so the plan only grows at its
   end. */
std::vector<reading_step> reading_plan(const module_memory &memory)
{
    std::vector<reading_step> plan = {{identifier_range, reading_time::once, false}};
    if (const module_layout *layout = layout_of(memory))
        for (const plan_row &row : layout->plan)
            if (row.is_wanted(memory))
                plan.push_back(row.step);
    return plan;
}

} // namespace linux_board
