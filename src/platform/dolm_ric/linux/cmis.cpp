/* SPDX-License-Identifier: Apache-2.0 */
/* The memory of QSFP-DD, OSFP and other modules with CMIS: identity in page 00h, what is measured
   in page 01h, limits in page 02h, values and flags of eight lanes in page 11h. A module of more
   lanes has a bank of page 11h for each eight of them. A flat memory, as in cables, ends with page
   00h. Offsets are decimal as there. */
#include "platform/dolm_ric/linux/module_family.h"
#include "platform/dolm_ric/linux/module_speed.h"

#include <algorithm>

namespace linux_board
{
namespace
{

/* Byte 159 of page 01h. */
enum module_monitors : uint8_t {
    HAS_TEMPERATURE = 0x01,
    HAS_VOLTAGE = 0x02,
};

/* Byte 160 of page 01h. */
enum monitors : uint8_t {
    HAS_TX_BIAS = 0x01,
    HAS_TX_POWER = 0x02,
    HAS_RX_POWER = 0x04,
};

/* Byte 151 of page 01h. */
enum measurement_types : uint8_t {
    AVERAGE_POWER = 0x10,
};

/* Where page 11h has a measurement's values, of 16 bits a lane, and its flags: four bytes, of one
   bit a lane, for high alarm, low alarm, high warning and low warning. */
struct lane_fields {
    size_t values;
    size_t flags;
};

} // namespace

/* The sum of the identity, at 222, is the last byte that is read of page 00h. Of page 01h the bytes
   142 (banks) and 159 and 160 (monitors) are needed. */
static constexpr memory_range state_range = {identity_address, 0, 0, 0, 18};
static constexpr memory_range applications_range = {identity_address, 0, 0, 86, 32};
static constexpr memory_range identity_range = {identity_address, 0, 0, 128, 95};
static constexpr memory_range serial_range = {identity_address, 0, 0, 166, 24};
static constexpr memory_range features_range = {identity_address, 0, 0x01, 142, 19};
static constexpr memory_range limits_range = {identity_address, 0, 0x02, 128, 72};

static constexpr uint8_t lanes_of_bank = 8;
static constexpr uint8_t max_banks = 4;

static constexpr memory_range lanes_range(uint8_t bank)
{
    return {identity_address, bank, 0x11, 134, 68};
}

static constexpr uint8_t flat_memory = 0x80; /* byte 2 */

static constexpr lane_fields tx_power_fields = {154, 139};
static constexpr lane_fields tx_bias_fields = {170, 143};
static constexpr lane_fields rx_power_fields = {186, 149};

/* The sum of a page of zeros is right. */
static bool is_identity_right(const memory_view &identity)
{
    return identity.was_read() && is_sum_right(identity, 128, 94) &&
           !are_blank(identity.bytes(128, 95));
}

/* Codes of the media technology: 0x0a to 0x0f are cables of copper, passive or with electronics. */
static bool is_copper(const memory_view &identity)
{
    const uint8_t technology = identity.u8(212);
    return technology >= 0x0a && technology <= 0x0f;
}

/* Of the lasers: in any other state they may be off, and their values are no faults. */
static bool is_running(const memory_view &state)
{
    constexpr int ready_state = 3;
    return (state.u8(3) >> 1 & 7) == ready_state;
}

/* Two bits: one, two or four banks; the fourth code is reserved and counts as one. Without page 01h
   the lanes are unknown. */
static uint8_t bank_count(const memory_view &features)
{
    static constexpr uint8_t counts[] = {1, 2, max_banks, 1};
    return features.was_read() ? counts[features.u8(142) & 3] : uint8_t{0};
}

static bool is_more_wanted(const module_memory &memory)
{
    return is_identity_right(memory_view(memory, identity_range));
}

static bool are_pages_wanted(const module_memory &memory)
{
    const memory_view state(memory, state_range);
    return is_more_wanted(memory) && state.was_read() && (state.u8(2) & flat_memory) == 0;
}

template <uint8_t bank>
static bool is_bank_wanted(const module_memory &memory)
{
    return are_pages_wanted(memory) && !is_copper(memory_view(memory, identity_range)) &&
           bank < bank_count(memory_view(memory, features_range));
}

static constexpr plan_row cmis_plan[] = {
    {{identity_range, reading_time::once, false}, always},
    {{serial_range, reading_time::presence, false}, is_more_wanted},
    {{applications_range, reading_time::once, true}, is_more_wanted},
    {{state_range, reading_time::diagnostics, true}, is_more_wanted},
    {{features_range, reading_time::once, true}, are_pages_wanted},
    {{limits_range, reading_time::once, true}, are_pages_wanted},
    {{lanes_range(0), reading_time::diagnostics, true}, is_bank_wanted<0>},
    {{lanes_range(1), reading_time::diagnostics, true}, is_bank_wanted<1>},
    {{lanes_range(2), reading_time::diagnostics, true}, is_bank_wanted<2>},
    {{lanes_range(3), reading_time::diagnostics, true}, is_bank_wanted<3>},
};

/* The fastest of the applications; four bytes each, the host interface first, up to one of 0xff. */
static uint32_t speed_of(const memory_view &applications)
{
    uint32_t fastest = 0;
    for (size_t at = 86; applications.was_read() && at < 118; at += 4) {
        if (applications.u8(at) == 0xff)
            break;
        fastest = std::max(fastest, speed_of_host_interface(applications.u8(at)));
    }
    return fastest;
}

static void fill_identity(const memory_view &from, uint32_t speed, module_contents &contents)
{
    dolm_sfp_info &sfp = contents.identity;

    sfp.sfp_connector = connector_of(from.u8(203));
    sfp.sfp_eth_speed = module_speed_code(speed);
    copy_text(sfp.sfp_vendor_name, from.bytes(129, 16));
    memcpy(sfp.sfp_vendor_oui, from.bytes(145, 3).data(), 3);
    copy_text(sfp.sfp_vendor_pn, from.bytes(148, 16));
    copy_text(sfp.sfp_vendor_rev, from.bytes(164, 2));
    copy_text(sfp.sfp_vendor_sn, from.bytes(166, 16));
    copy_text(sfp.sfp_date_code, from.bytes(182, 8));
    contents.copper = is_copper(from);
}

/* Of the whole module: four bits from `bit` on, high alarm, low alarm, high warning, low warning.
 */
static uint8_t module_flags(uint8_t byte, int bit)
{
    int flags = 0;
    for (int kind = 0; kind < 4; kind++)
        flags = flags << 1 | (byte >> (bit + kind) & 1);
    return static_cast<uint8_t>(flags);
}

static uint8_t lane_flags(const memory_view &lanes, size_t offset, int lane)
{
    int flags = 0;
    for (size_t kind = 0; kind < 4; kind++)
        flags = flags << 1 | (lanes.u8(offset + kind) >> lane & 1);
    return static_cast<uint8_t>(flags);
}

static void add_lanes(const memory_view &lanes, const lane_fields &fields, uint8_t bank,
                      uint8_t missing_lanes, const conversion &convert, measurement &to)
{
    for (uint8_t lane = 0; lane < lanes_of_bank; lane++)
        if ((missing_lanes >> lane & 1) == 0)
            to.lanes.push_back({static_cast<uint8_t>(bank * lanes_of_bank + lane),
                                convert(lanes.u16(fields.values + size_t{2} * lane)),
                                lane_flags(lanes, fields.flags, lane)});
}

/* Steps of bias are 2 uA times the module's own factor, 1, 2 or 4, for values and limits alike: a
   decoder that ignores it or divides by it shows half or a quarter of a current, or less. The
   fourth code is reserved: nothing is known of such values. */
static int bias_scale_code(const memory_view &features)
{
    return features.u8(160) >> 3 & 3;
}

static constexpr int reserved_bias_scale = 3;

static conversion bias_conversion(const memory_view &features)
{
    conversion bias = bias_steps;
    bias.multiplier *= 1 << bias_scale_code(features);
    return bias;
}

/* The lanes that a module lacks are known for the first bank only. */
static void fill_bank(const memory_view &lanes, uint8_t bank, uint8_t missing_lanes,
                      const memory_view &features, module_contents &contents)
{
    const uint8_t has = features.u8(160);
    const int first = bank * lanes_of_bank;
    const uint32_t present = static_cast<uint8_t>(~missing_lanes);
    contents.tx_fault_lanes |= (lanes.u8(135) & present) << first;
    contents.rx_los_lanes |= (lanes.u8(147) & present) << first;
    if ((has & HAS_TX_BIAS) && bias_scale_code(features) != reserved_bias_scale)
        add_lanes(lanes, tx_bias_fields, bank, missing_lanes, bias_conversion(features),
                  contents.tx_bias);
    if (has & HAS_TX_POWER)
        add_lanes(lanes, tx_power_fields, bank, missing_lanes, power_steps, contents.tx_power);
    if (has & HAS_RX_POWER)
        add_lanes(lanes, rx_power_fields, bank, missing_lanes, power_steps, contents.rx_power);
}

/* A bank that could not be read, or is blank, leaves its lanes out; the others stand. */
static void fill_lanes(const module_memory &memory, const memory_view &features,
                       uint8_t missing_lanes, module_contents &contents)
{
    for (uint8_t bank = 0; bank < bank_count(features); bank++) {
        const memory_view lanes(memory, lanes_range(bank));
        if (lanes.was_read() && !are_blank(lanes.bytes(154, 48)))
            fill_bank(lanes, bank, bank == 0 ? missing_lanes : uint8_t{0}, features, contents);
    }
}

static void fill_limits(const memory_view &limits, const memory_view &features,
                        module_contents &contents)
{
    contents.temperature.limits = signed_limits_at(limits, 128, temperature_steps);
    contents.voltage.limits = limits_at(limits, 136, voltage_steps);
    contents.tx_power.limits = limits_at(limits, 176, power_steps);
    contents.rx_power.limits = limits_at(limits, 192, power_steps);
    if (features.was_read())
        contents.tx_bias.limits = limits_at(limits, 184, bias_conversion(features));
}

/* A value of 0 that the module doesn't claim to measure is none. Without page 01h it claims
   nothing and denies nothing. */
static void fill_state(const memory_view &state, const memory_view &features,
                       module_contents &contents)
{
    const int claimed = features.was_read() ? features.u8(159) : HAS_TEMPERATURE | HAS_VOLTAGE;

    if ((claimed & HAS_TEMPERATURE) || state.u16(14) != 0)
        contents.temperature.lanes = {
            {0, temperature_steps(state.s16(14)), module_flags(state.u8(9), 0)}};
    if ((claimed & HAS_VOLTAGE) || state.u16(16) != 0)
        contents.voltage.lanes = {{0, voltage_steps(state.u16(16)), module_flags(state.u8(9), 4)}};
}

/* A cable that measures nothing leaves temperature and voltage at 0. */
static void decode_diagnostics(const module_memory &memory, uint8_t missing_lanes,
                               module_contents &contents)
{
    const memory_view state(memory, state_range);
    const memory_view features(memory, features_range);
    const memory_view limits(memory, limits_range);

    contents.diagnostics = diagnostics_state::not_read;
    if (!state.was_read())
        return;
    const bool is_flat = (state.u8(2) & flat_memory) != 0;
    if (are_blank(state.bytes(14, 4))) {
        contents.diagnostics = is_flat ? diagnostics_state::none : diagnostics_state::not_read;
        return;
    }
    contents.diagnostics = diagnostics_state::available;
    contents.has_flags = !is_flat;
    contents.has_average_power = features.was_read() && (features.u8(151) & AVERAGE_POWER) != 0;
    fill_state(state, features, contents);
    if (is_flat)
        return;
    if (is_running(state) && !contents.copper)
        fill_lanes(memory, features, missing_lanes, contents);
    if (limits.was_read())
        fill_limits(limits, features, contents);
}

static void decode_cmis(const module_memory &memory, const memory_view &identity,
                        module_contents &contents)
{
    fill_identity(identity, speed_of(memory_view(memory, applications_range)), contents);
    decode_diagnostics(memory, identity.u8(210), contents);
}

const module_layout cmis_layout = {module_family::cmis, cmis_plan, is_identity_right, decode_cmis};

} // namespace linux_board
