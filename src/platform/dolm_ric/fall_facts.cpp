/* SPDX-License-Identifier: Apache-2.0 */
/* sample_of() takes from a record what a verdict may rest on; the functions add_..() bring one
   sample each into the facts. A value of lanes becomes a fact only if it is known for each lane of
   the port. */
#include "platform/dolm_ric/fall_facts.h"

#include "platform/dolm_ric/details_record.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <iterator>
#include <vector>

namespace board
{

/* The precision of docs/causes.md: hundredths are finer than any module measures. */
static double hundredths(double value)
{
    return std::round(value * 100) / 100;
}

static double dbm_of(double milliwatts)
{
    return milliwatts > 0 ? std::max(hundredths(10 * std::log10(milliwatts)), causes::no_light)
                          : causes::no_light;
}

static causes::number known(const dolm_ric_details_value &its)
{
    return its.state == DOLM_RIC_VALUE_VALID ? causes::number(its.value) : std::nullopt;
}

static module_sample::lane read_lane(const dolm_ric_details_lane &from)
{
    module_sample::lane its;
    for (size_t kind = 0; kind < DOLM_RIC_LANE_VALUES; kind++)
        if (const auto value = known(from.value[kind]))
            its.value[kind] = static_cast<float>(*value);
    for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++) {
        const dolm_ric_details_condition &signal = from.signal[kind];
        const bool is_known = signal.state == DOLM_RIC_VALUE_VALID;
        its.known = static_cast<uint8_t>(its.known | is_known << kind);
        its.on = static_cast<uint8_t>(its.on | (is_known && signal.on != 0) << kind);
    }
    return its;
}

/* Finds the worst bit error ratio of the received signal, and the limit of that ratio. */
static void take_errors(const dolm_ric_details_record &record, module_sample &its)
{
    for (uint32_t row = 0; row < std::min<uint32_t>(record.vdm_count, DOLM_RIC_DETAILS_VDM);
         row++) {
        const dolm_ric_details_vdm &one = record.vdm[row];
        if (one.kind != DOLM_RIC_VDM_PRE_FEC_BER_CURRENT || one.side != DOLM_RIC_SIDE_MEDIA ||
            one.state != DOLM_RIC_VALUE_VALID || one.value < its.errors.value_or(0))
            continue;
        its.errors = one.value;
        its.errors_limit = one.limits.state == DOLM_RIC_VALUE_VALID && one.limits.high_alarm > 0
                               ? causes::number(one.limits.high_alarm)
                               : std::nullopt;
    }
}

static int64_t oldest_of(const dolm_ric_details_lane &lane)
{
    int64_t oldest = INT64_MAX;
    for (const dolm_ric_details_value &one : lane.value)
        oldest = std::min(oldest, one.state == DOLM_RIC_VALUE_VALID ? one.read_at : INT64_MAX);
    return oldest;
}

int64_t values_read_at(const dolm_ric_details_record &record)
{
    int64_t last = 0;
    for (const dolm_ric_details_value &one : record.module_value)
        last = std::max(last, one.state == DOLM_RIC_VALUE_VALID ? one.read_at : 0);
    for (uint32_t lane = 0; lane < record.lane_count; lane++)
        for (const dolm_ric_details_value &one : record.lane[lane].value)
            last = std::max(last, one.state == DOLM_RIC_VALUE_VALID ? one.read_at : 0);
    return last;
}

const char *serial_in(const dolm_ric_details_record &record)
{
    return record.identity.state == DOLM_RIC_VALUE_VALID ? record.identity.serial : "";
}

