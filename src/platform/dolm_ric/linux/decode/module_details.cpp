/* SPDX-License-Identifier: Apache-2.0 */
/* Identity, then limits, then values with their grades and flags, then the conditions of the lanes.
   A missing value gets the first reason that applies: copper has no light; the module has no
   diagnostics; its values were refused; the module isn't ready; a part of its memory wasn't read;
   the module doesn't measure the value. */
#include "platform/dolm_ric/linux/decode/module_details.h"

#include "platform/dolm_ric/details_record.h"
#include "platform/dolm_ric/linux/decode/module_family.h"
#include "platform/dolm_ric/linux/decode/vdm.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <optional>
#include <string_view>

namespace linux_board
{
namespace
{

using record_type = dolm_ric_details_record;

/* Bits by lane: the module reports the condition; the condition is present; the condition could not
   be read. */
struct lane_bits {
    uint32_t told = 0;
    uint32_t on = 0;
    uint32_t unread = 0;
};
using lane_signals = std::array<lane_bits, DOLM_RIC_SIGNALS>;

/* A measurement of the contents, and how the record shows it. */
struct measured {
    measurement module_contents::*from;
    double unit; /* how many of the contents' units are one unit of the record */
};

} // namespace

static constexpr memory_range sfp_identity = {identity_address, 0, 0, 0, 96};
static constexpr memory_range sfp_values = {diagnostics_address, 0, 0, 96, 24};
static constexpr memory_range sfp_limits = {diagnostics_address, 0, 0, 0, 96};
static constexpr memory_range qsfp_values = {identity_address, 0, 0, 0, 58};
static constexpr memory_range qsfp_lanes = {identity_address, 0, 0, 113, 1};
static constexpr memory_range qsfp_identity = {identity_address, 0, 0, 128, 96};
static constexpr memory_range qsfp_limits = {identity_address, 0, 3, 128, 72};
static constexpr memory_range cmis_state = {identity_address, 0, 0, 0, 24};
static constexpr memory_range cmis_applications = {identity_address, 0, 0, 84, 34};
static constexpr memory_range cmis_identity = {identity_address, 0, 0, 128, 95};
static constexpr memory_range cmis_features = {identity_address, 0, 1, 128, 128};
static constexpr memory_range cmis_limits = {identity_address, 0, 2, 128, 128};
static constexpr uint8_t lanes_of_bank = 8;

static constexpr memory_range cmis_lanes(uint8_t bank)
{
    return {identity_address, bank, 0x11, 128, 86};
}

/* In the order of enum dolm_ric_details_module_value and enum dolm_ric_details_lane_value. */
static constexpr measured module_values[] = {
    {&module_contents::temperature, 1e3},
    {&module_contents::voltage, 1e6},
    {&module_contents::laser_temperature, 1e3},
    {&module_contents::tec_current, 1e3},
};
static_assert(std::size(module_values) == DOLM_RIC_MODULE_VALUES);
static constexpr measured lane_values[] = {
    {&module_contents::tx_bias, 1e3},
    {&module_contents::tx_power, 1e3},
    {&module_contents::rx_power, 1e3},
};

static int64_t nanoseconds(module_memory::time_point at)
{
    return std::chrono::nanoseconds{at.time_since_epoch()}.count();
}

/* Rounded to a step far below what modules measure, so that a decimal fraction stays one. */
static double in_unit(double value, double unit)
{
    return std::round(value / unit * 1e9) / 1e9;
}

static bool has_doubt(const module_contents &contents, std::string_view part)
{
    return std::ranges::any_of(contents.doubts, [part](const char *doubt) {
        return std::string_view(doubt).find(part) != std::string_view::npos;
    });
}

/* The range with the values of the whole module. */
static memory_range values_range(module_family family)
{
    return family == module_family::sfp    ? sfp_values
           : family == module_family::qsfp ? qsfp_values
                                           : cmis_state;
}

static memory_range limits_range(module_family family)
{
    return family == module_family::sfp    ? sfp_limits
           : family == module_family::qsfp ? qsfp_limits
                                           : cmis_limits;
}

/* The state of the values of the whole module: valid, or why they are missing. */
static uint32_t state_of_values(const module_memory &memory, const module_contents &contents)
{
    switch (contents.diagnostics) {
    case diagnostics_state::available:
        return DOLM_RIC_VALUE_VALID;
    case diagnostics_state::none:
        return DOLM_RIC_VALUE_NOT_SUPPORTED;
    default:
        break;
    }
    if (has_doubt(contents, "calibration is wrong"))
        return DOLM_RIC_VALUE_WRONG_CHECKSUM;
    if (!memory.read_at(values_range(contents.family)))
        return DOLM_RIC_VALUE_NOT_READ;
    return contents.doubts.empty() ? DOLM_RIC_VALUE_NOT_READY : DOLM_RIC_VALUE_DOUBTFUL;
}

/* In any other state the lasers may be off, and their values mean nothing. */
static bool is_running(const module_memory &memory)
{
    const memory_view state(memory, cmis_state);
    return state.was_read() && (state.u8(3) >> 1 & 7) == DOLM_RIC_MODULE_READY;
}

/* The state of the upper pages of a CMIS module: valid, or why their content is missing. */
static uint32_t state_of_pages(const module_memory &memory, const module_contents &contents)
{
    const uint32_t whole = state_of_values(memory, contents);
    if (whole != DOLM_RIC_VALUE_VALID)
        return whole;
    const memory_view state(memory, cmis_state);
    if ((state.u8(2) & 0x80) != 0) /* the memory is flat */
        return DOLM_RIC_VALUE_NOT_SUPPORTED;
    if (!is_running(memory))
        return DOLM_RIC_VALUE_NOT_READY;
    if (!memory.read_at(cmis_features))
        return DOLM_RIC_VALUE_NOT_READ;
    return is_range_right(memory, cmis_features) ? DOLM_RIC_VALUE_VALID
                                                 : DOLM_RIC_VALUE_WRONG_CHECKSUM;
}

static bool is_any_bank_read(const module_memory &memory)
{
    return memory.read_at(cmis_lanes(0)) || memory.read_at(cmis_lanes(1));
}

static uint32_t state_of_lanes(const module_memory &memory, const module_contents &contents)
{
    if (contents.copper)
        return DOLM_RIC_VALUE_NO_LIGHT;
    if (contents.family != module_family::cmis)
        return state_of_values(memory, contents);
    const uint32_t pages = state_of_pages(memory, contents);
    return pages != DOLM_RIC_VALUE_VALID || is_any_bank_read(memory)
               ? pages
               : uint32_t{DOLM_RIC_VALUE_NOT_READ};
}

/* If a value was read before, its state becomes "no answer" instead of "not read yet". */
static uint32_t state_after(uint32_t before, uint32_t now)
{
    const bool is_lost = now == DOLM_RIC_VALUE_NOT_READ &&
                         (before == DOLM_RIC_VALUE_VALID || before == DOLM_RIC_VALUE_NO_ANSWER);
    return is_lost ? uint32_t{DOLM_RIC_VALUE_NO_ANSWER} : now;
}

static uint32_t state_of_limits(const module_memory &memory, const module_contents &contents,
                                const measurement &its, uint32_t values)
{
    const bool are_zero = its.limits && its.limits->high_alarm == 0 && its.limits->low_alarm == 0 &&
                          its.limits->high_warning == 0 && its.limits->low_warning == 0;
    if (are_zero)
        return DOLM_RIC_VALUE_NOT_SUPPORTED;
    if (its.limits)
        return its.limits->are_in_order() ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_DOUBTFUL;
    if (values != DOLM_RIC_VALUE_VALID)
        return values;
    if (has_doubt(contents, "limits is wrong"))
        return DOLM_RIC_VALUE_WRONG_CHECKSUM;
    const memory_range range = limits_range(contents.family);
    const std::vector<reading_step> plan = reading_plan(memory);
    const bool is_wanted =
        std::ranges::any_of(plan, [&](const reading_step &step) { return step.range == range; });
    return is_wanted && !memory.read_at(range) ? DOLM_RIC_VALUE_NOT_READ
                                               : DOLM_RIC_VALUE_NOT_SUPPORTED;
}

static void take_limits(const measurement &its, double unit, uint32_t state,
                        dolm_ric_details_limits &to)
{
    to = {};
    to.state = state;
    if (!its.limits)
        return;
    to.low_alarm = in_unit(its.limits->low_alarm, unit);
    to.low_warning = in_unit(its.limits->low_warning, unit);
    to.high_warning = in_unit(its.limits->high_warning, unit);
    to.high_alarm = in_unit(its.limits->high_alarm, unit);
}

/* Counts a reading that found the flag or condition; the same reading isn't counted twice. */
template <typename counted>
static void count(counted &its, int64_t at)
{
    if (its.count != 0 && at == its.last_at)
        return;
    its.count++;
    its.first_at = its.first_at != 0 ? its.first_at : at;
    its.last_at = at;
}

static void set_missing(uint32_t why, dolm_ric_details_value &to)
{
    const bool is_lost = why == DOLM_RIC_VALUE_NOT_READ && to.read_at != 0;
    to.state = is_lost ? uint32_t{DOLM_RIC_VALUE_NO_ANSWER} : why;
    to.grade = DOLM_RIC_GRADE_NONE;
    to.value = 0;
}

/* The bits of measurement_flag are in the order of enum dolm_ric_details_flag_kind. */
static void count_flags(uint8_t flags, int64_t at, dolm_ric_details_value &to)
{
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
        if ((flags >> kind & 1) != 0)
            count(to.flag[kind], at);
}

static void take_value(double value, uint8_t flags, uint32_t grade, int64_t at,
                       dolm_ric_details_value &to)
{
    to.state = DOLM_RIC_VALUE_VALID;
    to.grade = grade;
    to.read_at = at;
    to.value = value;
    count_flags(flags, at, to);
}

static void take_module_values(const module_memory &memory, const module_contents &contents,
                               record_type &record)
{
    const uint32_t state = state_of_values(memory, contents);
    const auto read_at = memory.read_at(values_range(contents.family));
    for (size_t kind = 0; kind < std::size(module_values); kind++) {
        const measurement &its = contents.*module_values[kind].from;
        const double unit = module_values[kind].unit;
        dolm_ric_details_value &to = record.module_value[kind];
        take_limits(its, unit, state_of_limits(memory, contents, its, state),
                    record.module_limits[kind]);
        if (its.lanes.empty() || !read_at) {
            const uint32_t why =
                its.is_claimed ? DOLM_RIC_VALUE_NOT_READY : DOLM_RIC_VALUE_NOT_SUPPORTED;
            set_missing(state == DOLM_RIC_VALUE_VALID ? why : state, to);
            continue;
        }
        const lane_value &only = its.lanes.front();
        take_value(in_unit(only.value, unit), contents.has_flags ? only.flags : uint8_t{0},
                   board::grade_value(in_unit(only.value, unit), record.module_limits[kind], true),
                   nanoseconds(*read_at), to);
    }
}

/* The values of a bank are read at another time than those of the module. */
static std::optional<module_memory::time_point> lane_read_at(const module_memory &memory,
                                                             module_family family, uint32_t lane)
{
    return memory.read_at(family == module_family::cmis
                              ? cmis_lanes(static_cast<uint8_t>(lane / lanes_of_bank))
                              : values_range(family));
}

/* The lanes of the first bank; byte 210 lists the lanes that a CMIS module lacks. */
static uint32_t lanes_present(const module_memory &memory)
{
    const memory_view identity(memory, cmis_identity);
    return identity.was_read() ? ~uint32_t{identity.u8(210)} & 0xffu : 0xffu;
}

/* The lanes between host and module, of the first bank, by the applications: a lane of light may
   carry two of them. The lanes of light if the module lists no applications. */
static uint32_t host_lanes(const module_memory &memory)
{
    const memory_view from(memory, cmis_applications);
    uint32_t lanes = 0;
    for (size_t at = 86; from.was_read() && at < 118 && from.u8(at) != 0xff; at += 4)
        for (uint32_t first = 0; first < lanes_of_bank; first++)
            if ((from.u8(at + 3) >> first & 1) != 0)
                lanes |= ((1u << (from.u8(at + 2) >> 4)) - 1) << first;
    lanes &= 0xffu;
    return lanes != 0 ? lanes : lanes_present(memory);
}

static bool has_second_bank(const module_memory &memory)
{
    const memory_view features(memory, cmis_features);
    return features.was_read() && is_range_right(memory, cmis_features) &&
           cmis_bank_count(features) > 1;
}

static uint32_t lane_count(const module_memory &memory, const module_contents &contents)
{
    if (contents.copper || contents.diagnostics == diagnostics_state::none)
        return 0;
    if (contents.family != module_family::cmis)
        return contents.family == module_family::sfp ? 1 : 4;
    return has_second_bank(memory)
               ? 2 * lanes_of_bank
               : static_cast<uint32_t>(std::bit_width(lanes_present(memory) | host_lanes(memory)));
}

static void take_lane_values(const module_memory &memory, const module_contents &contents,
                             bool stopped, record_type &record)
{
    for (size_t kind = 0; kind < std::size(lane_values); kind++) {
        const measurement &its = contents.*lane_values[kind].from;
        const double unit = lane_values[kind].unit;
        const bool is_tx = kind != DOLM_RIC_RX_POWER;
        const uint32_t off = is_tx ? contents.tx_off_lanes : contents.rx_off_lanes;
        const uint32_t maybe_off = is_tx ? contents.tx_off_unread : 0;
        take_limits(its, unit, state_of_limits(memory, contents, its, record.lanes_state),
                    record.lane_limits[kind]);
        std::array<const lane_value *, DOLM_RIC_DETAILS_LANES> found = {};
        for (const lane_value &lane : its.lanes)
            if (lane.lane < found.size())
                found[lane.lane] = &lane;
        for (uint32_t lane = 0; lane < record.lane_count; lane++) {
            dolm_ric_details_value &to = record.lane[lane].value[kind];
            const auto read_at = lane_read_at(memory, contents.family, lane);
            if (found[lane] == nullptr || !read_at) {
                const uint32_t why =
                    read_at ? DOLM_RIC_VALUE_NOT_SUPPORTED : DOLM_RIC_VALUE_NOT_READ;
                set_missing(record.lanes_state == DOLM_RIC_VALUE_VALID ? why : record.lanes_state,
                            to);
                continue;
            }
            const double value = found[lane]->value;
            const bool is_dark_wrong = !stopped && (maybe_off >> lane & 1) == 0;
            const uint32_t grade =
                (off >> lane & 1) != 0
                    ? uint32_t{DOLM_RIC_GRADE_OFF}
                    : board::grade_value(in_unit(value, unit), record.lane_limits[kind],
                                         is_dark_wrong);
            take_value(in_unit(value, unit), contents.has_flags ? found[lane]->flags : uint8_t{0},
                       grade, nanoseconds(*read_at), to);
        }
    }
}

/* Bytes 93 and 110: which signals the module has. Bytes 64 and 119: whether it has clock
   recovery. */
static void find_sfp_signals(const module_memory &memory, lane_signals &signals)
{
    const memory_view identity(memory, sfp_identity);
    const memory_view values(memory, sfp_values);
    if (!identity.was_read() || !values.was_read())
        return;
    const uint32_t options = identity.u8(93);
    const uint32_t status = values.u8(110);
    signals[DOLM_RIC_RX_LOS] = {options >> 4 & 1, status >> 1 & 1};
    signals[DOLM_RIC_TX_FAULT] = {options >> 5 & 1, status >> 2 & 1};
    signals[DOLM_RIC_TX_OFF] = {options >> 6 & 1, status >> 7 & 1};
    const uint32_t has_recovery = identity.u8(64) >> 3 & 1u;
    signals[DOLM_RIC_RX_LOL] = {has_recovery, values.u8(119) & 1u};
    signals[DOLM_RIC_TX_LOL] = {has_recovery, values.u8(119) >> 1 & 1u};
}

/* Bytes 3 to 5: four bits of the receivers below four of the transmitters; for faults, of the
   transmitters alone. Bytes 194 and 195 say which signals the module reports; all modules report
   LOS of the receivers. */
static void find_qsfp_signals(const module_memory &memory, const module_contents &contents,
                              lane_signals &signals)
{
    const memory_view values(memory, qsfp_values);
    const memory_view lanes(memory, qsfp_lanes);
    const memory_view identity(memory, qsfp_identity);
    if (!values.was_read() || !identity.was_read())
        return;
    const uint32_t present = 15u & ~(lanes.was_read() ? lanes.u8(113) : 0u);
    const auto told = [&](size_t at, uint8_t bit) {
        return (identity.u8(at) & bit) != 0 ? present : 0u;
    };
    signals[DOLM_RIC_RX_LOS] = {present, values.u8(3) & 15u};
    signals[DOLM_RIC_TX_LOS] = {told(195, 0x02), values.u8(3) >> 4 & 15u};
    signals[DOLM_RIC_TX_FAULT] = {told(195, 0x08), values.u8(4) & 15u};
    signals[DOLM_RIC_RX_LOL] = {told(194, 0x10), values.u8(5) & 15u};
    signals[DOLM_RIC_TX_LOL] = {told(194, 0x20), values.u8(5) >> 4 & 15u};
    signals[DOLM_RIC_TX_OFF] = {told(195, 0x10), contents.tx_off_lanes, contents.tx_off_unread};
}

/* Bytes 157 and 158 of page 01h say which conditions the module reports. */
static void find_cmis_signals(const module_memory &memory, const module_contents &contents,
                              lane_signals &signals)
{
    const memory_view features(memory, cmis_features);
    if (!features.was_read() || !is_range_right(memory, cmis_features))
        return;
    static constexpr struct {
        uint8_t signal;
        uint8_t offset; /* offset on page 11h */
        uint8_t claim;  /* on page 01h, with its bit */
        uint8_t bit;
        bool is_host; /* the bits are numbered by lanes between host and module */
    } rows[] = {
        {DOLM_RIC_TX_FAULT, 135, 157, 0x01, false}, {DOLM_RIC_TX_LOS, 136, 157, 0x02, true},
        {DOLM_RIC_TX_LOL, 137, 157, 0x04, true},    {DOLM_RIC_RX_LOS, 147, 158, 0x02, false},
        {DOLM_RIC_RX_LOL, 148, 158, 0x04, false},
    };
    for (uint8_t bank = 0; bank < DOLM_RIC_DETAILS_LANES / lanes_of_bank; bank++) {
        const memory_view lanes(memory, cmis_lanes(bank));
        const uint32_t first = uint32_t{bank} * lanes_of_bank;
        const uint32_t present = bank == 0 ? lanes_present(memory) : 0xffu;
        const uint32_t at_host = bank == 0 ? host_lanes(memory) : 0xffu;
        for (const auto &row : rows) {
            const bool is_told = (features.u8(row.claim) & row.bit) != 0;
            const uint32_t its = is_told ? row.is_host ? at_host : present : 0u;
            lane_bits &to = signals[row.signal];
            to.told |= its << first;
            if (lanes.was_read())
                to.on |= uint32_t{lanes.u8(row.offset)} << first;
            else
                to.unread |= its << first;
        }
        for (const auto kind : {DOLM_RIC_TX_OFF, DOLM_RIC_RX_OFF}) {
            signals[kind].told |= present << first;
            signals[kind].unread |= lanes.was_read() ? 0u : present << first;
        }
    }
    signals[DOLM_RIC_TX_OFF].on = contents.tx_off_lanes;
    signals[DOLM_RIC_RX_OFF].on = contents.rx_off_lanes;
    signals[DOLM_RIC_TX_OFF].unread |= contents.tx_off_unread & ~contents.tx_off_lanes;
}

static lane_signals find_signals(const module_memory &memory, const module_contents &contents)
{
    lane_signals signals = {};
    if (contents.family == module_family::sfp)
        find_sfp_signals(memory, signals);
    else if (contents.family == module_family::qsfp)
        find_qsfp_signals(memory, contents, signals);
    else
        find_cmis_signals(memory, contents, signals);
    return signals;
}

/* The state of a condition of one lane; `state` is that of the lanes as a whole. */
static uint32_t state_of_signal(const lane_bits &its, uint32_t lane, uint32_t state)
{
    if (state != DOLM_RIC_VALUE_VALID)
        return state;
    if ((its.told >> lane & 1) == 0)
        return DOLM_RIC_VALUE_NOT_SUPPORTED;
    return (its.unread >> lane & 1) != 0 ? DOLM_RIC_VALUE_NOT_READ : DOLM_RIC_VALUE_VALID;
}

static void take_signals(const module_memory &memory, const module_contents &contents,
                         record_type &record)
{
    const lane_signals signals = find_signals(memory, contents);
    for (uint32_t lane = 0; lane < record.lane_count; lane++) {
        const auto read_at = lane_read_at(memory, contents.family, lane);
        const int64_t at = read_at ? nanoseconds(*read_at) : 0;
        for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++) {
            dolm_ric_details_condition &to = record.lane[lane].signal[kind];
            const uint32_t state = state_of_signal(signals[kind], lane, record.lanes_state);
            to.state = state_after(to.state, state);
            to.on = state == DOLM_RIC_VALUE_VALID ? signals[kind].on >> lane & 1 : 0;
            if (to.on != 0)
                count(to, at);
        }
    }
}

