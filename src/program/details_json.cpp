/* SPDX-License-Identifier: Apache-2.0 */
/* Keys are the texts of the codes, with '_' for each character that is no letter and no digit, so
   that each code is named in one place. */
#include "program/details_json.h"

#include "util/escape.h"

#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>

static const json_object null(nullptr);

static std::string key_of(tesk_details_enumeration enumeration, uint32_t code)
{
    std::string key = tesk_details_text(enumeration, code);
    for (char &letter : key)
        letter = letter == ' ' || letter == '-' ? '_' : letter;
    return key;
}

static json_object number(double value)
{
    return std::isfinite(value) ? json_object(value) : null;
}

static json_object positive(double value)
{
    return value > 0 ? number(value) : null;
}

static json_object positive(uint64_t value)
{
    return value > 0 ? json_object(value) : null;
}

template <size_t width>
static json_object text(const char (&field)[width])
{
    const std::string_view found(field, strnlen(field, width));
    return found.empty() ? null : json_object(escape(found));
}

static json_object age(int64_t at, int64_t now)
{
    return at > 0 ? number(std::round(static_cast<double>(now - at) / 1e6) / 1e3) : null;
}

static json_object seconds(int64_t duration)
{
    return number(static_cast<double>(duration) / 1e9);
}

/* All enumerations that are converted here have "not known" as code 0. */
static json_object code_or_null(tesk_details_enumeration enumeration, uint32_t code)
{
    return code != 0 ? json_object(tesk_details_text(enumeration, code)) : null;
}

static json_object limits_to_json(const dolm_ric_details_limits &limits)
{
    json_object object = {{"state", tesk_details_text(TESK_DETAILS_TEXT_STATE, limits.state)}};
    const bool has = limits.state == DOLM_RIC_VALUE_VALID;
    object["low_alarm"] = has ? number(limits.low_alarm) : null;
    object["low_warning"] = has ? number(limits.low_warning) : null;
    object["high_warning"] = has ? number(limits.high_warning) : null;
    object["high_alarm"] = has ? number(limits.high_alarm) : null;
    return object;
}

/* Flags that were never raised are left out. */
static json_object flags_to_json(const dolm_ric_details_flag (&flags)[DOLM_RIC_FLAGS], int64_t now)
{
    json_object object = json_object::object();
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
        if (const dolm_ric_details_flag &flag = flags[kind]; flag.count > 0)
            object[key_of(TESK_DETAILS_TEXT_FLAG, kind)] = {
                {"count", flag.count},
                {"first_age_s", age(flag.first_at, now)},
                {"last_age_s", age(flag.last_at, now)}};
    return object;
}

static json_object value_to_json(const dolm_ric_details_value &its, int64_t now)
{
    const bool has = its.state == DOLM_RIC_VALUE_VALID;
    json_object object = {{"value", has ? number(its.value) : null}};
    object["state"] = tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state);
    object["grade"] = code_or_null(TESK_DETAILS_TEXT_GRADE, its.grade);
    object["age_s"] = age(its.read_at, now);
    object["flags"] = flags_to_json(its.flag, now);
    return object;
}

static json_object condition_to_json(const dolm_ric_details_condition &its, int64_t now)
{
    const bool has = its.state == DOLM_RIC_VALUE_VALID;
    json_object object = {{"state", tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state)}};
    object["on"] = has ? json_object(its.on != 0) : null;
    object["count"] = its.count;
    object["first_age_s"] = age(its.first_at, now);
    object["last_age_s"] = age(its.last_at, now);
    return object;
}

static json_object application_to_json(const dolm_ric_details_application &its)
{
    return {{"host", text(its.host)},
            {"host_code", its.host_code},
            {"host_lanes", its.host_lanes},
            {"media", text(its.media)},
            {"media_code", its.media_code},
            {"media_lanes", its.media_lanes},
            {"selected_lanes", its.selected_lanes}};
}

static json_object lengths_to_json(const double (&lengths)[DOLM_RIC_LENGTHS])
{
    json_object object = json_object::object();
    for (uint32_t kind = 0; kind < DOLM_RIC_LENGTHS; kind++)
        if (lengths[kind] > 0)
            object[key_of(TESK_DETAILS_TEXT_LENGTH, kind)] = number(lengths[kind]);
    return object;
}

