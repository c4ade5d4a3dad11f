/* SPDX-License-Identifier: Apache-2.0 */
/* A simulated module has one lane, or those for which values were set. A lane without a value of
   its own has the module's value. A module raises a flag in each reading with a value beyond the
   limit; here each change of the port counts as a reading. */
#include "platform/dolm_ric/simulator/simulated_details.h"

#include "platform/dolm_ric/details_record.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace board
{
namespace
{

using record_type = dolm_ric_details_record;

/* A measurement of the board's records: its bit in diag_cap, its five words, and how many of the
   board's units are one unit of the details. */
struct diag_value {
    uint32_t capability;
    double low_alarm, low_warning, high_warning, high_alarm, value;
    double unit;
};

} // namespace

static void take_value(const diag_value &from, bool has_diagnostics, int64_t now,
                       dolm_ric_details_value &to, dolm_ric_details_limits &limits)
{
    const bool has = has_diagnostics && from.capability != 0;
    to.state = limits.state = has ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_NOT_SUPPORTED;
    to.value = has ? from.value / from.unit : 0;
    limits.low_alarm = has ? from.low_alarm / from.unit : 0;
    limits.low_warning = has ? from.low_warning / from.unit : 0;
    limits.high_warning = has ? from.high_warning / from.unit : 0;
    limits.high_alarm = has ? from.high_alarm / from.unit : 0;
    to.grade = has ? grade_value(to.value, limits, true) : uint32_t{DOLM_RIC_GRADE_NONE};
    if (!has)
        return;
    to.read_at = now;
    const bool is_raised[] = {to.value<limits.low_warning, to.value> limits.high_warning,
                              to.value<limits.low_alarm, to.value> limits.high_alarm};
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++) {
        if (!is_raised[kind])
            continue;
        dolm_ric_details_flag &flag = to.flag[kind];
        flag.first_at = flag.count++ == 0 ? now : flag.first_at;
        flag.last_at = now;
    }
}

static uint32_t lanes_of(const module_values &module)
{
    return module.has_diagnostics != 0 ? std::max(module.lane_count, 1U) : 0;
}

static bool is_switched_off(const lane_values &its)
{
    return (its.signals >> DOLM_RIC_TX_OFF & 1) != 0;
}

/* Fills in one kind of measurement, such as the bias, for each lane. */
static void take_lanes(const diag_value &of_module, uint32_t lane_values::*own, uint32_t kind,
                       const module_values &module, int64_t now, record_type &record)
{
    for (uint32_t lane = 0; lane < lanes_of(module); lane++) {
        diag_value value = of_module;
        if (const uint32_t set = module.lanes[lane].*own; set != lane_values::as_module)
            value.value = set;
        dolm_ric_details_value &to = record.lane[lane].value[kind];
        take_value(value, module.has_diagnostics != 0, now, to, record.lane_limits[kind]);
        if (is_switched_off(module.lanes[lane]) && kind != DOLM_RIC_RX_POWER)
            to.grade = DOLM_RIC_GRADE_OFF;
    }
}

static void add_vdm(uint32_t kind, uint32_t lane, double value, int64_t now, record_type &record)
{
    if (record.vdm_count == DOLM_RIC_DETAILS_VDM)
        return;
    dolm_ric_details_vdm &row = record.vdm[record.vdm_count++];
    row = {};
    row.kind = static_cast<uint8_t>(kind);
    row.side = DOLM_RIC_SIDE_MEDIA;
    row.lane = static_cast<uint8_t>(lane);
    row.state = DOLM_RIC_VALUE_VALID;
    row.raised = DOLM_RIC_VDM_FLAGS_UNKNOWN;
    row.read_at = now;
    row.value = value;
    row.limits.state = DOLM_RIC_VALUE_NOT_SUPPORTED;
}

static void take_vdm(const module_values &module, int64_t now, record_type &record)
{
    record.vdm_count = 0;
    for (uint32_t lane = 0; lane < module.lane_count; lane++) {
        const lane_values &its = module.lanes[lane];
        if (its.snr != 0)
            add_vdm(DOLM_RIC_VDM_SNR, lane, its.snr / 100.0, now, record);
        if (its.pre_fec_ber != 0)
            add_vdm(DOLM_RIC_VDM_PRE_FEC_BER_CURRENT, lane,
                    std::pow(10, -static_cast<double>(its.pre_fec_ber) / 1000), now, record);
    }
    record.vdm_state = record.vdm_count != 0 ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_NOT_SUPPORTED;
}