static void take_doubts(const module_contents &contents, record_type &record)
{
    memset(record.doubt, 0, sizeof(record.doubt));
    record.doubt_count = 0;
    for (const char *doubt : contents.doubts)
        if (record.doubt_count < DOLM_RIC_DETAILS_DOUBTS)
            board::set_text(record.doubt[record.doubt_count++], sizeof(record.doubt[0]), doubt,
                            sizeof(record.doubt[0]));
}

/* For a module that answers, but whose identity is invalid. */
static void take_wrong_module(const module_memory &memory, const module_contents &contents,
                              record_type &record)
{
    const uint32_t why = contents.doubts.empty()           ? DOLM_RIC_VALUE_NOT_READ
                         : has_doubt(contents, "checksum") ? DOLM_RIC_VALUE_WRONG_CHECKSUM
                                                           : DOLM_RIC_VALUE_DOUBTFUL;
    board::forget_module(DOLM_RIC_PRESENCE_NOT_READY, why, record);
    take_doubts(contents, record);
    take_identity(memory, contents, record.identity);
    record.identity.state = why;
}

static void take_lanes(const module_memory &memory, const module_contents &contents,
                       const port_view &view, record_type &record)
{
    record.lanes_state = state_after(record.lanes_state, state_of_lanes(memory, contents));
    board::set_lane_count(lane_count(memory, contents), record);
    record.own_lanes = own_lanes(contents, view) & ((1u << record.lane_count) - 1);
    record.power_kind = contents.rx_power.lanes.empty() ? DOLM_RIC_POWER_UNKNOWN
                        : contents.has_average_power    ? DOLM_RIC_POWER_AVERAGE
                                                        : DOLM_RIC_POWER_OMA;
    take_lane_values(memory, contents, view.stopped, record);
    take_signals(memory, contents, record);
}