module_sample sample_of(const dolm_ric_details_record &record)
{
    module_sample its;
    its.at = its.lanes_at = values_read_at(record);
    its.presence = record.presence;
    set_text(its.serial, sizeof(its.serial), serial_in(record), sizeof(its.serial));
    if (record.identity.state == DOLM_RIC_VALUE_VALID) {
        its.module_state = record.identity.module_state;
        its.medium = record.identity.medium;
    }
    its.temperature = known(record.module_value[DOLM_RIC_TEMPERATURE]);
    const dolm_ric_details_limits &heat = record.module_limits[DOLM_RIC_TEMPERATURE],
                                  &light = record.lane_limits[DOLM_RIC_RX_POWER];
    if (heat.state == DOLM_RIC_VALUE_VALID)
        its.temperature_high_alarm = heat.high_alarm;
    if (light.state == DOLM_RIC_VALUE_VALID && light.low_alarm > 0)
        its.rx_low_alarm = dbm_of(light.low_alarm);
    for (uint32_t lane = 0; lane < record.lane_count; lane++)
        if ((record.own_lanes >> lane & 1) != 0) {
            its.lane_of[its.lane_count++] = read_lane(record.lane[lane]);
            its.lanes_at = std::min(its.lanes_at, oldest_of(record.lane[lane]));
        }
    take_errors(record, its);
    return its;
}

void forget_values(module_sample &old)
{
    module_sample kept;
    kept.presence = old.presence;
    kept.medium = old.medium;
    memcpy(kept.serial, old.serial, sizeof(kept.serial));
    old = kept;
}

static causes::by_lane values_of(const module_sample &from, uint32_t kind)
{
    std::vector<double> list;
    for (const module_sample::lane &lane : from.lanes()) {
        if (lane.value[kind] < 0)
            return std::nullopt;
        list.push_back(kind == DOLM_RIC_TX_BIAS ? hundredths(lane.value[kind])
                                                : dbm_of(lane.value[kind]));
    }
    return list.empty() ? std::nullopt : causes::by_lane(list);
}

static causes::by_lane signals_of(const module_sample &from, uint32_t kind)
{
    std::vector<double> list;
    for (const module_sample::lane &lane : from.lanes()) {
        if ((lane.known >> kind & 1) == 0)
            return std::nullopt;
        list.push_back(lane.on >> kind & 1);
    }
    return list.empty() ? std::nullopt : causes::by_lane(list);
}

causes::number weakest_light(const module_sample &from)
{
    if (from.lane_count == 0)
        return std::nullopt;
    const auto light = [](const module_sample::lane &its) { return its.value[DOLM_RIC_RX_POWER]; };
    const float least = light(std::ranges::min(from.lanes(), {}, light));
    return least < 0 ? std::nullopt : causes::number(dbm_of(least));
}

void light_trail::add(int64_t at, double dbm)
{
    readings_[next_] = {at, dbm};
    next_ = (next_ + 1) % most;
    count_ = std::min(count_ + 1, most);
}

void light_trail::clear()
{
    count_ = 0;
}

/* Compares the last level with the highest one before it. */
void light_trail::add_loss(int64_t since, int64_t before, causes::facts &seen) const
{
    constexpr double ns = 1e9;
    const reading *last = nullptr, *best = nullptr;
    size_t looks = 0;
    for (size_t back = 1; back <= count_; back++) {
        const reading &one = readings_[(next_ + most - back) % most];
        if (one.at > before || one.at < since)
            continue;
        looks++;
        if (last == nullptr)
            last = &one;
        if (best == nullptr || one.dbm > best->dbm)
            best = &one;
    }
    if (looks < 2)
        return;
    seen.rx_lost_before = hundredths(best->dbm - last->dbm);
    seen.lost_in_s = hundredths(static_cast<double>(last->at - best->at) / ns);
}

static causes::text state_text(uint32_t state)
{
    static constexpr const char *texts[] = {nullptr, "low power", "starting",
                                            "ready", "low power", "fault"};
    if (state >= std::size(texts) || texts[state] == nullptr)
        return std::nullopt;
    return texts[state];
}

static causes::flag is_there(uint32_t presence)
{
    switch (presence) {
    case DOLM_RIC_PRESENCE_READY:
        return true;
    case DOLM_RIC_PRESENCE_EMPTY:
        return false;
    default:
        return std::nullopt;
    }
}

static causes::text serial_of(const module_sample &from)
{
    return *from.serial == '\0' ? std::nullopt : causes::text(from.serial);
}