static void take_values(const module_values &module, int64_t now, record_type &record)
{
    const dolm_ric_module_diag &its = module.diag;
    const bool has = module.has_diagnostics != 0;
    set_lane_count(lanes_of(module), record);
    const auto part = [&](uint32_t bit, auto low_alarm, auto low_warning, auto high_warning,
                          auto high_alarm, auto value, double unit) {
        return diag_value{its.diag_cap & bit,
                          static_cast<double>(low_alarm),
                          static_cast<double>(low_warning),
                          static_cast<double>(high_warning),
                          static_cast<double>(high_alarm),
                          static_cast<double>(value),
                          unit};
    };
    take_value(part(DOLM_SFP_DIAGCAP_TEMP, its.temperature_low_alarm, its.temperature_low_warn,
                    its.temperature_high_warn, its.temperature_high_alarm, its.temperature, 1e3),
               has, now, record.module_value[DOLM_RIC_TEMPERATURE],
               record.module_limits[DOLM_RIC_TEMPERATURE]);
    take_value(part(DOLM_SFP_DIAGCAP_VOLTAGE, its.voltage_low_alarm, its.voltage_low_warn,
                    its.voltage_high_warn, its.voltage_high_alarm, its.voltage, 1e6),
               has, now, record.module_value[DOLM_RIC_VOLTAGE],
               record.module_limits[DOLM_RIC_VOLTAGE]);
    take_lanes(part(DOLM_SFP_DIAGCAP_TXBIAS, its.txbias_low_alarm, its.txbias_low_warn,
                    its.txbias_high_warn, its.txbias_high_alarm, its.txbias, 1e3),
               &lane_values::tx_bias, DOLM_RIC_TX_BIAS, module, now, record);
    take_lanes(part(DOLM_SFP_DIAGCAP_TXPOWER, its.txpower_low_alarm, its.txpower_low_warn,
                    its.txpower_high_warn, its.txpower_high_alarm, its.txpower, 1e3),
               &lane_values::tx_power, DOLM_RIC_TX_POWER, module, now, record);
    take_lanes(part(DOLM_SFP_DIAGCAP_RXPOWER, its.rxpower_low_alarm, its.rxpower_low_warn,
                    its.rxpower_high_warn, its.rxpower_high_alarm, its.rxpower, 1e3),
               &lane_values::rx_power, DOLM_RIC_RX_POWER, module, now, record);
    for (const uint32_t kind : {DOLM_RIC_LASER_TEMPERATURE, DOLM_RIC_TEC_CURRENT})
        record.module_value[kind].state = record.module_limits[kind].state =
            DOLM_RIC_VALUE_NOT_SUPPORTED;
    record.own_lanes = (1U << record.lane_count) - 1;
    record.lanes_state = has ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_NOT_SUPPORTED;
    take_vdm(module, now, record);
}

static void take_condition(bool is_on, int64_t now, dolm_ric_details_condition &to)
{
    to.state = DOLM_RIC_VALUE_VALID;
    if (is_on && to.on == 0) {
        to.count++;
        to.first_at = to.first_at != 0 ? to.first_at : now;
    }
    to.last_at = is_on ? now : to.last_at;
    to.on = is_on ? 1 : 0;
}

/* The module's status word has two conditions, which apply to all its lanes. A module without lanes
   of its own has no other conditions. */
static void take_signals(const module_values &module, int64_t now, record_type &record)
{
    const uint32_t status = module.status.status;
    const uint32_t of_all = ((status & 1) != 0 ? 1U << DOLM_RIC_RX_LOS : 0) |
                            ((status & 2) != 0 ? 1U << DOLM_RIC_TX_FAULT : 0);
    constexpr uint32_t known_to_all = 1U << DOLM_RIC_RX_LOS | 1U << DOLM_RIC_TX_FAULT;
    for (uint32_t lane = 0; lane < lanes_of(module); lane++)
        for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++) {
            dolm_ric_details_condition &to = record.lane[lane].signal[kind];
            if (module.lane_count != 0 || (known_to_all >> kind & 1) != 0)
                take_condition(((of_all | module.lanes[lane].signals) >> kind & 1) != 0, now, to);
            else
                to.state = DOLM_RIC_VALUE_NOT_SUPPORTED;
        }
}

static void take_identity(const module_values &module, int64_t now, dolm_ric_details_identity &to)
{
    const dolm_sfp_info &known = module.info.sfp;
    to.state = DOLM_RIC_VALUE_VALID;
    to.read_at = now;
    to.medium = known.sfp_connector == DOLM_SFP_CONNECTOR_LC     ? DOLM_RIC_MEDIUM_LIGHT
                : known.sfp_connector == DOLM_SFP_CONNECTOR_RJ45 ? DOLM_RIC_MEDIUM_COPPER
                                                                 : DOLM_RIC_MEDIUM_UNKNOWN;
    to.bit_rate = known.sfp_nom_bitrate / 10.0;
    set_text(to.vendor, sizeof(to.vendor), known.sfp_vendor_name, sizeof(known.sfp_vendor_name));
    memcpy(to.oui, known.sfp_vendor_oui, sizeof(known.sfp_vendor_oui));
    set_text(to.part, sizeof(to.part), known.sfp_vendor_pn, sizeof(known.sfp_vendor_pn));
    set_text(to.revision, sizeof(to.revision), known.sfp_vendor_rev, sizeof(known.sfp_vendor_rev));
    set_text(to.serial, sizeof(to.serial), known.sfp_vendor_sn, sizeof(known.sfp_vendor_sn));
    set_text(to.date, sizeof(to.date), known.sfp_date_code, sizeof(known.sfp_date_code));
}

