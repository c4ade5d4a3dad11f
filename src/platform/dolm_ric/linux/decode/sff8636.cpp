/* SPDX-License-Identifier: Apache-2.0 */
/* The memory of QSFP, QSFP+ and QSFP28 modules, SFF-8636: values and flags of four lanes in the
   lower memory, identity in page 0, limits in page 3. Offsets are decimal, as in the standard. */
#include "platform/dolm_ric/linux/decode/module_family.h"
#include "platform/dolm_ric/linux/decode/module_speed.h"

#include <algorithm>

namespace linux_board
{
namespace
{

/* Byte 2. */
enum status : uint8_t {
    data_not_ready_bit = 0x01,
    flat_memory_bit = 0x04,
};

/* Byte 220. */
enum diagnostics_type : uint8_t {
    has_tx_power_bit = 0x04,
    average_power_bit = 0x08,
};

} // namespace

/* The lower half of byte 86 lists the lanes whose transmitter the host has switched off, the lower
   half of byte 113 the lanes that this end of a split cable lacks. */
static constexpr memory_range values_range = {identity_address, 0, 0, 0, 58};
static constexpr memory_range off_range = {identity_address, 0, 0, 86, 1};
static constexpr memory_range lanes_range = {identity_address, 0, 0, 113, 1};
static constexpr memory_range identity_range = {identity_address, 0, 0, 128, 96};
static constexpr memory_range serial_range = {identity_address, 0, 0, 196, 28};
static constexpr memory_range limits_range = {identity_address, 0, 3, 128, 72};

static constexpr uint8_t lane_count = 4;

/* The first checksum covers the base fields, the second one the extended fields. A page of zeros
   has right checksums. */
static bool is_identity_right(const memory_view &identity)
{
    return identity.was_read() && is_sum_right(identity, 128, 63) &&
           is_sum_right(identity, 192, 31) && !are_blank(identity.bytes(128, 96));
}

/* The extended code counts only where the ordinary byte refers to it. */
static compliance_meaning compliance_of(const memory_view &identity)
{
    constexpr uint8_t is_extended = 0x80;
    const bool has_code = (identity.u8(131) & is_extended) != 0;
    return meaning_of_compliance(has_code ? identity.u8(192) : uint8_t{0});
}

static constexpr int first_copper_technology = 0x0a;

static bool is_copper(const memory_view &identity)
{
    constexpr uint8_t is_40gbase_cr4 = 0x08;
    return identity.u8(147) >> 4 >= first_copper_technology ||
           (identity.u8(131) & is_40gbase_cr4) != 0 ||
           medium_of_connector(identity.u8(130)) == medium::copper ||
           compliance_of(identity).carrier == medium::copper;
}

/* The technology 0 is a laser of 850 nm, or an empty byte: it counts with a wavelength only. */
static bool is_light(const memory_view &identity)
{
    constexpr uint8_t any_optical = 0x77;
    return identity.u8(147) >> 4 != 0 || identity.u16(186) != 0 ||
           (identity.u8(131) & any_optical) != 0 ||
           medium_of_connector(identity.u8(130)) == medium::light ||
           compliance_of(identity).carrier == medium::light;
}

static medium medium_of(const memory_view &identity)
{
    return medium_by(is_copper(identity), is_light(identity));
}

static bool is_serial_wanted(const module_memory &memory)
{
    return is_identity_right(memory_view(memory, identity_range));
}

static bool are_lanes_wanted(const module_memory &memory)
{
    return is_serial_wanted(memory) && !is_copper(memory_view(memory, identity_range));
}

static bool are_limits_wanted(const module_memory &memory)
{
    const memory_view values(memory, values_range);
    return is_serial_wanted(memory) && values.was_read() && (values.u8(2) & flat_memory_bit) == 0;
}

/* The page has no checksum; after an error in the driver it has blocks of zeros. */
static bool are_limits_right(const memory_view &limits)
{
    static constexpr size_t groups[] = {128, 144, 176, 184, 192};
    return std::ranges::none_of(groups, [&](size_t at) { return are_blank(limits.bytes(at, 8)); });
}

/* Some drivers return only zeros of an upper page if bit 2 of the third requested byte is set: they
   take that byte for one of the lower memory. These drivers read the first block before that check,
   so each reading is one block. */
static constexpr uint8_t block = 8;

static constexpr plan_row qsfp_plan[] = {
    {{identity_range, reading_time::once, false}, always},
    {{serial_range, reading_time::presence, false}, is_serial_wanted},
    {{lanes_range, reading_time::once, true}, are_lanes_wanted},
    {{values_range, reading_time::diagnostics, true}, is_serial_wanted},
    {{off_range, reading_time::diagnostics, true}, are_lanes_wanted},
    {{limits_range, reading_time::once, true, block}, are_limits_wanted, are_limits_right},
};

/* The rate is that of one lane. Modules with a code for 10 Gb/s have four such lanes, as those for
   40 Gb/s. */
static uint32_t speed_of(const memory_view &identity)
{
    constexpr uint8_t any_40g_or_10g = 0x7f;

    if (const auto speed = compliance_of(identity).qsfp_speed)
        return speed;
    if (identity.u8(131) & any_40g_or_10g)
        return 400;
    const uint32_t rate =
        identity.u8(140) == 255 ? identity.u8(222) * 250u : identity.u8(140) * 100u;
    return lane_count * speed_of_rate(rate, identity.u8(139) == 0x08);
}

static void fill_identity(const memory_view &from, module_contents &contents)
{
    dolm_sfp_info &sfp = contents.identity;

    const medium carrier = medium_of(from);
    sfp.sfp_connector = connector_of(carrier);
    sfp.sfp_eth_speed = module_speed_code(speed_of(from));
    sfp.sfp_nom_bitrate = from.u8(140);
    copy_text(sfp.sfp_vendor_name, from.bytes(148, 16));
    memcpy(sfp.sfp_vendor_oui, from.bytes(165, 3).data(), 3);
    copy_text(sfp.sfp_vendor_pn, from.bytes(168, 16));
    copy_text(sfp.sfp_vendor_rev, from.bytes(184, 2));
    copy_text(sfp.sfp_vendor_sn, from.bytes(196, 16));
    copy_text(sfp.sfp_date_code, from.bytes(212, 8));
    contents.copper = carrier == medium::copper;
}

/* Four bits for each lane, in the order of measurement_flag: lanes 0 and 2 are in the upper
   halves. */
static uint8_t flags_at(const memory_view &values, size_t offset, uint8_t lane)
{
    const int both = values.u8(offset + lane / 2u);
    return static_cast<uint8_t>(lane % 2 == 0 ? both >> 4 : both & 0x0f);
}

static measurement lanes_at(const memory_view &values, size_t offset, size_t flags_offset,
                            uint8_t missing_lanes, const conversion &convert)
{
    measurement result;
    for (uint8_t lane = 0; lane < lane_count; lane++)
        if ((missing_lanes >> lane & 1) == 0)
            result.lanes.push_back({lane, convert(values.u16(offset + size_t{2} * lane)),
                                    flags_at(values, flags_offset, lane)});
    return result;
}

/* If a module doesn't measure its temperature, the value reads as 0. */
static void fill_module(const memory_view &values, module_contents &contents)
{
    contents.diagnostics = diagnostics_state::available;
    if (values.u16(22) != 0)
        contents.temperature.lanes = {
            {0, temperature_steps(values.s16(22)), flags_at(values, 6, 0)}};
    contents.voltage.lanes = {{0, voltage_steps(values.u16(26)), flags_at(values, 7, 0)}};
}

static void fill_lanes(const memory_view &values, uint8_t missing_lanes, bool has_tx_power,
                       module_contents &contents)
{
    const int present = ~missing_lanes & 0x0f;
    contents.rx_los_lanes = static_cast<uint32_t>(values.u8(3) & present);
    contents.tx_fault_lanes = static_cast<uint32_t>(values.u8(4) & present);
    contents.rx_power = lanes_at(values, 34, 9, missing_lanes, power_steps);
    contents.tx_bias = lanes_at(values, 42, 11, missing_lanes, bias_steps);
    if (has_tx_power)
        contents.tx_power = lanes_at(values, 50, 13, missing_lanes, power_steps);
}

static void fill_limits(const memory_view &limits, module_contents &contents)
{
    contents.temperature.limits = signed_limits_at(limits, 128, temperature_steps);
    contents.voltage.limits = limits_at(limits, 144, voltage_steps);
    contents.rx_power.limits = limits_at(limits, 176, power_steps);
    contents.tx_bias.limits = limits_at(limits, 184, bias_steps);
    contents.tx_power.limits = limits_at(limits, 192, power_steps);
}

/* Of a copper module only temperature and voltage are taken; a cable measures nothing and reads as
   zero. Without page 03h, which a module may lack and an old driver doesn't return, there are no
   limits. */
static void decode_diagnostics(const module_memory &memory, bool has_tx_power,
                               module_contents &contents)
{
    const memory_view values(memory, values_range);
    const memory_view lanes(memory, lanes_range);
    const memory_view off(memory, off_range);
    const memory_view limits(memory, limits_range);

    contents.diagnostics = diagnostics_state::not_read;
    if (!values.was_read())
        return;
    if (contents.copper && are_blank(values.bytes(22, 6))) {
        contents.diagnostics = diagnostics_state::none;
        return;
    }
    if ((values.u8(2) & data_not_ready_bit) != 0)
        return;
    if (are_blank(values.bytes(22, 36)) || values.u16(26) == 0) {
        const bool blank = are_blank(values.bytes(22, 36));
        contents.doubts.push_back(blank ? "the measured values are blank" : no_voltage);
        return;
    }
    fill_module(values, contents);
    if (!contents.copper) {
        const uint8_t missing = lanes.was_read() ? lanes.u8(113) & 0x0f : 0;
        contents.tx_off_lanes = off.was_read() ? off.u8(86) & 0x0f : 0;
        contents.tx_off_unread = off.was_read() ? 0 : 0x0f;
        fill_lanes(values, missing, has_tx_power, contents);
    }
    if (limits.was_read())
        fill_limits(limits, contents);
}

static void decode_qsfp(const module_memory &memory, const memory_view &identity,
                        module_contents &contents)
{
    contents.has_flags = true;
    contents.has_average_power = (identity.u8(220) & average_power_bit) != 0;
    fill_identity(identity, contents);
    decode_diagnostics(memory, (identity.u8(220) & has_tx_power_bit) != 0, contents);
}

const module_layout qsfp_layout = {module_family::qsfp, qsfp_plan, is_identity_right, decode_qsfp};

} // namespace linux_board
