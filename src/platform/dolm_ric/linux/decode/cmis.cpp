/* SPDX-License-Identifier: Apache-2.0 */
/* The memory of QSFP-DD, OSFP and other modules with CMIS: identity in page 00h, what is measured
   in page 01h, limits in page 02h, values and flags of eight lanes in page 11h. A module of more
   lanes has a bank of page 11h for each eight lanes. A flat memory, as in cables, ends with page
   00h. Offsets are decimal, as in the standard. */
#include "platform/dolm_ric/linux/decode/module_family.h"
#include "platform/dolm_ric/linux/decode/module_speed.h"
#include "platform/dolm_ric/linux/decode/vdm.h"

#include <algorithm>
#include <bit>
#include <optional>

namespace linux_board
{
namespace
{

/* Byte 159 of page 01h; its higher bits are for auxiliary monitors. */
enum module_monitors : uint8_t {
    has_temperature_bit = 0x01,
    has_voltage_bit = 0x02,
};

/* Byte 160 of page 01h. */
enum monitors : uint8_t {
    has_tx_bias_bit = 0x01,
    has_tx_power_bit = 0x02,
    has_rx_power_bit = 0x04,
};

/* Byte 151 of page 01h. */
enum measurement_types : uint8_t {
    average_power_bit = 0x10,
};

/* Byte 85. The code 4 is an active cable, of copper or fibre. */
enum media_kind : uint8_t { multi_mode = 1, single_mode = 2, passive_copper = 3, base_t = 5 };

/* An application: `host_lanes` lanes of the host, beginning at a lane of `host_starts` (bit n: lane
   n), are carried by `media_lanes` lanes of light, beginning at a lane of `media_starts`. */
struct application {
    int host_lanes;
    int media_lanes;
    uint32_t host_starts;
    uint32_t media_starts;
};

/* State of a data path. Its lanes send only in `activated`; they receive in the last four states.
   Modules that don't report a state have the code 0. */
enum class path_state : uint8_t {
    untold,
    deactivated,
    starting,
    ending,
    activated,
    turning_on,
    turning_off,
    initialized
};

/* Where page 11h has the values of a measurement, 16 bits for each lane, and its flags: four bytes
   with one bit for each lane, for high alarm, low alarm, high warning and low warning. */
struct lane_fields {
    size_t values;
    size_t flags;
};

/* A monitor of the whole module. A bit of byte 145 of page 01h selects which of two quantities it
   measures; a quantity that the contents don't have is null. */
struct auxiliary_monitor {
    uint8_t claim; /* in byte 159 of page 01h */
    uint8_t kind;  /* in byte 145 */
    measurement module_contents::*if_clear;
    measurement module_contents::*if_set;
    size_t value;
    size_t flags; /* byte of the flags; their first bit is first_flag */
    int first_flag;
    size_t limits; /* offset on page 02h */
};

} // namespace

/* The checksum of the identity, byte 222, is the last byte that is read of page 00h. Pages 01h and
   02h are read as a whole for their checksums. Page 11h is read from the states of the data paths
   to the applications of the lanes. */
static constexpr memory_range state_range = {identity_address, 0, 0, 0, 24};
/* The version of the active firmware, and the cause of a fault. */
static constexpr memory_range firmware_range = {identity_address, 0, 0, 38, 4};
static constexpr memory_range applications_range = {identity_address, 0, 0, 84, 34};
static constexpr memory_range identity_range = {identity_address, 0, 0, 128, 95};
static constexpr memory_range serial_range = {identity_address, 0, 0, 166, 24};
static constexpr memory_range features_range = {identity_address, 0, 0x01, 128, 128};
static constexpr memory_range limits_range = {identity_address, 0, 0x02, 128, 128};

static constexpr uint8_t lanes_of_bank = 8;
static constexpr uint8_t banks_with_switches = 2; /* number of banks whose switches are read */

static constexpr memory_range lanes_range(uint8_t bank)
{
    return {identity_address, bank, 0x11, 128, 86};
}

/* Bits of the lanes of light whose transmitter the host has switched off. */
static constexpr memory_range off_range(uint8_t bank)
{
    return {identity_address, bank, 0x10, 130, 1};
}

static constexpr uint8_t flat_memory = 0x80; /* byte 2 */

static constexpr lane_fields tx_power_fields = {154, 139};
static constexpr lane_fields tx_bias_fields = {170, 143};
static constexpr lane_fields rx_power_fields = {186, 149};

static constexpr auto laser = &module_contents::laser_temperature;
static constexpr auto tec = &module_contents::tec_current;
static constexpr auxiliary_monitor auxiliary_monitors[] = {
    {0x04, 0x01, nullptr, tec, 18, 10, 0, 144},
    {0x08, 0x02, laser, tec, 20, 10, 4, 152},
    {0x10, 0x04, laser, nullptr, 22, 11, 0, 160},
};

/* A page of zeros has a right checksum and is refused by its other bytes. */
static bool is_identity_right(const memory_view &identity)
{
    return identity.was_read() && is_sum_right(identity, 128, 94) &&
           !are_blank(identity.bytes(128, 95));
}

/* Codes of the media technology: 0x0a to 0x0f are copper cables, passive or with electronics; 0 is
   a laser of 850 nm, or an unwritten byte. */
static bool is_copper_technology(uint8_t technology)
{
    return technology >= 0x0a && technology <= 0x0f;
}

static medium medium_of(const module_memory &memory, const memory_view &identity)
{
    const memory_view applications(memory, applications_range);
    const int kind = applications.was_read() ? applications.u8(85) : 0;
    const medium plug = medium_of_connector(identity.u8(203));
    const uint8_t technology = identity.u8(212);

    return medium_by(is_copper_technology(technology) || plug == medium::copper ||
                         kind == passive_copper || kind == base_t,
                     technology != 0 || plug == medium::light || kind == multi_mode ||
                         kind == single_mode);
}

/* Whether the module is in the state in which its lasers run: in other states they may be off, and
   low values are no faults. */
static bool is_running(const memory_view &state)
{
    constexpr int ready_state = 3;
    return (state.u8(3) >> 1 & 7) == ready_state;
}

/* The first two bytes of page 01h are the firmware's version and not in the page's checksum. */
static bool are_features_right(const memory_view &features)
{
    return is_sum_right(features, 130, 125);
}

static bool are_limits_right(const memory_view &limits)
{
    return is_sum_right(limits, 128, 127);
}

/* Without a valid page 01h the lanes are unknown. */
static bool are_features_known(const memory_view &features)
{
    return features.was_read() && are_features_right(features);
}

static uint8_t bank_count(const memory_view &features)
{
    return are_features_known(features) ? cmis_bank_count(features) : uint8_t{0};
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
    return are_pages_wanted(memory) &&
           medium_of(memory, memory_view(memory, identity_range)) != medium::copper &&
           bank < bank_count(memory_view(memory, features_range));
}

static bool is_vdm_wanted(const module_memory &memory)
{
    return are_pages_wanted(memory) && has_vdm(memory);
}

template <uint8_t group>
static bool is_group_wanted(const module_memory &memory)
{
    return is_vdm_wanted(memory) && group < vdm_group_count(memory);
}

/* One round of readings fits into one packet to the reader, so the switches of the third and fourth
   bank are left out. */
static constexpr plan_row cmis_plan[] = {
    {{identity_range, reading_time::once, false}, always},
    {{serial_range, reading_time::presence, false}, is_more_wanted},
    {{applications_range, reading_time::once, true}, is_more_wanted},
    {{state_range, reading_time::diagnostics, true}, is_more_wanted},
    {{features_range, reading_time::once, true}, are_pages_wanted, are_features_right},
    {{limits_range, reading_time::once, true}, are_pages_wanted, are_limits_right},
    {{lanes_range(0), reading_time::diagnostics, true}, is_bank_wanted<0>},
    {{lanes_range(1), reading_time::diagnostics, true}, is_bank_wanted<1>},
    {{lanes_range(2), reading_time::diagnostics, true}, is_bank_wanted<2>},
    {{lanes_range(3), reading_time::diagnostics, true}, is_bank_wanted<3>},
    {{off_range(0), reading_time::diagnostics, true}, is_bank_wanted<0>},
    {{off_range(1), reading_time::diagnostics, true}, is_bank_wanted<1>},
    {{firmware_range, reading_time::slowly, true}, is_more_wanted},
    {{vdm_groups_range, reading_time::later, true}, is_vdm_wanted},
    {{vdm_flags_range, reading_time::slowly, true}, is_group_wanted<0>},
    {{vdm_range(vdm_descriptors, 0), reading_time::later, true}, is_group_wanted<0>},
    {{vdm_range(vdm_limits, 0), reading_time::later, true}, is_group_wanted<0>},
    {{vdm_range(vdm_values, 0), reading_time::slowly, true}, is_group_wanted<0>},
    {{vdm_range(vdm_descriptors, 1), reading_time::later, true}, is_group_wanted<1>},
    {{vdm_range(vdm_limits, 1), reading_time::later, true}, is_group_wanted<1>},
    {{vdm_range(vdm_values, 1), reading_time::slowly, true}, is_group_wanted<1>},
    {{vdm_range(vdm_descriptors, 2), reading_time::later, true}, is_group_wanted<2>},
    {{vdm_range(vdm_limits, 2), reading_time::later, true}, is_group_wanted<2>},
    {{vdm_range(vdm_values, 2), reading_time::slowly, true}, is_group_wanted<2>},
    {{vdm_range(vdm_descriptors, 3), reading_time::later, true}, is_group_wanted<3>},
    {{vdm_range(vdm_limits, 3), reading_time::later, true}, is_group_wanted<3>},
    {{vdm_range(vdm_values, 3), reading_time::slowly, true}, is_group_wanted<3>},
};

/* The speed of the fastest application. A descriptor has four bytes, the host interface first; one
   of 0xff ends the list. */
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

static void fill_identity(const memory_view &from, uint32_t speed, medium carrier,
                          module_contents &contents)
{
    dolm_sfp_info &sfp = contents.identity;

    sfp.sfp_connector = connector_of(carrier);
    sfp.sfp_eth_speed = module_speed_code(speed);
    copy_text(sfp.sfp_vendor_name, from.bytes(129, 16));
    memcpy(sfp.sfp_vendor_oui, from.bytes(145, 3).data(), 3);
    copy_text(sfp.sfp_vendor_pn, from.bytes(148, 16));
    copy_text(sfp.sfp_vendor_rev, from.bytes(164, 2));
    copy_text(sfp.sfp_vendor_sn, from.bytes(166, 16));
    copy_text(sfp.sfp_date_code, from.bytes(182, 8));
    contents.copper = carrier == medium::copper;
}

/* Flags of the whole module: four bits from `bit` on, high alarm, low alarm, high warning, low
   warning. */
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

/* Steps of bias are 2 uA times a factor of 1, 2 or 4 that the module gives, for values and limits
   alike. The fourth code of the factor is reserved: such values are unknown. */
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

/* Which lanes a module lacks is known for the first bank only. */
static void fill_bank(const memory_view &lanes, uint8_t bank, uint8_t missing_lanes,
                      const memory_view &features, module_contents &contents)
{
    const uint8_t has = features.u8(160);
    const int first = bank * lanes_of_bank;
    const uint32_t present = static_cast<uint8_t>(~missing_lanes);
    contents.tx_fault_lanes |= (lanes.u8(135) & present) << first;
    contents.rx_los_lanes |= (lanes.u8(147) & present) << first;
    if ((has & has_tx_bias_bit) && bias_scale_code(features) != reserved_bias_scale)
        add_lanes(lanes, tx_bias_fields, bank, missing_lanes, bias_conversion(features),
                  contents.tx_bias);
    if (has & has_tx_power_bit)
        add_lanes(lanes, tx_power_fields, bank, missing_lanes, power_steps, contents.tx_power);
    if (has & has_rx_power_bit)
        add_lanes(lanes, rx_power_fields, bank, missing_lanes, power_steps, contents.rx_power);
}

/* The application of the descriptor with number `code`, from 1 on; descriptors behind the eighth
   are on page 01h. Nothing if the module has no such descriptor. */
static std::optional<application> find_application(const memory_view &applications,
                                                   const memory_view &features, int code)
{
    constexpr int first_descriptors = 8;
    const bool is_first = code <= first_descriptors;
    const memory_view &from = is_first ? applications : features;
    const size_t at = (is_first ? 86 - 4 : 223 - 36) + 4 * static_cast<size_t>(code);
    if (!from.was_read() || from.u8(at) == 0xff)
        return std::nullopt;
    const application found = {.host_lanes = from.u8(at + 2) >> 4,
                               .media_lanes = from.u8(at + 2) & 0x0f,
                               .host_starts = from.u8(at + 3),
                               .media_starts = features.u8(175 + static_cast<size_t>(code))};
    const bool makes_sense =
        found.host_lanes != 0 && found.host_lanes <= lanes_of_bank && found.media_lanes != 0;
    return makes_sense ? std::optional(found) : std::nullopt;
}

/* The first lane of light of a data path that begins with the host lane `first_host`: the n-th
   permitted host start belongs to the n-th permitted media start. */
static int first_light(const application &its, int first_host)
{
    const int place = std::popcount(its.host_starts & ((1u << first_host) - 1));
    uint32_t starts = its.media_starts;
    for (int skipped = 0; skipped < place; skipped++)
        starts &= starts - 1;
    return starts != 0 ? std::countr_zero(starts) : place * its.media_lanes;
}

/* The lanes of light, within the bank, that carry a lane of the host: this lane's share of its
   application, or of the first application if the lane's own isn't known. Without any application,
   lane n of light carries lane n of the host. */
static uint32_t lanes_of_light(const memory_view &applications, const memory_view &features,
                               const memory_view &lanes, int lane)
{
    const int selected = lanes.u8(206 + static_cast<size_t>(lane));
    const int code = selected >> 4;
    const auto its = find_application(applications, features, std::max(code, 1));
    if (!its)
        return 1u << lane;
    const int first = code == 0 ? lane / its->host_lanes * its->host_lanes : selected >> 1 & 7;
    const int offset = lane - first;
    if (offset < 0 || offset >= its->host_lanes)
        return 1u << lane;
    const int start = first_light(*its, first);
    const int from = start + offset * its->media_lanes / its->host_lanes;
    const int to = start + ((offset + 1) * its->media_lanes - 1) / its->host_lanes;
    uint32_t found = 0;
    for (int light = from; light <= std::min(to, lanes_of_bank - 1); light++)
        found |= 1u << light;
    return found;
}

static path_state state_of_path(const memory_view &lanes, int lane)
{
    const int both = lanes.u8(128 + static_cast<size_t>(lane / 2));
    return static_cast<path_state>((lane % 2 == 0 ? both : both >> 4) & 7);
}

/* A lane of light is off if the host has switched it off, or if all data paths on it are off. */
static void fill_paths(const module_memory &memory, const memory_view &lanes, uint8_t bank,
                       const memory_view &features, module_contents &contents)
{
    const memory_view applications(memory, applications_range);
    const memory_view off(memory, off_range(bank));
    const int first = bank * lanes_of_bank;
    uint32_t carrying = 0;
    uint32_t sending = 0;
    uint32_t receiving = 0;

    contents.lanes_of_host.resize(static_cast<size_t>(first));
    for (int lane = 0; lane < lanes_of_bank; lane++) {
        const uint32_t light = lanes_of_light(applications, features, lanes, lane);
        const path_state state = state_of_path(lanes, lane);
        const bool is_sending = state == path_state::untold || state == path_state::activated;
        carrying |= light;
        sending |= is_sending ? light : 0;
        receiving |= is_sending || state >= path_state::turning_on ? light : 0;
        contents.lanes_of_host.push_back(light << first);
    }
    const uint32_t switched_off = off.was_read() ? off.u8(130) : 0;
    if (!off.was_read() && bank < banks_with_switches)
        contents.tx_off_unread |= 0xffu << first;
    contents.tx_off_lanes |= (switched_off | (carrying & ~sending)) << first;
    contents.rx_off_lanes |= (carrying & ~receiving) << first;
}

/* If a bank could not be read, or is blank, only its own lanes are missing. */
static void fill_lanes(const module_memory &memory, const memory_view &features,
                       uint8_t missing_lanes, module_contents &contents)
{
    for (uint8_t bank = 0; bank < bank_count(features); bank++) {
        const memory_view lanes(memory, lanes_range(bank));
        if (!lanes.was_read() || are_blank(lanes.bytes(154, 48)))
            continue;
        fill_bank(lanes, bank, bank == 0 ? missing_lanes : uint8_t{0}, features, contents);
        fill_paths(memory, lanes, bank, features, contents);
    }
}

static void fill_limits(const memory_view &limits, const memory_view &features,
                        module_contents &contents)
{
    contents.temperature.limits = signed_limits_at(limits, 128, temperature_steps);
    contents.voltage.limits = limits_at(limits, 136, voltage_steps);
    contents.tx_power.limits = limits_at(limits, 176, power_steps);
    contents.rx_power.limits = limits_at(limits, 192, power_steps);
    if (are_features_known(features) && bias_scale_code(features) != reserved_bias_scale)
        contents.tx_bias.limits = limits_at(limits, 184, bias_conversion(features));
}

/* A value of 0 counts as missing if the module doesn't claim to measure it. Without page 01h the
   claims are unknown, and the value counts. */
static void fill_state(const memory_view &state, const memory_view &features,
                       module_contents &contents)
{
    const int claimed =
        are_features_known(features) ? features.u8(159) : has_temperature_bit | has_voltage_bit;

    if ((claimed & has_temperature_bit) || state.u16(14) != 0)
        contents.temperature.lanes = {
            {0, temperature_steps(state.s16(14)), module_flags(state.u8(9), 0)}};
    if ((claimed & has_voltage_bit) || state.u16(16) != 0)
        contents.voltage.lanes = {{0, voltage_steps(state.u16(16)), module_flags(state.u8(9), 4)}};
}

/* Values of a laser that may be off are left out. */
static void fill_auxiliary(const memory_view &state, const memory_view &features,
                           const memory_view &limits, module_contents &contents)
{
    for (const auxiliary_monitor &row : auxiliary_monitors) {
        const auto measures = (features.u8(145) & row.kind) != 0 ? row.if_set : row.if_clear;
        if ((features.u8(159) & row.claim) == 0 || measures == nullptr)
            continue;
        measurement &its = contents.*measures;
        if (its.is_claimed)
            continue; /* this would be a second laser */
        const conversion &steps = measures == tec ? tec_steps : temperature_steps;
        its.is_claimed = true;
        if (is_running(state))
            its.lanes = {{0, steps(state.s16(row.value)),
                          module_flags(state.u8(row.flags), row.first_flag)}};
        if (limits.was_read() && are_limits_right(limits))
            its.limits = signed_limits_at(limits, row.limits, steps);
    }
}

/* A cable without measurements leaves temperature and voltage at 0. */
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
    if (!is_flat && state.u16(16) == 0 && are_features_known(features) &&
        (features.u8(159) & has_voltage_bit) != 0) {
        contents.doubts.push_back(no_voltage);
        return;
    }
    contents.diagnostics = diagnostics_state::available;
    contents.has_flags = !is_flat;
    contents.has_average_power =
        are_features_known(features) && (features.u8(151) & average_power_bit) != 0;
    fill_state(state, features, contents);
    if (is_flat)
        return;
    if (are_features_known(features))
        fill_auxiliary(state, features, limits, contents);
    if (is_running(state) && !contents.copper)
        fill_lanes(memory, features, missing_lanes, contents);
    if (!are_features_known(features) && features.was_read())
        contents.doubts.push_back("the checksum of page 01h is wrong");
    if (limits.was_read() && !are_limits_right(limits))
        contents.doubts.push_back("the checksum of the limits is wrong");
    else if (limits.was_read())
        fill_limits(limits, features, contents);
}

static void decode_cmis(const module_memory &memory, const memory_view &identity,
                        module_contents &contents)
{
    fill_identity(identity, speed_of(memory_view(memory, applications_range)),
                  medium_of(memory, identity), contents);
    decode_diagnostics(memory, identity.u8(210), contents);
}

const module_layout cmis_layout = {module_family::cmis, cmis_plan, is_identity_right, decode_cmis};

} // namespace linux_board