/* The speed in Mbit/s. The codes with a name are in Gbit/s; other codes are in tenths of a
   Gbit/s. */
static uint32_t megabits_of(uint32_t code)
{
    const std::string word(name_of_value(field_kind::speed, code));
    if (!word.empty())
        return static_cast<uint32_t>(std::lround(1000 * strtod(word.c_str(), nullptr)));
    const uint32_t tenths = code & 0xffff;
    return code == DOLM_RIC_SPEED_CODE(tenths) ? 100 * tenths : 0;
}

static void take_link(const port_values &port, int64_t now, dolm_ric_details_link &link)
{
    const bool was_up = link.oper == DOLM_RIC_SWITCH_UP;
    const bool is_up = port.link_state == DOLM_RICRILINKSTATE_OPERATIONAL;
    const bool is_known = link.state == DOLM_RIC_VALUE_VALID;
    const uint32_t admin =
        port.link_state == DOLM_RICRILINKSTATE_STOPPED ? DOLM_RIC_SWITCH_DOWN : DOLM_RIC_SWITCH_UP;
    const uint32_t speed = is_up ? megabits_of(port.link_speed) : 0;
    if (is_known && (was_up != is_up || link.admin != admin || link.speed != speed))
        link.changed_at = now;
    link.falls += is_known && was_up && !is_up ? 1 : 0;
    link.rises += is_known && !was_up && is_up ? 1 : 0;
    link.state = DOLM_RIC_VALUE_VALID;
    link.admin = admin;
    link.oper = is_up ? DOLM_RIC_SWITCH_UP : DOLM_RIC_SWITCH_DOWN;
    link.speed = speed;
}

/* Whether the module's identity differs from the known one. */
static bool is_another_module(const module_values &module, const dolm_ric_details_identity &known)
{
    dolm_ric_details_identity its = {};
    take_identity(module, known.read_at, its);
    return known.state == DOLM_RIC_VALUE_VALID &&
           (strcmp(its.serial, known.serial) != 0 || strcmp(its.part, known.part) != 0 ||
            strcmp(its.vendor, known.vendor) != 0);
}

/* The distance to the nearer warning limit, which is negative beyond it. */
static int64_t margin_of(uint32_t value, uint32_t low_warning, uint32_t high_warning)
{
    return std::min(int64_t{value} - low_warning, int64_t{high_warning} - value);
}

/* `value` is the module's, for lanes without a value of their own. */
static uint32_t worst_of_lanes(const module_values &module, uint32_t lane_values::*own,
                               uint32_t value, uint32_t low_warning, uint32_t high_warning)
{
    std::optional<uint32_t> worst;
    for (uint32_t lane = 0; lane < module.lane_count; lane++) {
        const lane_values &its = module.lanes[lane];
        if (is_switched_off(its) && own != &lane_values::rx_power)
            continue;
        const uint32_t found = its.*own != lane_values::as_module ? its.*own : value;
        if (!worst || margin_of(found, low_warning, high_warning) <
                          margin_of(*worst, low_warning, high_warning))
            worst = found;
    }
    return worst.value_or(value);
}

dolm_ric_module_diag diagnostics_of(const module_values &module)
{
    dolm_ric_module_diag its = module.diag;
    its.txbias = worst_of_lanes(module, &lane_values::tx_bias, its.txbias, its.txbias_low_warn,
                                its.txbias_high_warn);
    its.txpower = worst_of_lanes(module, &lane_values::tx_power, its.txpower, its.txpower_low_warn,
                                 its.txpower_high_warn);
    its.rxpower = worst_of_lanes(module, &lane_values::rx_power, its.rxpower, its.rxpower_low_warn,
                                 its.rxpower_high_warn);
    return its;
}

void describe_port(const port_values &port, const module_values &module, int64_t now,
                   record_type &record)
{
    take_link(port, now, record.link);
    const bool is_inserted = (port.status & DOLM_RICRIPORT_MODINSERTED) != 0;
    if (!is_inserted || module.readable == 0) {
        forget_module(is_inserted ? DOLM_RIC_PRESENCE_NOT_READY : DOLM_RIC_PRESENCE_EMPTY,
                      is_inserted ? DOLM_RIC_VALUE_NO_ANSWER : DOLM_RIC_VALUE_EMPTY, record);
        return;
    }
    if (is_another_module(module, record.identity))
        forget_module(DOLM_RIC_PRESENCE_EMPTY, DOLM_RIC_VALUE_EMPTY, record);
    const bool is_ready = (port.status & DOLM_RICRIPORT_MODREADY) != 0;
    record.presence = is_ready ? DOLM_RIC_PRESENCE_READY : DOLM_RIC_PRESENCE_NOT_READY;
    record.presence_code = is_ready ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_NOT_READY;
    record.inserted_at = record.inserted_at != 0 ? record.inserted_at : now;
    take_identity(module, now, record.identity);
    take_values(module, now, record);
    take_signals(module, now, record);
}

} // namespace board