static json_object revision_or_null(uint8_t revision)
{
    return revision != 0 ? json_object(fmt::format("{}.{}", revision >> 4, revision & 15)) : null;
}

static json_object oui_or_null(const uint8_t (&oui)[4])
{
    const bool has = oui[0] != 0 || oui[1] != 0 || oui[2] != 0;
    return has ? json_object(fmt::format("{:02x}:{:02x}:{:02x}", oui[0], oui[1], oui[2])) : null;
}

static json_object identity_to_json(const dolm_ric_details_identity &its, int64_t now)
{
    json_object object = {{"state", tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state)}};
    object["age_s"] = age(its.read_at, now);
    object["family"] = code_or_null(TESK_DETAILS_TEXT_FAMILY, its.family);
    object["medium"] = code_or_null(TESK_DETAILS_TEXT_MEDIUM, its.medium);
    object["form_factor"] = text(its.form_factor);
    object["connector"] = text(its.connector);
    object["encoding"] = text(its.encoding);
    object["technology"] = text(its.technology);
    object["compliance"] = json_object::array();
    for (const auto &name : std::span(its.compliance).first(its.compliance_count))
        object["compliance"].push_back(text(name));
    object["vendor"] = text(its.vendor);
    object["oui"] = oui_or_null(its.oui);
    object["part"] = text(its.part);
    object["revision"] = text(its.revision);
    object["serial"] = text(its.serial);
    object["date_code"] = text(its.date);
    object["power_class"] = positive(uint64_t{its.power_class});
    object["max_power_w"] = positive(its.max_power);
    object["bit_rate_gbps"] = positive(its.bit_rate);
    object["wavelength_nm"] = positive(its.wavelength);
    object["length_m"] = lengths_to_json(its.length);
    object["cmis_revision"] = revision_or_null(its.cmis_revision);
    object["firmware"] = text(its.firmware);
    object["inactive_firmware"] = text(its.inactive_firmware);
    object["module_state"] = code_or_null(TESK_DETAILS_TEXT_MODULE_STATE, its.module_state);
    object["fault_cause"] = code_or_null(TESK_DETAILS_TEXT_FAULT_CAUSE, its.fault_cause);
    object["applications"] = json_object::array();
    for (const auto &one : std::span(its.application).first(its.application_count))
        object["applications"].push_back(application_to_json(one));
    return object;
}

static json_object link_to_json(const dolm_ric_details_link &its, int64_t now)
{
    json_object object = {{"state", tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state)}};
    object["interface"] = text(its.interface);
    object["admin"] = code_or_null(TESK_DETAILS_TEXT_SWITCH, its.admin);
    object["oper"] = code_or_null(TESK_DETAILS_TEXT_SWITCH, its.oper);
    object["speed_mbps"] = positive(uint64_t{its.speed});
    object["duplex"] = code_or_null(TESK_DETAILS_TEXT_DUPLEX, its.duplex);
    const bool knows_autoneg = its.autoneg != DOLM_RIC_SWITCH_UNKNOWN;
    object["autoneg"] = knows_autoneg ? json_object(its.autoneg == DOLM_RIC_SWITCH_UP) : null;
    object["lanes"] = positive(uint64_t{its.lanes});
    object["fec"] = code_or_null(TESK_DETAILS_TEXT_FEC, its.fec);
    object["falls"] = its.falls;
    object["rises"] = its.rises;
    object["changed_age_s"] = age(its.changed_at, now);
    return object;
}

static json_object cost_to_json(const dolm_ric_details_cost &its, int64_t now)
{
    json_object errors = json_object::array();
    for (const dolm_ric_details_error &row : its.error)
        if (row.error != 0)
            errors.push_back({{"error", row.error > 0 ? strerrorname_np(row.error) : "other"},
                              {"count", row.count}});
    json_object object = {{"reads", its.reads}, {"bytes", its.bytes}, {"failures", its.failures}};
    object["errors"] = std::move(errors);
    object["last_sweep_s"] = seconds(its.last_sweep);
    object["longest_sweep_s"] = seconds(its.longest_sweep);
    object["longest_read_s"] = seconds(its.longest_read);
    object["total_s"] = seconds(its.total);
    object["period_s"] = its.period > 0 ? seconds(its.period) : null;
    object["dropped"] = its.dropped;
    object["lease_left_s"] = its.lease_until > now ? seconds(its.lease_until - now) : null;
    return object;
}