void add_look_before(const module_sample &before, causes::facts &seen)
{
    seen.present_before = is_there(before.presence);
    seen.serial_before = serial_of(before);
    seen.state_before = state_text(before.module_state);
    seen.temperature_before =
        before.temperature ? causes::number(hundredths(*before.temperature)) : std::nullopt;
    seen.temperature_high_alarm = before.temperature_high_alarm;
    seen.rx_low_alarm = before.rx_low_alarm;
    seen.rx_before = values_of(before, DOLM_RIC_RX_POWER);
    seen.tx_before = values_of(before, DOLM_RIC_TX_POWER);
    seen.bias_before = values_of(before, DOLM_RIC_TX_BIAS);
    seen.tx_fault_before = signals_of(before, DOLM_RIC_TX_FAULT);
    seen.tx_off_before = signals_of(before, DOLM_RIC_TX_OFF);
    seen.errors_before = before.errors;
    seen.errors_limit = before.errors_limit;
    if (before.medium == DOLM_RIC_MEDIUM_LIGHT)
        seen.medium = "light";
    if (before.medium == DOLM_RIC_MEDIUM_COPPER)
        seen.medium = "copper";
}

/* Only the first look decides whether a module was present. If a later look finds a module in an
   empty port, it gives the serial number; its light is no evidence for the fall. */
bool add_look_after(const module_sample &after, double age, bool is_down, causes::facts &seen)
{
    const bool is_first = !seen.present_after;
    if (is_first)
        seen.present_after = is_there(after.presence);
    const bool has_serial = !seen.serial_after && serial_of(after);
    if (has_serial) {
        seen.serial_after = after.serial;
        seen.serial_after_s = hundredths(age);
    }
    const bool is_the_same = seen.present_after.value_or(false) &&
                             seen.serial_before.value_or("") == seen.serial_after.value_or("");
    if (!is_first || !is_the_same || !is_down)
        return has_serial || (is_first && seen.present_after);
    seen.state_after = state_text(after.module_state);
    seen.rx_after = values_of(after, DOLM_RIC_RX_POWER);
    seen.tx_after = values_of(after, DOLM_RIC_TX_POWER);
    seen.bias_after = values_of(after, DOLM_RIC_TX_BIAS);
    seen.rx_los_after = signals_of(after, DOLM_RIC_RX_LOS);
    seen.rx_lol_after = signals_of(after, DOLM_RIC_RX_LOL);
    seen.tx_los_after = signals_of(after, DOLM_RIC_TX_LOS);
    seen.tx_fault_after = signals_of(after, DOLM_RIC_TX_FAULT);
    seen.tx_off_after = signals_of(after, DOLM_RIC_TX_OFF);
    return true;
}

bool add_look_again(const module_sample &again, causes::facts &seen)
{
    if (serial_of(again) != seen.serial_before)
        return false;
    seen.rx_again = values_of(again, DOLM_RIC_RX_POWER);
    if (again.errors)
        seen.errors_again = again.errors;
    return seen.rx_again || again.errors;
}

static causes::text fec_text(uint32_t fec)
{
    static constexpr const char *texts[] = {nullptr, "none", "BASE-R", "RS", "LLRS"};
    if (fec >= std::size(texts) || texts[fec] == nullptr)
        return std::nullopt;
    return texts[fec];
}

static causes::number if_known(uint32_t value)
{
    return value != 0 ? causes::number(value) : std::nullopt;
}

void add_link_before(const dolm_ric_details_link &before, causes::facts &seen)
{
    seen.speed_before = if_known(before.speed);
    seen.lanes_before = if_known(before.lanes);
    seen.fec_before = fec_text(before.fec);
    if (before.autoneg != DOLM_RIC_SWITCH_UNKNOWN)
        seen.negotiates = before.autoneg == DOLM_RIC_SWITCH_UP;
}

void add_link_after(const dolm_ric_details_link &after, causes::facts &seen)
{
    seen.speed_after = if_known(after.speed);
    seen.lanes_after = if_known(after.lanes);
    seen.fec_after = fec_text(after.fec);
}

std::string device_of(const std::string &parent)
{
    const size_t dot = parent.find_last_of('.');
    const bool is_pci = dot != std::string::npos && dot + 2 == parent.size() &&
                        isdigit(static_cast<unsigned char>(parent.back())) != 0 &&
                        std::ranges::count(parent, ':') == 2;
    return is_pci ? parent.substr(0, dot) : parent;
}

} // namespace board
