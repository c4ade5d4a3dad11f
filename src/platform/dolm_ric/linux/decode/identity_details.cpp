/* SPDX-License-Identifier: Apache-2.0 */
/* The identity of the three layouts. Fields that decode_module() has decoded, such as the vendor,
   are taken from its result; offsets are decimal, as in the layouts' own sources. */
#include "platform/dolm_ric/linux/decode/code_names.h"
#include "platform/dolm_ric/linux/decode/module_details.h"
#include "platform/dolm_ric/linux/decode/module_family.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <string_view>

namespace linux_board
{

using identity_record = dolm_ric_details_identity;

static constexpr memory_range sfp_identity = {identity_address, 0, 0, 0, 96};
static constexpr memory_range qsfp_identity = {identity_address, 0, 0, 128, 96};
static constexpr memory_range cmis_identity = {identity_address, 0, 0, 128, 95};
static constexpr memory_range cmis_state = {identity_address, 0, 0, 0, 24};
static constexpr memory_range cmis_applications = {identity_address, 0, 0, 84, 34};
static constexpr memory_range cmis_features = {identity_address, 0, 1, 128, 128};
static constexpr memory_range cmis_firmware = {identity_address, 0, 0, 38, 4};

static constexpr memory_range cmis_lanes(uint8_t bank)
{
    return {identity_address, bank, 0x11, 128, 86};
}

static constexpr uint8_t beyond = 255; /* the length is more than the byte can express */

template <size_t size>
static void put(char (&field)[size], std::string_view text)
{
    memset(field, 0, size);
    text.copy(field, size - 1);
}

template <size_t size>
static void put_bytes(char (&field)[size], const char *bytes, size_t length)
{
    put(field, std::string_view(bytes, strnlen(bytes, length)));
}

static void add_compliance(identity_record &to, std::string_view name)
{
    if (to.compliance_count < DOLM_RIC_DETAILS_COMPLIANCES)
        put(to.compliance[to.compliance_count++], name);
}

static void add_compliances(const memory_view &from, std::span<const compliance_bit> bits,
                            identity_record &to)
{
    for (const compliance_bit &row : bits)
        if ((from.u8(row.offset) & row.bit) != 0)
            add_compliance(to, row.name);
}

static double metres(uint8_t count, double unit)
{
    return count == 0 || count == beyond ? 0 : count * unit;
}

/* Byte 66 has the power of a module of class 4. */
static void take_sfp_power(const memory_view &from, identity_record &to)
{
    static constexpr double watts[] = {1.0, 1.5, 2.0};
    const uint8_t options = from.u8(64);
    to.power_class = options & 0x40 ? 4 : options & 0x20 ? 3 : options & 0x02 ? 2 : 1;
    to.max_power = to.power_class == 4 ? from.u8(66) / 10.0 : watts[to.power_class - 1];
}

static void take_sfp(const memory_view &from, bool is_copper, identity_record &to)
{
    constexpr uint8_t any_cable = 0x0c;
    const bool is_cable = is_copper || (from.u8(8) & any_cable) != 0;
    const bool is_long_rate = from.u8(12) == beyond;

    to.connector_code = from.u8(2);
    put(to.encoding, from.u8(11) != 0 ? sfp_encoding_name(from.u8(11)) : "");
    add_compliances(from, sfp_compliance_bits(), to);
    if (from.u8(36) != 0)
        add_compliance(to, extended_compliance_name(from.u8(36)));
    to.bit_rate = is_long_rate ? from.u8(66) * 0.25 : from.u8(12) / 10.0;
    take_sfp_power(from, to);
    const double kilometres = metres(from.u8(14), 1000);
    to.length[DOLM_RIC_LENGTH_SMF] = kilometres > 0 ? kilometres : metres(from.u8(15), 100);
    to.length[DOLM_RIC_LENGTH_OM2] = metres(from.u8(16), 10);
    to.length[DOLM_RIC_LENGTH_OM1] = metres(from.u8(17), 10);
    to.length[DOLM_RIC_LENGTH_OM3] = metres(from.u8(19), 10);
    if (is_cable)
        to.length[DOLM_RIC_LENGTH_CABLE] = metres(from.u8(18), 1);
    else
        to.length[DOLM_RIC_LENGTH_OM4] = metres(from.u8(18), 10);
    to.wavelength = is_cable ? 0 : from.u16(60);
}

/* The power of a module of class 8 is in a byte that isn't read. */
static void take_qsfp_power(uint8_t options, identity_record &to)
{
    static constexpr double watts[] = {1.5, 2.0, 2.5, 3.5, 4.0, 4.5, 5.0, 0};
    const int high = options & 3;
    const int power_class = options & 0x20 ? 8 : high != 0 ? 4 + high : 1 + (options >> 6);
    to.power_class = static_cast<uint8_t>(power_class);
    to.max_power = watts[power_class - 1];
}

static void take_qsfp(const memory_view &from, bool is_copper, identity_record &to)
{
    to.connector_code = from.u8(130);
    put(to.encoding, from.u8(139) != 0 ? qsfp_encoding_name(from.u8(139)) : "");
    put(to.technology, technology_name(from.u8(147) >> 4));
    add_compliances(from, qsfp_compliance_bits(), to);
    if ((from.u8(131) & 0x80) != 0 && from.u8(192) != 0)
        add_compliance(to, extended_compliance_name(from.u8(192)));
    to.bit_rate = from.u8(140) == beyond ? from.u8(222) * 0.25 : from.u8(140) / 10.0;
    take_qsfp_power(from.u8(129), to);
    to.length[DOLM_RIC_LENGTH_SMF] = metres(from.u8(142), 1000);
    to.length[DOLM_RIC_LENGTH_OM3] = metres(from.u8(143), 2);
    to.length[DOLM_RIC_LENGTH_OM2] = metres(from.u8(144), 1);
    to.length[DOLM_RIC_LENGTH_OM1] = metres(from.u8(145), 1);
    constexpr uint8_t no_separable_connector = 0x23;
    if (is_copper || to.connector_code == no_separable_connector)
        to.length[DOLM_RIC_LENGTH_CABLE] = metres(from.u8(146), 1);
    else
        to.length[DOLM_RIC_LENGTH_OM4] = metres(from.u8(146), 2);
    to.wavelength = is_copper ? 0 : from.u16(186) / 20.0;
}

/* A byte with two bits of multiplier and six bits of length. */
static double scaled_metres(uint8_t byte, const double (&units)[4])
{
    return (byte & 0x3f) * units[byte >> 6];
}

/* A version of all zeros means "not given", one of all ones is invalid. */
static std::string firmware_name(uint8_t major, uint8_t minor)
{
    const bool has = (major | minor) != 0 && (major & minor) != 0xff;
    return has ? std::to_string(major) + "." + std::to_string(minor) : "";
}

static void take_cmis_features(const memory_view &from, bool is_copper, identity_record &to)
{
    static constexpr double fibre_units[4] = {100, 1000, 0, 0};
    put(to.inactive_firmware, firmware_name(from.u8(128), from.u8(129)));
    to.length[DOLM_RIC_LENGTH_SMF] = scaled_metres(from.u8(132), fibre_units);
    to.length[DOLM_RIC_LENGTH_OM5] = from.u8(133) * 2.0;
    to.length[DOLM_RIC_LENGTH_OM4] = from.u8(134) * 2.0;
    to.length[DOLM_RIC_LENGTH_OM3] = from.u8(135) * 2.0;
    to.length[DOLM_RIC_LENGTH_OM2] = from.u8(136);
    to.wavelength = is_copper ? 0 : from.u16(138) / 20.0;
}

/* Descriptors of applications have four bytes; one of 0xff ends the list. Page 01h has those behind
   the eighth, and the lanes where each application may begin on the media side. */
static void take_applications(const memory_view &first, const memory_view *features,
                              identity_record &to)
{
    constexpr uint32_t first_descriptors = 8;
    const uint8_t kind = first.u8(85);
    const uint32_t descriptors =
        features != nullptr ? uint32_t{DOLM_RIC_DETAILS_APPLICATIONS} : first_descriptors;
    for (uint32_t index = 0; index < descriptors; index++) {
        const memory_view &from = index < first_descriptors ? first : *features;
        const size_t at =
            index < first_descriptors ? 86 + 4 * index : 223 + 4 * (index - first_descriptors);
        if (from.u8(at) == 0xff)
            return;
        if (from.u8(at) == 0)
            continue;
        dolm_ric_details_application &its = to.application[to.application_count++];
        its.host_code = from.u8(at);
        its.media_code = from.u8(at + 1);
        its.host_lanes = from.u8(at + 2) >> 4;
        its.media_lanes = from.u8(at + 2) & 15;
        its.host_starts = from.u8(at + 3);
        its.media_starts = features != nullptr ? features->u8(176 + index) : uint8_t{0};
        its.reserved = index + 1;
        put(its.host, host_interface_name(its.host_code));
        put(its.media, media_interface_name(kind, its.media_code));
    }
}

/* Each lane of the host gives the number of its application's descriptor. */
static void take_selection(const module_memory &memory, identity_record &to)
{
    constexpr uint32_t lanes_of_bank = 8;
    for (uint32_t lane = 0; lane < DOLM_RIC_DETAILS_LANES; lane++) {
        const memory_view lanes(memory, cmis_lanes(static_cast<uint8_t>(lane / lanes_of_bank)));
        const uint32_t selected = lanes.was_read() ? lanes.u8(206 + lane % lanes_of_bank) >> 4 : 0u;
        for (auto &its : std::span(to.application).first(to.application_count))
            if (selected == its.reserved)
                its.selected_lanes |= 1u << lane;
    }
    for (auto &its : to.application)
        its.reserved = 0;
}

static void take_cmis_state(const module_memory &memory, identity_record &to)
{
    const memory_view state(memory, cmis_state);
    const memory_view firmware(memory, cmis_firmware);
    if (state.was_read()) {
        to.cmis_revision = state.u8(1);
        to.module_state = state.u8(3) >> 1 & 7;
    }
    if (firmware.was_read()) {
        put(to.firmware, firmware_name(firmware.u8(39), firmware.u8(40)));
        to.fault_cause = to.module_state == DOLM_RIC_MODULE_FAULT ? firmware.u8(41) : uint8_t{0};
    }
}

static void take_cmis(const module_memory &memory, bool is_copper, identity_record &to)
{
    static constexpr double cable_units[4] = {0.1, 1, 10, 100};
    const memory_view from(memory, cmis_identity);
    const memory_view features(memory, cmis_features);
    const memory_view applications(memory, cmis_applications);

    to.connector_code = from.u8(203);
    put(to.technology, technology_name(from.u8(212)));
    to.power_class = static_cast<uint8_t>((from.u8(200) >> 5) + 1);
    to.max_power = from.u8(201) * 0.25;
    to.length[DOLM_RIC_LENGTH_CABLE] = scaled_metres(from.u8(202), cable_units);
    take_cmis_state(memory, to);
    const bool are_known = features.was_read() && is_range_right(memory, cmis_features);
    if (are_known)
        take_cmis_features(features, is_copper, to);
    if (applications.was_read()) {
        take_applications(applications, are_known ? &features : nullptr, to);
        take_selection(memory, to);
    }
}

static void take_decoded(const module_contents &contents, identity_record &to)
{
    const dolm_sfp_info &known = contents.identity;
    to.family = static_cast<uint32_t>(contents.family);
    to.medium = contents.copper                                ? DOLM_RIC_MEDIUM_COPPER
                : known.sfp_connector == DOLM_SFP_CONNECTOR_LC ? DOLM_RIC_MEDIUM_LIGHT
                                                               : DOLM_RIC_MEDIUM_UNKNOWN;
    put_bytes(to.vendor, known.sfp_vendor_name, sizeof(known.sfp_vendor_name));
    put_bytes(to.part, known.sfp_vendor_pn, sizeof(known.sfp_vendor_pn));
    put_bytes(to.revision, known.sfp_vendor_rev, sizeof(known.sfp_vendor_rev));
    put_bytes(to.serial, known.sfp_vendor_sn, sizeof(known.sfp_vendor_sn));
    put_bytes(to.date, known.sfp_date_code, sizeof(known.sfp_date_code));
    memcpy(to.oui, known.sfp_vendor_oui, sizeof(known.sfp_vendor_oui));
}

void take_identity(const module_memory &memory, const module_contents &contents,
                   dolm_ric_details_identity &to)
{
    const memory_view kind(memory, identifier_range);
    to = {};
    if (!contents.ready || !kind.was_read())
        return;
    to.state = DOLM_RIC_VALUE_VALID;
    to.form_factor_code = kind.u8(0);
    put(to.form_factor, form_factor_name(to.form_factor_code));
    take_decoded(contents, to);
    if (contents.family == module_family::sfp)
        take_sfp(memory_view(memory, sfp_identity), contents.copper, to);
    else if (contents.family == module_family::qsfp)
        take_qsfp(memory_view(memory, qsfp_identity), contents.copper, to);
    else
        take_cmis(memory, contents.copper, to);
    put(to.connector, to.connector_code != 0 ? connector_name(to.connector_code) : "");
}

} // namespace linux_board