void take_module(const module_memory &memory, const module_contents &contents,
                 const port_view &view, record_type &record)
{
    if (!contents.ready)
        return take_wrong_module(memory, contents, record);
    take_doubts(contents, record);
    take_identity(memory, contents, record.identity);
    if (const auto at = memory.read_at(identifier_range))
        record.identity.read_at = nanoseconds(*at);
    take_module_values(memory, contents, record);
    take_lanes(memory, contents, view, record);
    if (contents.family == module_family::cmis)
        take_vdm(memory, state_after(record.vdm_state, state_of_pages(memory, contents)), record);
    else
        record.vdm_state = DOLM_RIC_VALUE_NOT_SUPPORTED;
}

/* Reading clears the module's flags, so no later reading will find the flags of this one. */
void take_flags(const module_memory &memory, const module_contents &contents, record_type &record)
{
    const auto read_at = memory.read_at(values_range(contents.family));
    if (!contents.ready || !contents.has_flags || !read_at)
        return;
    for (size_t kind = 0; kind < std::size(module_values); kind++)
        for (const lane_value &only : (contents.*module_values[kind].from).lanes)
            count_flags(only.flags, nanoseconds(*read_at), record.module_value[kind]);
    for (size_t kind = 0; kind < std::size(lane_values); kind++)
        for (const lane_value &its : (contents.*lane_values[kind].from).lanes)
            if (its.lane < record.lane_count)
                count_flags(its.flags, nanoseconds(*read_at), record.lane[its.lane].value[kind]);
    const lane_signals signals = find_signals(memory, contents);
    for (uint32_t lane = 0; lane < record.lane_count; lane++)
        for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++)
            if ((signals[kind].told & signals[kind].on) >> lane & 1)
                count(record.lane[lane].signal[kind], nanoseconds(*read_at));
}