static json_object module_values_to_json(const dolm_ric_details_record &record, int64_t now)
{
    json_object values;
    for (uint32_t kind = 0; kind < DOLM_RIC_MODULE_VALUES; kind++) {
        json_object value = value_to_json(record.module_value[kind], now);
        value["limits"] = limits_to_json(record.module_limits[kind]);
        values[key_of(TESK_DETAILS_TEXT_MODULE_VALUE, kind)] = std::move(value);
    }
    return values;
}

static json_object lanes_to_json(const dolm_ric_details_record &record, int64_t now)
{
    json_object lanes = json_object::array();
    for (uint32_t number = 0; number < record.lane_count; number++) {
        const dolm_ric_details_lane &its = record.lane[number];
        json_object lane = {{"lane", number}};
        lane["own"] = (record.own_lanes >> number & 1) != 0;
        for (uint32_t kind = 0; kind < DOLM_RIC_LANE_VALUES; kind++)
            lane[key_of(TESK_DETAILS_TEXT_LANE_VALUE, kind)] = value_to_json(its.value[kind], now);
        for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++)
            lane[key_of(TESK_DETAILS_TEXT_SIGNAL, kind)] = condition_to_json(its.signal[kind], now);
        lanes.push_back(std::move(lane));
    }
    return lanes;
}

static json_object vdm_to_json(const dolm_ric_details_vdm &its, int64_t now)
{
    const bool has = its.state == DOLM_RIC_VALUE_VALID;
    json_object object = {{"code", its.code}};
    object["kind"] = key_of(TESK_DETAILS_TEXT_VDM_KIND, its.kind);
    object["side"] = tesk_details_text(TESK_DETAILS_TEXT_SIDE, its.side);
    object["lane"] = its.lane != 0xff ? json_object(its.lane) : null;
    object["value"] = has ? number(its.value) : null;
    object["state"] = tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state);
    object["grade"] = code_or_null(TESK_DETAILS_TEXT_GRADE, its.grade);
    object["age_s"] = age(its.read_at, now);
    json_object raised = json_object::array();
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
        if (its.raised >> kind & 1)
            raised.push_back(key_of(TESK_DETAILS_TEXT_FLAG, kind));
    if ((its.raised & DOLM_RIC_VDM_FLAGS_UNKNOWN) != 0)
        raised = null;
    object["raised"] = std::move(raised);
    object["limits"] = limits_to_json(its.limits);
    return object;
}

json_object to_json(const dolm_ric_details_record &record, int64_t now)
{
    json_object object = {{"port", record.port}};
    object["presence"] = tesk_details_text(TESK_DETAILS_TEXT_PRESENCE, record.presence);
    object["reason"] = record.presence_code != DOLM_RIC_VALUE_VALID
                           ? code_or_null(TESK_DETAILS_TEXT_STATE, record.presence_code)
                           : null;
    object["inserted_age_s"] = age(record.inserted_at, now);
    object["doubts"] = json_object::array();
    for (const auto &doubt : std::span(record.doubt).first(record.doubt_count))
        object["doubts"].push_back(text(doubt));
    object["link"] = link_to_json(record.link, now);
    object["identity"] = identity_to_json(record.identity, now);
    object["module"] = module_values_to_json(record, now);
    object["rx_power_kind"] = code_or_null(TESK_DETAILS_TEXT_POWER_KIND, record.power_kind);
    json_object limits;
    for (uint32_t kind = 0; kind < DOLM_RIC_LANE_VALUES; kind++)
        limits[key_of(TESK_DETAILS_TEXT_LANE_VALUE, kind)] =
            limits_to_json(record.lane_limits[kind]);
    object["lane_limits"] = std::move(limits);
    object["lanes_state"] = tesk_details_text(TESK_DETAILS_TEXT_STATE, record.lanes_state);
    object["lanes"] = lanes_to_json(record, now);
    object["vdm_state"] = tesk_details_text(TESK_DETAILS_TEXT_STATE, record.vdm_state);
    object["vdm"] = json_object::array();
    for (const auto &row : std::span(record.vdm).first(record.vdm_count))
        object["vdm"].push_back(vdm_to_json(row, now));
    object["vdm_left_out"] = record.vdm_left_out;
    object["cost"] = cost_to_json(record.cost, now);
    return object;
}
