/* SPDX-License-Identifier: Apache-2.0 */
/* All names are in tables: operations, codes, words for values, units, fields and kinds of modules.
   Parsing, printing and the lists of choices in errors use the same rows, so that a new field or
   module needs one more row. */
#include "platform/dolm_ric/simulator/vocabulary.h"

#include "platform/dolm_ric/dolm_ric_details.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace board
{

/* In the order of the enumeration. */
static constexpr std::array<std::string_view, operation_count> op_names = {
    "init",          "shutdown",     "waitevent",     "freeevent",  "getportstatus",
    "subsport",      "unsubsport",   "subslink",      "unsubslink", "getlinkstatus",
    "getmoduleinfo", "getmodstatus", "getmodulediag",
};

namespace
{

/* A result code and the last part of its name. */
struct named_code {
    std::string_view name;
    int32_t code;
};

} // namespace

static constexpr named_code codes[] = {
    {"invalid", DOLM_RICERR_INVALID},
    {"nomem", DOLM_RICERR_NOMEM},
    {"nodev", DOLM_RICERR_NODEV},
    {"notavail", DOLM_RICERR_NOTAVAIL},
    {"unsupported", DOLM_RICERR_UNSUPPORTED},
    {"busy", DOLM_RICERR_BUSY},
    {"shutdown", DOLM_RICERR_SHUTDOWN},
    {"internal", DOLM_RICERR_INTERNAL},
};

namespace
{

using kind = field_kind;

/* A word for a raw value. For a speed, 10 is a word; the code 10 is written as 0xa. */
struct named_value {
    field_kind of;
    std::string_view name;
    uint32_t value;
};

} // namespace

static constexpr named_value named_values[] = {
    {kind::flag, "no", 0},
    {kind::flag, "yes", 1},
    {kind::link_state, "stopped", DOLM_RICRILINKSTATE_STOPPED},
    {kind::link_state, "down", DOLM_RICRILINKSTATE_NOOPERATION},
    {kind::link_state, "up", DOLM_RICRILINKSTATE_OPERATIONAL},
    {kind::speed, "1.2", DOLM_RICRISPEED_1_2G},
    {kind::speed, "2.5", DOLM_RICRISPEED_2_5G},
    {kind::speed, "4.9", DOLM_RICRISPEED_4_9G},
    {kind::speed, "9.8", DOLM_RICRISPEED_9_8G},
    {kind::speed, "10.1", DOLM_RICRISPEED_10_1G},
    {kind::speed, "10", DOLM_RICRISPEED_10G},
    {kind::speed, "1", DOLM_RIC_SPEED_CODE(10)},
    {kind::speed, "25", DOLM_RIC_SPEED_CODE(250)},
    {kind::speed, "40", DOLM_RIC_SPEED_CODE(400)},
    {kind::speed, "50", DOLM_RIC_SPEED_CODE(500)},
    {kind::speed, "100", DOLM_RIC_SPEED_CODE(1000)},
    {kind::speed, "200", DOLM_RIC_SPEED_CODE(2000)},
    {kind::speed, "400", DOLM_RIC_SPEED_CODE(4000)},
    {kind::speed, "800", DOLM_RIC_SPEED_CODE(8000)},
    {kind::connector, "unspec", DOLM_SFP_CONNECTOR_UNSPEC},
    {kind::connector, "lc", DOLM_SFP_CONNECTOR_LC},
    {kind::connector, "rj45", DOLM_SFP_CONNECTOR_RJ45},
    {kind::connector, "other", DOLM_SFP_CONNECTOR_OTHER},
    {kind::eth_speed, "unspec", DOLM_SFP_ETHSPEED_UNSPEC},
    {kind::eth_speed, "1000mb", DOLM_SFP_ETHSPEED_1000MB},
    {kind::eth_speed, "10gb", DOLM_SFP_ETHSPEED_10GB},
    {kind::eth_speed, "25gb", DOLM_RIC_SPEED_CODE(250)},
    {kind::eth_speed, "100gb", DOLM_RIC_SPEED_CODE(1000)},
};

namespace
{

/* A unit and its size in the unit of the record. */
struct unit {
    field_kind of;
    std::string_view name;
    double scale;
};

} // namespace

static constexpr unit units[] = {
    {kind::temperature, "C", 1e3}, {kind::temperature, "°C", 1e3}, {kind::voltage, "V", 1e6},
    {kind::voltage, "mV", 1e3},    {kind::voltage, "uV", 1},       {kind::current, "A", 1e6},
    {kind::current, "mA", 1e3},    {kind::current, "uA", 1},       {kind::power, "W", 1e6},
    {kind::power, "mW", 1e3},      {kind::power, "uW", 1},         {kind::decibels, "dB", 100},
};

static constexpr field make_field(std::string_view name, field_kind of, bool in_module,
                                  size_t offset, size_t size, uint32_t mask)
{
    return {name, of, in_module, static_cast<uint16_t>(offset), static_cast<uint16_t>(size), mask};
}

/* One row per field: its name, its kind, its member, and the bit of a flag, else 0. Macros, as only
   the preprocessor can pass one member to offsetof and to sizeof. */
#define PORT(name, of_kind, member, mask)                                                          \
    make_field(name, of_kind, false, offsetof(port_values, member), sizeof(port_values::member),   \
               mask)
#define MODULE(name, of_kind, member, mask)                                                        \
    make_field(name, of_kind, true, offsetof(module_values, member),                               \
               sizeof(module_values{}.member), mask)

/* Five rows: a measurement and its four thresholds. */
#define MEASUREMENT(name, of_kind)                                                                 \
    MODULE(#name, of_kind, diag.name, 0),                                                          \
        MODULE(#name "_low_warn", of_kind, diag.name##_low_warn, 0),                               \
        MODULE(#name "_high_warn", of_kind, diag.name##_high_warn, 0),                             \
        MODULE(#name "_low_alarm", of_kind, diag.name##_low_alarm, 0),                             \
        MODULE(#name "_high_alarm", of_kind, diag.name##_high_alarm, 0)

constexpr field all_fields[] = {
    PORT("started", kind::flag, status, DOLM_RICRIPORT_STARTED),
    PORT("ready", kind::flag, status, DOLM_RICRIPORT_MODREADY),
    PORT("power_fault", kind::flag, status, DOLM_RICRIPORT_POWERFAULT),
    PORT("inserted", kind::flag, status, DOLM_RICRIPORT_MODINSERTED),
    PORT("port_status", kind::number, status, 0),
    PORT("link", kind::link_state, link_state, 0),
    PORT("speed", kind::speed, link_speed, 0),
    MODULE("readable", kind::flag, readable, 1),
    MODULE("diagnostics", kind::flag, has_diagnostics, 1),
    MODULE("module_status", kind::number, status.status, 0),
    MODULE("mode_type", kind::number, info.mode_type, 0),
    MODULE("connector", kind::connector, info.sfp.sfp_connector, 0),
    MODULE("eth_speed", kind::eth_speed, info.sfp.sfp_eth_speed, 0),
    MODULE("eth_compliance", kind::number, info.sfp.sfp_eth_compliance, 0),
    MODULE("nom_bitrate", kind::number, info.sfp.sfp_nom_bitrate, 0),
    MODULE("vendor_name", kind::text, info.sfp.sfp_vendor_name, 0),
    MODULE("vendor_oui", kind::text, info.sfp.sfp_vendor_oui, 0),
    MODULE("vendor_pn", kind::text, info.sfp.sfp_vendor_pn, 0),
    MODULE("vendor_rev", kind::text, info.sfp.sfp_vendor_rev, 0),
    MODULE("vendor_sn", kind::text, info.sfp.sfp_vendor_sn, 0),
    MODULE("date_code", kind::text, info.sfp.sfp_date_code, 0),
    MODULE("morvaine", kind::number, info.sfp.sfp_morvaine, 0),
    MODULE("morvaine_rdh", kind::text, info.sfp.sfp_morvaine_rdh, 0),
    MODULE("morvaine_rdh_ext", kind::text, info.sfp.sfp_morvaine_rdh_ext, 0),
    MODULE("diag_mode_type", kind::number, diag.mode_type, 0),
    MODULE("diag_cap", kind::number, diag.diag_cap, 0),
    MEASUREMENT(temperature, kind::temperature),
    MEASUREMENT(voltage, kind::voltage),
    MEASUREMENT(txbias, kind::current),
    MEASUREMENT(txpower, kind::power),
    MEASUREMENT(rxpower, kind::power),
};

/* The member of lane 0; the members of other lanes follow at the same distance. */
#define LANE(name, of_kind, member, mask)                                                          \
    field                                                                                          \
    {                                                                                              \
        name, of_kind, true,                                                                       \
            static_cast<uint16_t>(offsetof(module_values, lanes) + offsetof(lane_values, member)), \
            sizeof(lane_values::member), mask, sizeof(lane_values)                                 \
    }

constexpr field all_lane_fields[] = {
    LANE("tx-bias", kind::current, tx_bias, 0),
    LANE("tx-power", kind::power, tx_power, 0),
    LANE("rx-power", kind::power, rx_power, 0),
    LANE("rx-los", kind::flag, signals, 1u << DOLM_RIC_RX_LOS),
    LANE("rx-lol", kind::flag, signals, 1u << DOLM_RIC_RX_LOL),
    LANE("tx-los", kind::flag, signals, 1u << DOLM_RIC_TX_LOS),
    LANE("tx-lol", kind::flag, signals, 1u << DOLM_RIC_TX_LOL),
    LANE("tx-fault", kind::flag, signals, 1u << DOLM_RIC_TX_FAULT),
    LANE("tx-off", kind::flag, signals, 1u << DOLM_RIC_TX_OFF),
    LANE("rx-off", kind::flag, signals, 1u << DOLM_RIC_RX_OFF),
    LANE("snr", kind::decibels, snr, 0),
    LANE("pre-fec-ber", kind::ratio, pre_fec_ber, 0),
};

#undef PORT
#undef LANE
#undef MODULE
#undef MEASUREMENT

/* The settings of each kind of module. Groups of settings that several kinds share have names. */
static constexpr std::string_view sfp =
    "readable=1 mode_type=1 diag_mode_type=1 vendor_oui=\\x02EX";
static constexpr std::string_view measured =
    "diagnostics=1 diag_cap=0x1f "
    "temperature=41.5C temperature_low_warn=0C temperature_high_warn=70C "
    "temperature_low_alarm=-5C temperature_high_alarm=75C "
    "voltage=3.3V voltage_low_warn=3.135V voltage_high_warn=3.465V "
    "voltage_low_alarm=2.97V voltage_high_alarm=3.63V "
    "txbias=32mA txbias_low_warn=15mA txbias_high_warn=70mA "
    "txbias_low_alarm=10mA txbias_high_alarm=80mA "
    "txpower=0.58mW txpower_low_warn=0.18mW txpower_high_warn=1.12mW "
    "txpower_low_alarm=0.15mW txpower_high_alarm=1.41mW "
    "rxpower=0.42mW rxpower_low_warn=0.04mW rxpower_high_warn=1.12mW "
    "rxpower_low_alarm=0.03mW rxpower_high_alarm=1.41mW";
static constexpr std::string_view optical =
    "connector=lc eth_speed=10gb eth_compliance=0x004 nom_bitrate=103 "
    "vendor_name=EXAMPLE\\x20OPTICS vendor_pn=EX-10G-LR vendor_rev=A "
    "vendor_sn=EX10G0001 date_code=240115";

static constexpr module_kind all_module_kinds[] = {
    {"lc", {sfp, measured, optical}},
    {"lc-own", {sfp, measured, optical, "morvaine=1 morvaine_rdh=RDH10240/1 morvaine_rdh_ext=R2"}},
    {"rj45",
     {sfp, "connector=rj45 eth_speed=1000mb eth_compliance=0x010 nom_bitrate=12 "
           "vendor_name=EXAMPLE\\x20COPPER vendor_pn=EX-1G-T vendor_rev=B "
           "vendor_sn=EX1GT0001 date_code=231002"}},
    {"other",
     {sfp, "connector=other eth_speed=10gb nom_bitrate=103 "
           "vendor_name=EXAMPLE\\x20CABLES vendor_pn=EX-10G-CU2M vendor_rev=C "
           "vendor_sn=EX10C0001 date_code=230619"}},
    {"non-sfp", {"readable=1 mode_type=2 diag_mode_type=2 diagnostics=1"}},
    {"unreadable", {"readable=0 mode_type=1"}},
};

[[noreturn]] static void fail(const std::string &text)
{
    throw board_error(text);
}

/* The names of a table, for the list of choices in an error. */
template <typename table>
static std::string list_of_names(const table &entries)
{
    std::string names;
    for (const auto &entry : entries)
        names += (names.empty() ? "" : ", ") + std::string(entry.name);
    return names;
}

/* Parses "3.3V" or "-2.4dBm" into the unit of the record. */
static std::optional<double> read_measure(field_kind of, std::string_view text)
{
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc())
        return std::nullopt;
    const std::string_view name(end, static_cast<size_t>(text.data() + text.size() - end));
    if (of == field_kind::ratio && name.empty() && value > 0 && value < 1)
        return -1000 * std::log10(value);
    /* The only unit that is not linear: decibels relative to a milliwatt. */
    if (of == field_kind::power && name == "dBm")
        return std::pow(10.0, value / 10) * 1e3;
    for (const unit &known : units)
        if (known.of == of && known.name == name)
            return value * known.scale;
    return std::nullopt;
}

/* The values that a field of this kind accepts, for errors. */
static std::string values_of(field_kind of)
{
    std::string words;
    for (const named_value &known : named_values)
        if (known.of == of)
            words += std::string(known.name) + ", ";
    for (const unit &known : units)
        if (known.of == of)
            words += "a number with " + std::string(known.name) + ", ";
    if (of == field_kind::power)
        words += "a number with dBm, ";
    if (of == field_kind::ratio)
        words += "a number between 0 and 1 such as 1e-6, ";
    return words + "a whole number";
}

/* Tries a word first, then a raw number, then a number with a unit. */
static uint32_t parse_value(const field &target, std::string_view text)
{
    for (const named_value &known : named_values)
        if (known.of == target.kind && known.name == text)
            return known.value;
    std::optional<double> value;
    if (const auto raw = parse_integer(text))
        value = static_cast<double>(*raw);
    else
        value = read_measure(target.kind, text);
    if (!value || !std::isfinite(*value))
        fail(std::string(target.name) + " can't be " + quoted(text) + ": it takes " +
             values_of(target.kind));
    /* A double can represent all values exactly, so that one range check serves all kinds. */
    const bool is_signed = target.kind == field_kind::temperature;
    const double lowest = is_signed ? INT32_MIN : 0;
    const double highest = target.kind == field_kind::flag ? 1
                           : target.size == 1              ? UINT8_MAX
                           : is_signed                     ? INT32_MAX
                                                           : UINT32_MAX;
    /* A measure such as 3.3V is rarely an exact multiple of the record's unit. */
    const double rounded = std::round(*value);
    if (rounded < lowest || rounded > highest)
        fail(std::string(target.name) + " can't be " + quoted(text) + ": out of range");
    return static_cast<uint32_t>(static_cast<int64_t>(rounded));
}

const field *find_field(std::string_view name)
{
    if (const size_t point = name.find('.'); point != name.npos) {
        const auto *found = std::ranges::find(all_lane_fields, name.substr(0, point), &field::name);
        return found == std::end(all_lane_fields) ? nullptr : found;
    }
    const auto *found = std::ranges::find(all_fields, name, &field::name);
    return found == std::end(all_fields) ? nullptr : found;
}

static const field &parse_field(std::string_view name)
{
    const field *found = find_field(name);
    if (found == nullptr)
        fail("no value is called " + quoted(name) + ": there are " + list_of_names(all_fields) +
             ", and with the number of a lane, as in rx-power.3, " +
             list_of_names(all_lane_fields));
    return *found;
}

/* The number after the point in a name; 0 for a name that isn't a lane's field. */
static uint32_t parse_lane(std::string_view name)
{
    const size_t point = name.find('.');
    if (point == name.npos)
        return 0;
    const auto lane = parse_integer(name.substr(point + 1));
    if (!lane || *lane < 0 || *lane >= lanes_at_most)
        fail(quoted(name) + " names no lane: they have the numbers 0 to " +
             std::to_string(lanes_at_most - 1));
    return static_cast<uint32_t>(*lane);
}

std::string_view operation_name(operation op)
{
    return op_names[static_cast<size_t>(op)];
}

std::span<const std::string_view> operation_names()
{
    return op_names;
}

/* "dolm_ric_ri_subslink", "ri_subslink" and "subslink" are the same operation. */
operation parse_operation(std::string_view text)
{
    std::string_view name = text;
    for (const std::string_view prefix : {"dolm_ric_", "ri_"})
        if (name.starts_with(prefix))
            name.remove_prefix(prefix.size());
    const auto found = std::ranges::find(op_names, name);
    if (found != op_names.end())
        return static_cast<operation>(found - op_names.begin());
    std::string names;
    for (const std::string_view known : op_names)
        names += (names.empty() ? "" : ", ") + std::string(known);
    fail("no operation is called " + quoted(text) + ": there are " + names);
}

int32_t parse_code(std::string_view text)
{
    const auto *known = std::ranges::find(codes, text, &named_code::name);
    if (known != std::end(codes))
        return known->code;
    const auto code = parse_integer(text);
    if (!code || *code == 0 || *code < INT32_MIN || *code > INT32_MAX)
        fail(quoted(text) + " is no failure: it takes a number other than 0, or " +
             list_of_names(codes));
    return static_cast<int32_t>(*code);
}

std::span<const field> fields()
{
    return all_fields;
}

std::span<const field> lane_fields()
{
    return all_lane_fields;
}

setting parse_setting(std::string_view text)
{
    const size_t equals = text.find('=');
    if (equals == text.npos)
        fail(quoted(text) + " sets nothing: it takes KEY=VALUE");
    const field &target = parse_field(text.substr(0, equals));
    const std::string_view value = text.substr(equals + 1);
    if (target.kind != field_kind::text)
        return {&target, parse_value(target, value), {}, parse_lane(text.substr(0, equals))};
    std::string bytes = unescape(value);
    if (bytes.size() > target.size)
        fail(std::string(target.name) + " holds " + std::to_string(target.size) +
             " bytes at most, not " + std::to_string(bytes.size()));
    return {&target, 0, std::move(bytes)};
}

std::vector<setting> parse_settings(std::span<const std::string_view> words)
{
    const size_t most = fields().size() + lane_fields().size() * lanes_at_most;
    if (words.size() > most)
        fail("more values are set than a port has: " + std::to_string(most) + " at most");
    std::vector<setting> settings;
    for (const std::string_view word : words)
        settings.push_back(parse_setting(word));
    return settings;
}

/* Copies the bytes, since a field may be unaligned. */
uint32_t read_number(const field &source, const void *values, uint32_t lane)
{
    const auto *from =
        static_cast<const std::byte *>(values) + source.offset + size_t{lane} * source.stride;
    if (source.size == 1)
        return std::to_integer<uint32_t>(*from);
    uint32_t number = 0;
    std::memcpy(&number, from, sizeof(number));
    return source.kind == field_kind::flag ? (number & source.mask) != 0 : number;
}

/* A text is padded with zeros; setting a flag keeps the other bits of its word. */
void write_setting(const setting &value, void *values)
{
    const field &target = *value.target;
    auto *to =
        static_cast<std::byte *>(values) + target.offset + size_t{value.lane} * target.stride;
    if (target.kind == field_kind::text) {
        std::memset(to, 0, target.size);
        std::memcpy(to, value.bytes.data(), value.bytes.size());
        return;
    }
    if (target.size == 1) {
        *to = static_cast<std::byte>(value.number);
        return;
    }
    uint32_t number = value.number;
    if (target.kind == field_kind::flag) {
        std::memcpy(&number, to, sizeof(number));
        number = value.number != 0 ? number | target.mask : number & ~target.mask;
    }
    std::memcpy(to, &number, sizeof(number));
}

/* Trailing zeros of a text are padding. A speed is written as a code, as "10" would be a word. */
std::string read_field(const field &source, const void *values, uint32_t lane)
{
    if (source.kind == field_kind::text) {
        std::string_view bytes(static_cast<const char *>(values) + source.offset, source.size);
        bytes = bytes.substr(0, bytes.find_last_not_of('\0') + 1);
        return escape(bytes, false);
    }
    const uint32_t number = read_number(source, values, lane);
    if (source.kind == field_kind::temperature)
        return std::to_string(static_cast<int32_t>(number));
    if (source.kind == field_kind::speed) {
        char hex[16];
        std::snprintf(hex, sizeof(hex), "0x%04x", number);
        return hex;
    }
    return std::to_string(number);
}

std::string_view name_of_value(field_kind of, uint32_t number)
{
    for (const named_value &known : named_values)
        if (known.of == of && known.value == number)
            return known.name;
    return {};
}

std::span<const module_kind> module_kinds()
{
    return all_module_kinds;
}

const module_kind &parse_module_kind(std::string_view name)
{
    const auto *found = std::ranges::find(all_module_kinds, name, &module_kind::name);
    if (found == std::end(all_module_kinds))
        fail("no module is called " + quoted(name) + ": there are " +
             list_of_names(all_module_kinds));
    return *found;
}

} // namespace board
