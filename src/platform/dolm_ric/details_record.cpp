/* SPDX-License-Identifier: Apache-2.0 */
/* Parts of a record that both boards fill in: texts, grades, limits, lanes, and a port without a
   module. No state. */
#include "platform/dolm_ric/details_record.h"

#include <algorithm>
#include <cstring>

namespace board
{

void set_text(char *field, size_t size, const char *text, size_t length)
{
    const size_t count = std::min(size - 1, strnlen(text, length));
    memset(field, 0, size);
    for (size_t at = 0; at < count; at++)
        field[at] = text[at] >= ' ' && text[at] <= '~' ? text[at] : '?';
}

uint32_t grade_value(double value, const dolm_ric_details_limits &limits, bool has_low_limits)
{
    if (limits.state != DOLM_RIC_VALUE_VALID)
        return DOLM_RIC_GRADE_NONE;
    if (has_low_limits && value <= limits.low_alarm)
        return DOLM_RIC_GRADE_LOW_ALARM;
    if (value >= limits.high_alarm)
        return DOLM_RIC_GRADE_HIGH_ALARM;
    if (has_low_limits && value <= limits.low_warning)
        return DOLM_RIC_GRADE_LOW_WARNING;
    return value >= limits.high_warning ? DOLM_RIC_GRADE_HIGH_WARNING : DOLM_RIC_GRADE_OK;
}

dolm_ric_details_limits without_limits(uint32_t why)
{
    dolm_ric_details_limits limits = {};
    limits.state = why;
    return limits;
}

void set_lane_count(uint32_t count, dolm_ric_details_record &record)
{
    if (count < record.lane_count)
        memset(&record.lane[count], 0, (record.lane_count - count) * sizeof(record.lane[0]));
    record.lane_count = count;
}

void forget_module(uint32_t presence, uint32_t why, dolm_ric_details_record &record)
{
    record.presence = presence;
    record.presence_code = why;
    memset(record.doubt, 0, sizeof(record.doubt));
    set_lane_count(0, record);
    memset(record.vdm, 0, record.vdm_count * sizeof(record.vdm[0]));
    record.doubt_count = record.vdm_count = record.vdm_left_out = 0;
    record.own_lanes = 0;
    record.power_kind = DOLM_RIC_POWER_UNKNOWN;
    record.lanes_state = record.vdm_state = why;
    record.inserted_at = 0;
    record.cost.period = record.cost.last_sweep = 0;
    record.identity = {};
    record.identity.state = why;
    for (auto &limits : record.module_limits)
        limits = without_limits(why);
    for (auto &limits : record.lane_limits)
        limits = without_limits(why);
    for (auto &value : record.module_value) {
        value = {};
        value.state = why;
    }
}

} // namespace board
