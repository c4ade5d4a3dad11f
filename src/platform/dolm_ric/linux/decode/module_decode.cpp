/* SPDX-License-Identifier: Apache-2.0 */
/* The caller of the library grades a value by comparing it with the limits in the same record:
   above both low limits and below both high ones is right, on a limit counts as beyond it. So a
   value that must not be graded gets limits that no value reaches. */
#include "platform/dolm_ric/linux/decode/module_decode.h"

#include "platform/dolm_ric/linux/decode/module_family.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <tuple>

namespace linux_board
{
namespace
{

/* A measurement as the record has it: rounded, and of one lane. */
struct graded_value {
    int64_t low_warning;
    int64_t high_warning;
    int64_t low_alarm;
    int64_t high_alarm;
    int64_t value;
};

enum class sign : uint8_t { any, never_negative };

/* Bit n stands for lane n: `own` are the lanes of the port, `off` are lanes that are dark on
   purpose. */
struct lane_choice {
    uint32_t own;
    uint32_t off;
};

} // namespace

/* A limit beyond all values, with either calibration, that fits into the words of the record. */
static constexpr double open_limit = 2'000'000'000.0;

static constexpr double infinity = std::numeric_limits<double>::infinity();
static constexpr measurement_limits open_limits = {infinity, -infinity, infinity, -infinity};

static void decode_layout(const module_layout &layout, const module_memory &memory,
                          module_contents &contents)
{
    const memory_view identity(memory, layout.plan.front().step.range);
    contents.family = layout.family;
    contents.ready = layout.is_identity_right(identity);
    if (contents.ready) {
        layout.decode(memory, identity, contents);
        contents.has_trusted_sum =
            memory.trusts_sums() && !layout.is_identity_right(identity.strict());
        if (contents.has_trusted_sum)
            contents.doubts.push_back("a checksum of the identity is wrong, and ignored");
    } else if (identity.was_read())
        contents.doubts.push_back("a checksum of the identity is wrong");
}

module_contents decode_module(const module_memory &memory)
{
    module_contents contents;
    if (const module_layout *layout = layout_of(memory))
        decode_layout(*layout, memory, contents);
    else if (!memory.bytes(identifier_range).empty())
        contents.doubts.push_back("the kind of module is unknown");
    return contents;
}

static measurement_limits usable_limits(const measurement &its, bool has_low_limits)
{
    measurement_limits limits =
        its.limits && its.limits->are_in_order() ? *its.limits : open_limits;
    if (!has_low_limits)
        limits.low_alarm = limits.low_warning = -infinity;
    return limits;
}

/* The distance to the nearest limit; a smaller distance is worse. Among lanes of equal distance, or
   without limits, the lowest value counts. */
static auto margin_of(double value, const measurement_limits &limits)
{
    const bool alarm = value <= limits.low_alarm || value >= limits.high_alarm;
    const bool warning = value <= limits.low_warning || value >= limits.high_warning;
    const double distance = std::min(value - limits.low_warning, limits.high_warning - value);
    return std::tuple(alarm ? 0 : warning ? 1 : 2, distance, value);
}

/* The worst value of the port's lanes. A measurement of one lane belongs to the whole module, so it
   counts for each of the module's ports. */
static std::optional<double> worst_value(const measurement &its, const measurement_limits &limits,
                                         const lane_choice &lanes)
{
    std::optional<double> worst;
    for (const lane_value &lane : its.lanes) {
        const bool is_other = its.lanes.size() > 1 && (lanes.own >> lane.lane & 1) == 0;
        if (is_other || (lanes.off >> lane.lane & 1) != 0)
            continue;
        if (!worst || margin_of(lane.value, limits) < margin_of(*worst, limits))
            worst = lane.value;
    }
    return worst;
}

static int64_t rounded(double value, double lowest)
{
    return std::llround(std::clamp(value, lowest, open_limit));
}

/* Nothing if no rounded record can give the level that the exact values have. */
static std::optional<graded_value> grade(const measurement &its, const lane_choice &lanes,
                                         sign signs, bool has_low_limits)
{
    const double lowest = signs == sign::any ? -open_limit : 0;
    const measurement_limits limits = usable_limits(its, has_low_limits);
    const std::optional<double> exact = worst_value(its, limits, lanes);
    if (!exact)
        return std::nullopt;

    const int64_t value = rounded(*exact, lowest);
    const auto low = [&](double limit) {
        const int64_t result = rounded(limit, lowest);
        return *exact > limit && value <= result ? value - 1 : result;
    };
    const auto high = [&](double limit) {
        const int64_t result = rounded(limit, lowest);
        return *exact < limit && value >= result ? value + 1 : result;
    };
    const graded_value graded = {low(limits.low_warning), high(limits.high_warning),
                                 low(limits.low_alarm), high(limits.high_alarm), value};
    const bool fits = static_cast<double>(std::min(graded.low_warning, graded.low_alarm)) >= lowest;
    return fits ? std::optional(graded) : std::nullopt;
}

/* Writes a measurement's five words of the record. */
template <typename word>
static uint32_t fill_words(const std::optional<graded_value> &from, uint32_t capability,
                           word &low_warning, word &high_warning, word &low_alarm, word &high_alarm,
                           word &value)
{
    if (!from)
        return 0;
    low_warning = static_cast<word>(from->low_warning);
    high_warning = static_cast<word>(from->high_warning);
    low_alarm = static_cast<word>(from->low_alarm);
    high_alarm = static_cast<word>(from->high_alarm);
    value = static_cast<word>(from->value);
    return capability;
}

static dolm_ric_module_diag make_diag(const module_contents &from, uint32_t lanes, bool stopped)
{
    dolm_ric_module_diag diag = {};
    const lane_choice whole = {lanes, 0};
    const bool is_dark_wrong = !stopped && (from.tx_off_unread & lanes) == 0;
    const auto sent = [&](const measurement &its) {
        return grade(its, {lanes, from.tx_off_lanes}, sign::never_negative, is_dark_wrong);
    };
    const auto received =
        grade(from.rx_power, {lanes, from.rx_off_lanes}, sign::never_negative, !stopped);

    diag.mode_type = DOLM_RIC_MODE_SFP;
    diag.diag_cap |=
        fill_words(grade(from.temperature, whole, sign::any, true), DOLM_SFP_DIAGCAP_TEMP,
                   diag.temperature_low_warn, diag.temperature_high_warn,
                   diag.temperature_low_alarm, diag.temperature_high_alarm, diag.temperature);
    diag.diag_cap |=
        fill_words(grade(from.voltage, whole, sign::never_negative, true), DOLM_SFP_DIAGCAP_VOLTAGE,
                   diag.voltage_low_warn, diag.voltage_high_warn, diag.voltage_low_alarm,
                   diag.voltage_high_alarm, diag.voltage);
    diag.diag_cap |= fill_words(sent(from.tx_bias), DOLM_SFP_DIAGCAP_TXBIAS, diag.txbias_low_warn,
                                diag.txbias_high_warn, diag.txbias_low_alarm,
                                diag.txbias_high_alarm, diag.txbias);
    diag.diag_cap |= fill_words(sent(from.tx_power), DOLM_SFP_DIAGCAP_TXPOWER,
                                diag.txpower_low_warn, diag.txpower_high_warn,
                                diag.txpower_low_alarm, diag.txpower_high_alarm, diag.txpower);
    diag.diag_cap |= fill_words(received, DOLM_SFP_DIAGCAP_RXPOWER, diag.rxpower_low_warn,
                                diag.rxpower_high_warn, diag.rxpower_low_alarm,
                                diag.rxpower_high_alarm, diag.rxpower);
    return diag;
}

/* "Unsupported" never changes; "not available" may change with the next reading. */
static int32_t diagnostics_result(diagnostics_state state)
{
    switch (state) {
    case diagnostics_state::available:
        return DOLM_RICERR_OK;
    case diagnostics_state::none:
        return DOLM_RICERR_UNSUPPORTED;
    default:
        return DOLM_RICERR_NOTAVAIL;
    }
}

uint32_t own_lanes(const module_contents &contents, const port_view &port)
{
    if (port.lanes != 0 || port.host_lanes == 0)
        return port.lanes != 0 ? port.lanes : UINT32_MAX;
    uint32_t lanes = 0;
    for (size_t host = 0; host < contents.lanes_of_host.size(); host++)
        if (port.host_lanes >> host & 1)
            lanes |= contents.lanes_of_host[host];
    return contents.lanes_of_host.empty() ? port.host_lanes : lanes;
}

module_records make_records(const module_contents &contents, const port_view &port)
{
    module_records records;
    if (!contents.ready)
        return records;
    const uint32_t lanes = own_lanes(contents, port);

    records.ready = true;
    records.info_result = DOLM_RICERR_OK;
    records.info.mode_type = DOLM_RIC_MODE_SFP;
    records.info.sfp = contents.identity;
    if (contents.rx_los_lanes & lanes & ~contents.rx_off_lanes)
        records.status.status |= rx_los_status;
    if (contents.tx_fault_lanes & lanes & ~contents.tx_off_lanes)
        records.status.status |= tx_fault_status;
    records.diag_result = diagnostics_result(contents.diagnostics);
    if (records.diag_result == DOLM_RICERR_OK)
        records.diag = make_diag(contents, lanes, port.stopped);
    return records;
}

uint32_t lanes_of_port(std::string_view phys_port_name, uint32_t lanes)
{
    const size_t at = phys_port_name.rfind('s');
    if (!phys_port_name.starts_with('p') || at == std::string_view::npos)
        return 0;
    const std::string_view digits = phys_port_name.substr(at + 1);
    uint32_t part = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), part);
    if (error != std::errc() || end != digits.data() + digits.size())
        return 0;

    const uint64_t width = std::clamp<uint32_t>(lanes, 1, 32);
    if (part * width + width > 32)
        return 0;
    return static_cast<uint32_t>(((uint64_t{1} << width) - 1) << (part * width));
}

} // namespace linux_board