void lose_values(uint32_t why, record_type &record)
{
    for (auto &value : record.module_value)
        if (value.state == DOLM_RIC_VALUE_VALID)
            set_missing(why, value);
    for (auto &lane : std::span(record.lane).first(record.lane_count)) {
        for (auto &value : lane.value)
            if (value.state == DOLM_RIC_VALUE_VALID)
                set_missing(why, value);
        for (auto &signal : lane.signal)
            if (signal.state == DOLM_RIC_VALUE_VALID)
                signal.state = why, signal.on = 0;
    }
    for (auto &row : std::span(record.vdm).first(record.vdm_count)) {
        row.state = why;
        row.grade = DOLM_RIC_GRADE_NONE;
        row.raised = DOLM_RIC_VDM_FLAGS_UNKNOWN;
        row.value = 0;
    }
    if (record.lanes_state == DOLM_RIC_VALUE_VALID)
        record.lanes_state = why;
    if (record.vdm_state == DOLM_RIC_VALUE_VALID)
        record.vdm_state = why;
}

void set_presence(bool is_ready, uint32_t why, int64_t now, record_type &record)
{
    if (!is_ready && record.identity.state == DOLM_RIC_VALUE_VALID)
        lose_values(why, record);
    else if (!is_ready && record.doubt_count == 0)
        board::forget_module(DOLM_RIC_PRESENCE_NOT_READY, DOLM_RIC_VALUE_NOT_READ, record);
    record.presence = is_ready ? DOLM_RIC_PRESENCE_READY : DOLM_RIC_PRESENCE_NOT_READY;
    if (is_ready)
        record.presence_code = DOLM_RIC_VALUE_VALID;
    else if (record.identity.state == DOLM_RIC_VALUE_VALID)
        record.presence_code = why;
    record.inserted_at = record.inserted_at != 0 ? record.inserted_at : now;
}

} // namespace linux_board
