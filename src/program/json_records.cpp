/* SPDX-License-Identifier: Apache-2.0 */
/* One function for each record, which writes its members in the order in which they are shown. */
#include "program/json_records.h"

#include "program/clock.h"
#include "program/units.h"
#include "program/words.h"
#include "util/escape.h"

#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

/* The whole field, with all its blanks. */
template <size_t width>
static std::string all_bytes(const char (&field)[width])
{
    return escape(std::string_view(field, strnlen(field, width)));
}

/* The key of a measurement: "tx_power" for "tx power". */
static std::string key_of(uint32_t measurement)
{
    std::string key = tesk_client_text(TESK_CLIENT_TEXT_MEASUREMENT, measurement);
    for (char &letter : key)
        letter = letter == ' ' ? '_' : letter;
    return key;
}

/* All levels as the server sends them, also "not measured" and the like. */
static json_object levels_to_json(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS])
{
    json_object levels;
    for (uint32_t i = 0; i < TESK_CLIENT_MEASUREMENTS; i++)
        levels[key_of(i)] = tesk_client_text(TESK_CLIENT_TEXT_LEVEL, level[i]);
    return levels;
}

template <typename value_type>
static json_object value_or_null(bool has, value_type value)
{
    return has ? json_object(value) : json_object(nullptr);
}

/* Rounded to hundredths, which is precise enough for people. */
static json_object dbm_or_null(bool has, uint32_t microwatts)
{
    const auto value = has ? to_dbm(microwatts) : std::nullopt;
    return value_or_null(value.has_value(), std::round(100 * value.value_or(0)) / 100);
}

static json_object speed_or_null(uint32_t tenths)
{
    return value_or_null(tenths != 0, tenths / 10.0);
}

/* One word for a module's state in all records. */
static const char *module_word(uint32_t type)
{
    return type == module_not_ready ? "not ready"
                                    : tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, type);
}

json_object to_json(const tesk_client_sfp_info &info)
{
    return {{"event", "sfp"},
            {"port", info.port_no},
            {"module", module_word(info.type)},
            {"speed_gbps", speed_or_null(info.speed)},
            {"vendor", all_bytes(info.vendor_name)},
            {"part", all_bytes(info.vendor_pn)},
            {"revision", all_bytes(info.vendor_rev)},
            {"serial", all_bytes(info.vendor_sn)},
            {"date_code", all_bytes(info.date_code)},
            {"product", all_bytes(info.morvaine_rdh)},
            {"product_ext", all_bytes(info.morvaine_rdh_ext)}};
}

json_object to_json(const tesk_client_port_status &status)
{
    return {{"event", "status"},
            {"port", status.port_no},
            {"link", tesk_client_text(TESK_CLIENT_TEXT_LINK, status.link)},
            {"speed_gbps", speed_or_null(status.link_speed)},
            {"module", module_word(status.sfp_type)},
            {"levels", levels_to_json(status.level)},
            {"environment", tesk_client_text(TESK_CLIENT_TEXT_ENVIRONMENT, status.environment)}};
}

json_object to_json(const tesk_client_pm &pm)
{
    json_object object = {
        {"event", "pm"},
        {"port", pm.port_no},
        {"module", module_word(pm.sfp_type)},
        {"tx_power_mw", value_or_null(pm.has_tx_power, pm.tx_power / 1000.0)},
        {"tx_power_dbm", dbm_or_null(pm.has_tx_power, pm.tx_power)},
        {"rx_power_mw", value_or_null(pm.has_rx_power, pm.rx_power / 1000.0)},
        {"rx_power_dbm", dbm_or_null(pm.has_rx_power, pm.rx_power)},
        {"temperature_c", value_or_null(pm.has_temperature, pm.temperature / 10.0)},
        {"voltage_v", value_or_null(pm.has_voltage, pm.voltage / 10000.0)},
        {"tx_bias_ma", value_or_null(pm.has_tx_bias, pm.tx_bias / 100.0)},
        {"loss_of_signal", value_or_null(pm.has_loss_of_signal, pm.loss_of_signal)},
        {"loss_of_frame", value_or_null(pm.has_loss_of_frame, pm.loss_of_frame)}};
    /* value_or_null doesn't work here: its braces would nest the array in another one. */
    object["bit_errors"] = pm.has_bit_errors ? json_object(pm.bit_errors) : json_object(nullptr);
    return object;
}

json_object to_json(const tesk_client_history_record &record, tesk_client_history_kind kind)
{
    json_object object = {{"time", iso_time(record.time_us)}};
    switch (kind) {
    case TESK_CLIENT_HISTORY_PORT_STATUS:
        object["event"] = "status";
        object["port"] = record.port_no;
        object["state"] = tesk_client_text(TESK_CLIENT_TEXT_PORT_STATE, record.port_state);
        object["filter_level"] = record.filter_level;
        object["levels"] = levels_to_json(record.level);
        break;
    case TESK_CLIENT_HISTORY_SFP_INFO:
        object["event"] = "sfp";
        object["port"] = record.port_no;
        object["presence"] = tesk_client_text(TESK_CLIENT_TEXT_PRESENCE, record.presence);
        break;
    case TESK_CLIENT_HISTORY_ACTIONS:
        object["event"] = "action";
        object["port"] = record.port_no;
        object["action"] = tesk_client_text(TESK_CLIENT_TEXT_ACTION, record.action);
        object["client_id"] = record.client_id;
        object["conn_ref"] = record.conn_ref;
        break;
    }
    return object;
}

json_object text_or_null(const std::string &text)
{
    return text.empty() ? json_object(nullptr) : json_object(text);
}

std::string to_line(const json_object &object)
{
    return object.dump(-1, ' ', false, json_object::error_handler_t::replace);
}
