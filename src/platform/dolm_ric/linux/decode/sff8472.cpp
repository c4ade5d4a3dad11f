/* SPDX-License-Identifier: Apache-2.0 */
/* The memory of SFP modules, SFF-8472: identity at 0x50, diagnostics at 0x51. Numbers of 16 bits
   are big-endian; offsets are decimal, as in the standard.

   Externally calibrated modules give raw numbers and constants: slope (unsigned 8.8) and offset
   (signed) for four of the measurements, a polynomial of the fourth degree for rx power, in steps
   of 0.1 uW like all powers. Limits are raw numbers, too, and are converted in the same way. */
#include "platform/dolm_ric/linux/decode/base_t_modules.h"
#include "platform/dolm_ric/linux/decode/module_family.h"
#include "platform/dolm_ric/linux/decode/module_speed.h"

#include <algorithm>
#include <cmath>

namespace linux_board
{
namespace
{

/* Byte 92. */
enum diagnostics_type : uint8_t {
    has_diagnostics_bit = 0x40,
    internally_calibrated_bit = 0x20,
    externally_calibrated_bit = 0x10,
    average_power_bit = 0x08,
    address_change_bit = 0x04,
};

/* Byte 93: which bits of byte 110 the module has. */
enum options : uint8_t {
    has_flags_bit = 0x80,
    has_tx_fault_bit = 0x20,
    has_rx_los_bit = 0x10,
};

/* Byte 110. */
enum status : uint8_t {
    data_not_ready_bit = 0x01,
    rx_los_bit = 0x02,
    tx_fault_bit = 0x04,
};

/* How a module's raw numbers are converted. Internal calibration is external calibration with
   constants that change nothing. */
struct sfp_conversions {
    conversion temperature = temperature_steps;
    conversion voltage = voltage_steps;
    conversion tx_bias = bias_steps;
    conversion tx_power = power_steps;
    conversion rx_power = power_steps;
};

} // namespace

/* Bytes 96 and up of the identity belong to the maker. The last byte of the values that is read has
   the locks of the clock recovery; nothing behind it is needed. */
static constexpr memory_range identity_range = {identity_address, 0, 0, 0, 96};
static constexpr memory_range serial_range = {identity_address, 0, 0, 68, 28};
static constexpr memory_range constants_range = {diagnostics_address, 0, 0, 0, 96};
static constexpr memory_range values_range = {diagnostics_address, 0, 0, 96, 24};

/* The first checksum covers the base fields of the standard, the second one its extended fields. */
static bool is_identity_right(const memory_view &identity)
{
    return identity.was_read() && is_sum_right(identity, 0, 63) && is_sum_right(identity, 64, 31);
}

/* Diagnostics that need an address change can't be reached: both memories answer at one address,
   and the kernel has no call for the sequence that switches between them. */
static bool has_diagnostics(const memory_view &identity)
{
    return (identity.u8(92) & (has_diagnostics_bit | address_change_bit)) == has_diagnostics_bit;
}

static bool is_serial_wanted(const module_memory &memory)
{
    return is_identity_right(memory_view(memory, identity_range));
}

static bool are_diagnostics_wanted(const module_memory &memory)
{
    const memory_view identity(memory, identity_range);
    return is_identity_right(identity) && has_diagnostics(identity);
}

/* After an error in the driver the constants may be zeros or have a wrong checksum. */
static bool are_constants_right(const memory_view &constants)
{
    return is_sum_right(constants, 0, 95) && !are_blank(constants.bytes(0, 95));
}

static constexpr plan_row sfp_plan[] = {
    {{identity_range, reading_time::once, false}, always},
    {{serial_range, reading_time::presence, false}, is_serial_wanted},
    {{constants_range, reading_time::once, true}, are_diagnostics_wanted, are_constants_right},
    {{values_range, reading_time::diagnostics, true}, are_diagnostics_wanted},
};

/* The rate in MBd. 255 means that the rate doesn't fit into 8 bits: byte 66 then has the rate, in
   larger steps. */
static uint32_t rate_of(const memory_view &identity)
{
    return identity.u8(12) == 255 ? identity.u8(66) * 250u : identity.u8(12) * 100u;
}

/* BX10 has one code for 100 Mb/s and 1 Gb/s: only the rate distinguishes them. */
static bool is_slow_bx(const memory_view &identity)
{
    constexpr uint8_t bx10 = 0x40;
    const uint32_t rate = rate_of(identity);
    return (identity.u8(6) & bx10) != 0 && rate != 0 && rate <= 200;
}

static uint32_t compliance_of(const memory_view &identity)
{
    static constexpr struct {
        uint8_t offset;
        uint8_t bit;
        uint32_t meaning;
    } bits[] = {{3, 0x80, ethcomp_10gbase_er},  {3, 0x40, ethcomp_10gbase_lrm},
                {3, 0x20, ethcomp_10gbase_lr},  {3, 0x10, ethcomp_10gbase_sr},
                {6, 0x08, ethcomp_1000base_t},  {6, 0x04, ethcomp_1000base_cx},
                {6, 0x02, ethcomp_1000base_lx}, {6, 0x01, ethcomp_1000base_sx},
                {6, 0x40, ethcomp_1000base_bx}};

    uint32_t compliance = 0;
    for (const auto &row : bits)
        if (identity.u8(row.offset) & row.bit)
            compliance |= row.meaning;
    return is_slow_bx(identity) ? compliance & ~uint32_t{ethcomp_1000base_bx} : compliance;
}

/* Codes come first, since makers choose the rate freely. */
static uint32_t speed_of(const memory_view &identity)
{
    constexpr uint8_t any_10g = 0xf0;
    constexpr uint8_t any_1g = 0x0f;
    constexpr uint8_t any_100m = 0x30;

    if (const auto speed = meaning_of_compliance(identity.u8(36)).sfp_speed)
        return speed;
    if (identity.u8(3) & any_10g)
        return 100;
    if ((identity.u8(6) & any_1g) || (compliance_of(identity) & ethcomp_1000base_bx))
        return 10;
    if ((identity.u8(6) & any_100m) || is_slow_bx(identity))
        return 1;
    return speed_of_rate(rate_of(identity), identity.u8(11) == 0x08);
}

/* The bit of active cables isn't used, since active optical cables have it, too. */
static bool is_copper(const memory_view &identity)
{
    constexpr uint8_t passive_cable = 0x04;

    return (identity.u8(8) & passive_cable) != 0 ||
           medium_of_connector(identity.u8(2)) == medium::copper ||
           (compliance_of(identity) & (ethcomp_1000base_t | ethcomp_1000base_cx)) != 0 ||
           meaning_of_compliance(identity.u8(36)).carrier == medium::copper;
}

/* Whether a code names a laser or a fibre. A wavelength counts, too, except for cables, which use
   its bytes for other bits. */
static bool is_light(const memory_view &identity)
{
    static constexpr uint8_t bits_of_light[] = {0xfc, 0xff, 0xff, 0xf3, 0x06, 0x70, 0x0f};
    constexpr uint8_t any_cable = 0x0c;
    constexpr uint16_t shortest_nm = 600;
    constexpr uint16_t longest_nm = 1700;

    for (size_t at = 0; at < std::size(bits_of_light); at++)
        if (identity.u8(3 + at) & bits_of_light[at])
            return true;
    const uint16_t wavelength = (identity.u8(8) & any_cable) != 0 ? 0 : identity.u16(60);
    return medium_of_connector(identity.u8(2)) == medium::light ||
           meaning_of_compliance(identity.u8(36)).carrier == medium::light ||
           (wavelength >= shortest_nm && wavelength <= longest_nm);
}

static medium medium_of(const memory_view &identity)
{
    return medium_by(is_copper(identity), is_light(identity));
}

static void fill_identity(const memory_view &from, module_contents &contents)
{
    dolm_sfp_info &sfp = contents.identity;

    const medium carrier = medium_of(from);
    sfp.sfp_connector = connector_of(carrier);
    sfp.sfp_eth_compliance = compliance_of(from);
    sfp.sfp_eth_speed = module_speed_code(speed_of(from));
    sfp.sfp_nom_bitrate = from.u8(12);
    copy_text(sfp.sfp_vendor_name, from.bytes(20, 16));
    memcpy(sfp.sfp_vendor_oui, from.bytes(37, 3).data(), 3);
    copy_text(sfp.sfp_vendor_pn, from.bytes(40, 16));
    copy_text(sfp.sfp_vendor_rev, from.bytes(56, 4));
    copy_text(sfp.sfp_vendor_sn, from.bytes(68, 16));
    copy_text(sfp.sfp_date_code, from.bytes(84, 8));
    contents.copper = carrier == medium::copper;

    if (const uint32_t speed = speed_of_base_t(sfp.sfp_vendor_name, sfp.sfp_vendor_pn)) {
        sfp.sfp_connector = DOLM_SFP_CONNECTOR_RJ45;
        sfp.sfp_eth_compliance = 0;
        sfp.sfp_eth_speed = module_speed_code(speed);
        contents.copper = true;
    }
}

/* Reads a slope and the offset behind it. */
static void calibrate(const memory_view &constants, size_t offset, conversion &convert)
{
    convert.coefficients[1] = constants.u16(offset) / 256.0;
    convert.coefficients[0] = constants.s16(offset + 2);
}

/* The constants of rx power begin with the coefficient of the highest power. */
static sfp_conversions external_conversions(const memory_view &constants)
{
    sfp_conversions convert;
    calibrate(constants, 76, convert.tx_bias);
    calibrate(constants, 80, convert.tx_power);
    calibrate(constants, 84, convert.temperature);
    calibrate(constants, 88, convert.voltage);
    for (size_t power = 0; power < convert.rx_power.coefficients.size(); power++)
        convert.rx_power.coefficients[power] = constants.f32(72 - 4 * power);
    return convert;
}

/* Two bits each for alarm and warning, from `bit` on: the lower bit is the low limit's. */
static uint8_t flags_at(const memory_view &values, size_t offset, int bit)
{
    const int alarm = values.u8(offset) >> bit & 3;
    const int warning = values.u8(offset + 4) >> bit & 3;
    return static_cast<uint8_t>(alarm << 2 | warning);
}

/* The polynomial can give any number; no receiver survives more than 0.1 W, and none measures less
   than zero by more than some noise. */
static constexpr double most_rx_power = 100'000;
static constexpr double least_rx_power = -100;

static bool is_rx_power(double value)
{
    return value >= least_rx_power && value <= most_rx_power;
}

static void limit_rx_power(measurement &rx_power)
{
    const auto limit = [](double &value) { value = std::clamp(value, 0.0, most_rx_power); };

    for (lane_value &lane : rx_power.lanes)
        limit(lane.value);
    if (rx_power.limits) {
        limit(rx_power.limits->high_alarm);
        limit(rx_power.limits->low_alarm);
        limit(rx_power.limits->high_warning);
        limit(rx_power.limits->low_warning);
    }
}

/* Limits are converted like values. If the polynomial isn't monotonic, they may come out in another
   order, and are then invalid. */
static void fill_light(const memory_view &constants, const memory_view &values,
                       const sfp_conversions &convert, module_contents &contents)
{
    contents.tx_bias = {{{0, convert.tx_bias(values.u16(100)), flags_at(values, 112, 2)}},
                        limits_at(constants, 16, convert.tx_bias)};
    contents.tx_power = {{{0, convert.tx_power(values.u16(102)), flags_at(values, 112, 0)}},
                         limits_at(constants, 24, convert.tx_power)};
    const double rx_power = convert.rx_power(values.u16(104));
    if (!is_rx_power(rx_power)) {
        contents.doubts.push_back("the received power is beyond any module's");
        return;
    }
    contents.rx_power = {{{0, rx_power, flags_at(values, 113, 6)}},
                         limits_at(constants, 32, convert.rx_power)};
    limit_rx_power(contents.rx_power);
}

/* Loss of signal and transmit fault belong to the module's only lane. */
static void fill_status(uint8_t options, uint8_t status, module_contents &contents)
{
    contents.rx_los_lanes = (options & has_rx_los_bit) && (status & rx_los_bit) ? 1 : 0;
    contents.tx_fault_lanes = (options & has_tx_fault_bit) && (status & tx_fault_bit) ? 1 : 0;
}

/* Of a copper module only temperature and voltage are taken. */
static void fill_measurements(const memory_view &constants, const memory_view &values,
                              module_contents &contents)
{
    const sfp_conversions convert =
        contents.externally_calibrated ? external_conversions(constants) : sfp_conversions{};

    contents.diagnostics = diagnostics_state::available;
    contents.temperature = {{{0, convert.temperature(values.s16(96)), flags_at(values, 112, 6)}},
                            signed_limits_at(constants, 0, convert.temperature)};
    contents.voltage = {{{0, convert.voltage(values.u16(98)), flags_at(values, 112, 4)}},
                        limits_at(constants, 8, convert.voltage)};
    if (!contents.copper)
        fill_light(constants, values, convert, contents);
}

static void forget_limits(module_contents &contents)
{
    for (measurement *its : {&contents.temperature, &contents.voltage, &contents.tx_bias,
                             &contents.tx_power, &contents.rx_power})
        its->limits.reset();
}

/* A slope of 0 gives the same result for any number: such constants were never written. */
static bool has_zero_slope(const module_contents &contents, const memory_view &constants)
{
    const auto is_zero = [&](size_t at) { return constants.u16(at) == 0; };
    return is_zero(84) || is_zero(88) ||
           (!contents.copper && (is_zero(76) || is_zero(80) || are_blank(constants.bytes(56, 16))));
}

/* Why these bytes are invalid, or nullptr. Drivers and modules without a second memory answer with
   the first one, or with zeros or ones only. */
static const char *reason_to_refuse(const module_contents &contents, const memory_view &identity,
                                    const memory_view &constants, const memory_view &values)
{
    if (std::ranges::equal(identity.bytes(0, 96), constants.bytes(0, 96)))
        return "the diagnostics repeat the identity";
    if (are_blank(values.bytes(96, 10)))
        return "the measured values are blank";
    if (values.u16(98) == 0)
        return no_voltage;
    if (!contents.externally_calibrated)
        return nullptr;
    if (!is_sum_right(constants, 0, 95))
        return "the checksum of the calibration is wrong";
    if (are_blank(constants.bytes(0, 95)))
        return "the calibration is blank";
    if (has_zero_slope(contents, constants))
        return "the calibration has a slope of zero";
    return external_conversions(constants).voltage(values.u16(98)) == 0 ? no_voltage : nullptr;
}

/* With wrong constants any number could become any value, so constants with a wrong checksum are
   refused. In a module without them a wrong checksum makes the limits invalid only. */
static void decode_diagnostics(const memory_view &identity, const memory_view &constants,
                               const memory_view &values, module_contents &contents)
{
    contents.diagnostics = diagnostics_state::not_read;
    if (!constants.was_read() || !values.was_read())
        return;
    if (const char *reason = reason_to_refuse(contents, identity, constants, values)) {
        contents.doubts.push_back(reason);
        return;
    }
    if (values.u8(110) & data_not_ready_bit)
        return;
    fill_status(identity.u8(93), values.u8(110), contents);
    fill_measurements(constants, values, contents);
    if (!is_sum_right(constants, 0, 95)) {
        contents.doubts.push_back("the checksum of the limits is wrong");
        forget_limits(contents);
    }
}

static void decode_sfp(const module_memory &memory, const memory_view &identity,
                       module_contents &contents)
{
    fill_identity(identity, contents);

    const uint8_t type = identity.u8(92);
    contents.has_flags = (identity.u8(93) & has_flags_bit) != 0;
    contents.has_average_power = (type & average_power_bit) != 0;
    if (!has_diagnostics(identity)) {
        if ((type & has_diagnostics_bit) != 0)
            contents.doubts.push_back("the diagnostics need a change of address");
        return;
    }
    const int calibration = type & (internally_calibrated_bit | externally_calibrated_bit);
    contents.externally_calibrated = calibration == externally_calibrated_bit;
    if (!contents.externally_calibrated && calibration != internally_calibrated_bit)
        contents.doubts.push_back("both calibrations are named, or none: taken as internal");
    decode_diagnostics(identity, memory_view(memory, constants_range),
                       memory_view(memory, values_range), contents);
}

const module_layout sfp_layout = {module_family::sfp, sfp_plan, is_identity_right, decode_sfp};

} // namespace linux_board
