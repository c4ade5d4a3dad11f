/* SPDX-License-Identifier: Apache-2.0 */
/* A descriptor has two bytes: the number of its limits within the group, a lane, and the code of
   the observed quantity. Values and limits have 16 bits: an integer, signed or not, or a number
   with a decimal exponent. */
#include "platform/dolm_ric/linux/decode/vdm.h"

#include "platform/dolm_ric/details_record.h"
#include "platform/dolm_ric/linux/decode/module_family.h"

#include <algorithm>
#include <cmath>

namespace linux_board
{
namespace
{

enum class number_kind : uint8_t { unsigned_word, signed_word, decimal };

/* The quantity that a code stands for, and the step of its 16-bit words. */
struct observable {
    uint8_t code;
    uint8_t kind; /* enum dolm_ric_details_vdm_kind */
    uint8_t side;
    number_kind number;
    double step;
};

} // namespace

static constexpr memory_range features_range = {identity_address, 0, 1, 128, 128};
static constexpr size_t rows_of_group = 64;

static constexpr auto media = DOLM_RIC_SIDE_MEDIA;
static constexpr auto host = DOLM_RIC_SIDE_HOST;

static constexpr observable observables[] = {
    {2, DOLM_RIC_VDM_TEC_CURRENT, media, number_kind::signed_word, 100.0 / 32767},
    {4, DOLM_RIC_VDM_LASER_TEMPERATURE, media, number_kind::signed_word, 1.0 / 256},
    {5, DOLM_RIC_VDM_SNR, media, number_kind::unsigned_word, 1.0 / 256},
    {6, DOLM_RIC_VDM_SNR, host, number_kind::unsigned_word, 1.0 / 256},
    {9, DOLM_RIC_VDM_PRE_FEC_BER_MIN, media, number_kind::decimal, 1},
    {10, DOLM_RIC_VDM_PRE_FEC_BER_MIN, host, number_kind::decimal, 1},
    {11, DOLM_RIC_VDM_PRE_FEC_BER_MAX, media, number_kind::decimal, 1},
    {12, DOLM_RIC_VDM_PRE_FEC_BER_MAX, host, number_kind::decimal, 1},
    {13, DOLM_RIC_VDM_PRE_FEC_BER_AVERAGE, media, number_kind::decimal, 1},
    {14, DOLM_RIC_VDM_PRE_FEC_BER_AVERAGE, host, number_kind::decimal, 1},
    {15, DOLM_RIC_VDM_PRE_FEC_BER_CURRENT, media, number_kind::decimal, 1},
    {16, DOLM_RIC_VDM_PRE_FEC_BER_CURRENT, host, number_kind::decimal, 1},
    {17, DOLM_RIC_VDM_ERRORED_FRAMES_MIN, media, number_kind::decimal, 1},
    {18, DOLM_RIC_VDM_ERRORED_FRAMES_MIN, host, number_kind::decimal, 1},
    {19, DOLM_RIC_VDM_ERRORED_FRAMES_MAX, media, number_kind::decimal, 1},
    {20, DOLM_RIC_VDM_ERRORED_FRAMES_MAX, host, number_kind::decimal, 1},
    {21, DOLM_RIC_VDM_ERRORED_FRAMES_AVERAGE, media, number_kind::decimal, 1},
    {22, DOLM_RIC_VDM_ERRORED_FRAMES_AVERAGE, host, number_kind::decimal, 1},
    {23, DOLM_RIC_VDM_ERRORED_FRAMES_CURRENT, media, number_kind::decimal, 1},
    {24, DOLM_RIC_VDM_ERRORED_FRAMES_CURRENT, host, number_kind::decimal, 1},
};

bool has_vdm(const module_memory &memory)
{
    constexpr uint8_t claims_vdm = 0x40;
    const memory_view features(memory, features_range);
    return features.was_read() && is_range_right(memory, features_range) &&
           (features.u8(142) & claims_vdm) != 0;
}

uint8_t vdm_group_count(const module_memory &memory)
{
    const memory_view groups(memory, vdm_groups_range);
    return groups.was_read() ? static_cast<uint8_t>((groups.u8(128) & 3) + 1) : uint8_t{0};
}

/* Five bits of exponent, with an offset of 24, and eleven bits of mantissa. */
static double number_at(const memory_view &from, size_t at, const observable &its)
{
    switch (its.number) {
    case number_kind::signed_word:
        return from.s16(at) * its.step;
    case number_kind::decimal:
        return (from.u16(at) & 0x7ff) * std::pow(10.0, (from.u16(at) >> 11) - 24);
    default:
        return from.u16(at) * its.step;
    }
}

static dolm_ric_details_limits limits_of(const memory_view &from, size_t set, const observable &its)
{
    if (!from.was_read())
        return board::without_limits(DOLM_RIC_VALUE_NOT_READ);
    const size_t at = 128 + 8 * set;
    if (are_blank(from.bytes(at, 8)))
        return board::without_limits(DOLM_RIC_VALUE_NOT_SUPPORTED);
    dolm_ric_details_limits limits = board::without_limits(DOLM_RIC_VALUE_VALID);
    limits.high_alarm = number_at(from, at, its);
    limits.low_alarm = number_at(from, at + 2, its);
    limits.high_warning = number_at(from, at + 4, its);
    limits.low_warning = number_at(from, at + 6, its);
    const bool is_in_order = limits.low_alarm <= limits.low_warning &&
                             limits.low_warning < limits.high_warning &&
                             limits.high_warning <= limits.high_alarm;
    return is_in_order ? limits : board::without_limits(DOLM_RIC_VALUE_DOUBTFUL);
}

/* If the code isn't known, the row has the raw number and no limits. */
static void take_row(const memory_view &descriptors, const memory_view &values,
                     const memory_view &limits, size_t row, dolm_ric_details_vdm &to)
{
    constexpr uint8_t tec_current = 2; /* all other known quantities are those of lanes */
    const uint8_t place = descriptors.u8(128 + 2 * row);
    const uint8_t code = descriptors.u8(129 + 2 * row);
    const auto lane = static_cast<uint8_t>(code == tec_current ? 0xff : place & 15);
    const bool is_same_row = to.code == code && to.lane == lane;
    const int64_t last_read_at = is_same_row ? to.read_at : 0;
    to = {};
    to.code = code;
    to.lane = lane;
    to.read_at = last_read_at;
    const auto *its = std::ranges::find(observables, to.code, &observable::code);
    const observable raw = {to.code, DOLM_RIC_VDM_OTHER, media, number_kind::unsigned_word, 1};
    const bool is_known = its != std::end(observables);
    const observable &what = is_known ? *its : raw;
    to.kind = what.kind;
    to.side = what.side;
    to.limits = is_known ? limits_of(limits, place >> 4, what)
                         : board::without_limits(DOLM_RIC_VALUE_UNKNOWN);
    to.state = values.was_read()   ? DOLM_RIC_VALUE_VALID
               : last_read_at != 0 ? DOLM_RIC_VALUE_NO_ANSWER
                                   : DOLM_RIC_VALUE_NOT_READ;
    to.value = values.was_read() ? number_at(values, 128 + 2 * row, what) : 0;
    /* An error ratio of 0 is no alarm, although its low limits are 0, too. */
    const bool has_low_limits = what.number != number_kind::decimal;
    to.grade = values.was_read() ? board::grade_value(to.value, to.limits, has_low_limits)
                                 : uint32_t{DOLM_RIC_GRADE_NONE};
}

/* Four bits for each row of all groups: high alarm, low alarm, high warning, low warning. An even
   row is in the lower half of its byte. */
static uint32_t raised_flags(const memory_view &flags, size_t row)
{
    static constexpr uint8_t kinds[] = {DOLM_RIC_FLAG_HIGH_ALARM, DOLM_RIC_FLAG_LOW_ALARM,
                                        DOLM_RIC_FLAG_HIGH_WARNING, DOLM_RIC_FLAG_LOW_WARNING};
    if (!flags.was_read())
        return DOLM_RIC_VDM_FLAGS_UNKNOWN;
    const uint32_t bits = uint32_t{flags.u8(128 + row / 2)} >> (row % 2 != 0 ? 4 : 0);
    uint32_t raised = 0;
    for (size_t bit = 0; bit < std::size(kinds); bit++)
        raised |= (bits >> bit & 1u) << kinds[bit];
    return raised;
}

static void take_group(const module_memory &memory, uint8_t group, dolm_ric_details_record &record)
{
    const memory_view descriptors(memory, vdm_range(vdm_descriptors, group));
    const memory_view values(memory, vdm_range(vdm_values, group));
    const memory_view limits(memory, vdm_range(vdm_limits, group));
    const memory_view flags(memory, vdm_flags_range);
    const auto read_at = memory.read_at(vdm_range(vdm_values, group));
    for (size_t row = 0; descriptors.was_read() && row < rows_of_group; row++) {
        if (descriptors.u8(129 + 2 * row) == 0)
            continue;
        if (record.vdm_count == DOLM_RIC_DETAILS_VDM) {
            record.vdm_left_out++;
            continue;
        }
        dolm_ric_details_vdm &to = record.vdm[record.vdm_count++];
        take_row(descriptors, values, limits, row, to);
        to.raised = raised_flags(flags, group * rows_of_group + row);
        if (read_at)
            to.read_at = std::chrono::nanoseconds{read_at->time_since_epoch()}.count();
    }
}

void take_vdm(const module_memory &memory, uint32_t pages, dolm_ric_details_record &record)
{
    record.vdm_count = record.vdm_left_out = 0;
    record.vdm_state = pages;
    if (pages != DOLM_RIC_VALUE_VALID)
        return;
    const uint8_t groups = has_vdm(memory) ? vdm_group_count(memory) : uint8_t{0};
    bool are_known = !has_vdm(memory) || groups != 0; /* the descriptors of all groups were read */
    for (uint8_t group = 0; group < groups; group++) {
        take_group(memory, group, record);
        are_known &= memory.read_at(vdm_range(vdm_descriptors, group)).has_value();
    }
    record.vdm_state = record.vdm_count != 0 ? DOLM_RIC_VALUE_VALID
                       : are_known           ? DOLM_RIC_VALUE_NOT_SUPPORTED
                                             : DOLM_RIC_VALUE_NOT_READ;
}

} // namespace linux_board
