/* SPDX-License-Identifier: Apache-2.0 */
/* A signal is copied into a wire record, converted to host byte order, and copied field by field
   into a public record, so that the public header doesn't change when the wire gets new fields. A
   signal may be longer than its record, as from a newer server; one that is shorter, or that counts
   more entries than it contains, is rejected.

   The history's signals are in host byte order: that protocol is for one machine only. */
#include "tesk_client/tesk_client_decode.h"

#include <algorithm>

/* The public enumerations have the server's values, so that they need no conversion. */
static_assert(TESK_CLIENT_SFP_UNKNOWN == static_cast<int>(TESK_SFP_UNKNOWN));
static_assert(TESK_CLIENT_LINK_OPERATIONAL == static_cast<int>(TESK_CONN_OPERATIONAL));
static_assert(TESK_CLIENT_LEVEL_NOT_SUPPORTED == static_cast<int>(TESK_FAULT_NOT_SUPPORTED));
static_assert(TESK_CLIENT_ENVIRONMENT_NOT_READ == static_cast<int>(TESK_ENV_NOT_READ));

/* A reserved word after the records. */
static constexpr size_t shell_trailer_size = 4;

/* The public texts are as wide as the server's. The server's texts may lack a terminator. */
template <size_t width>
static void copy_text(char (&to)[width], const char (&from)[width])
{
    std::memcpy(to, from, width);
    to[width - 1] = '\0';
}

static uint64_t to_microseconds(uint32_t seconds, uint32_t microseconds)
{
    return uint64_t{seconds} * 1'000'000 + microseconds;
}

/* Both records with levels use the same names. */
template <typename record_type>
static void copy_levels(uint32_t (&level)[TESK_CLIENT_MEASUREMENTS], const record_type &record)
{
    level[TESK_CLIENT_TX_POWER] = record.tx_power_fault_level;
    level[TESK_CLIENT_RX_POWER] = record.rx_power_fault_level;
    level[TESK_CLIENT_TX_BIAS] = record.tx_bias_fault_level;
    level[TESK_CLIENT_VCC] = record.vcc_fault_level;
    level[TESK_CLIENT_TEMPERATURE] = record.temp_fault_level;
    level[TESK_CLIENT_LASER_TEMPERATURE] = record.laser_temp_fault_level;
    level[TESK_CLIENT_TEC] = record.tec_fault_level;
}

static tesk_client_history_record to_history(const tesk_shell_port_status_record &record)
{
    tesk_client_history_record result{};
    result.time_us = to_microseconds(record.tv_sec, record.tv_usec);
    result.port_no = record.port_no;
    result.port_state = record.port_state;
    result.filter_level = record.bucket_level;
    copy_levels(result.level, record);
    return result;
}

static tesk_client_history_record to_history(const tesk_shell_sfp_info_record &record)
{
    tesk_client_history_record result{};
    result.time_us = to_microseconds(record.tv_sec, record.tv_usec);
    result.port_no = record.port_no;
    result.presence = record.sfp_presence;
    return result;
}

static tesk_client_history_record to_history(const tesk_shell_action_record &record)
{
    tesk_client_history_record result{};
    result.time_us = to_microseconds(record.tv_sec, record.tv_usec);
    result.port_no = record.port_no;
    result.action = record.action;
    result.client_id = record.client_id;
    result.conn_ref = record.conn_ref;
    return result;
}

static const char *bytes_at(const mbx_signal *signal, size_t offset)
{
    return reinterpret_cast<const char *>(signal) + offset;
}

/* The count is untrusted: the signal must be long enough for all of its records. */
template <typename record_type>
static std::optional<answer_payload> decode_history(const mbx_signal *signal)
{
    using shell_cfm = tesk_shell_cfm<record_type>;
    const size_t fixed = sizeof(shell_cfm) + shell_trailer_size;
    const size_t size = mbx_size(signal);
    if (size < fixed)
        return std::nullopt;
    uint32_t count = 0;
    std::memcpy(&count, bytes_at(signal, offsetof(shell_cfm, count)), sizeof(count));
    if (count > (size - fixed) / sizeof(record_type))
        return std::nullopt;
    answer_payload payload;
    for (size_t i = 0; i < count; i++) {
        record_type record;
        std::memcpy(&record, bytes_at(signal, sizeof(shell_cfm) + i * sizeof(record)),
                    sizeof(record));
        payload.history.push_back(to_history(record));
    }
    return payload;
}

static std::optional<answer_payload> decode_capabilities(const mbx_signal *signal)
{
    constexpr size_t entries = offsetof(tesk_get_capabilities_cfm, capabilities);
    const size_t size = mbx_size(signal);
    if (size < entries)
        return std::nullopt;
    uint32_t count = 0;
    std::memcpy(&count,
                bytes_at(signal, offsetof(tesk_get_capabilities_cfm, number_of_capabilities)),
                sizeof(count));
    tesk_swap_words(count);
    if (count > (size - entries) / sizeof(tesk_capability))
        return std::nullopt;
    answer_payload payload;
    for (size_t i = 0; i < count; i++) {
        tesk_capability capability;
        std::memcpy(&capability, bytes_at(signal, entries + i * sizeof(capability)),
                    sizeof(capability));
        tesk_swap_byte_order(capability);
        payload.capabilities.push_back({capability.capability_id, capability.capability_value});
    }
    return payload;
}

static std::optional<answer_payload> decode_pm(const mbx_signal *signal)
{
    std::optional<tesk_get_pm_counters_cfm> cfm = host_copy_of<tesk_get_pm_counters_cfm>(signal);
    if (!cfm)
        return std::nullopt;
    const tesk_pm_counters &from = cfm->counters;
    tesk_client_pm pm{};
    pm.port_no = from.port_no;
    pm.sfp_type = from.pm_sfp_type;
    /* A value that isn't present is 0, whatever the field contains. */
    auto take = [](uint32_t has, const auto &value, bool &flag, auto &to) {
        flag = has != 0;
        if (flag)
            to = value;
    };
    take(from.has_pm_loss_of_frame_count, from.pm_loss_of_frame_count, pm.has_loss_of_frame,
         pm.loss_of_frame);
    take(from.has_pm_loss_of_signal_count, from.pm_loss_of_signal_count, pm.has_loss_of_signal,
         pm.loss_of_signal);
    take(from.has_pm_sfp_tx_power, from.pm_sfp_tx_power, pm.has_tx_power, pm.tx_power);
    take(from.has_pm_sfp_rx_power, from.pm_sfp_rx_power, pm.has_rx_power, pm.rx_power);
    take(from.has_pm_sfp_temperature, from.pm_sfp_temperature, pm.has_temperature, pm.temperature);
    take(from.has_pm_sfp_voltage, from.pm_sfp_voltage, pm.has_voltage, pm.voltage);
    take(from.has_pm_sfp_tx_bias, from.pm_sfp_tx_bias, pm.has_tx_bias, pm.tx_bias);
    pm.has_bit_errors = from.has_pm_bit_error_count != 0;
    if (pm.has_bit_errors) {
        const uint32_t counts[] = {from.ber_level10_8, from.ber_level10_7, from.ber_level10_6,
                                   from.ber_level10_5, from.ber_level10_4, from.ber_level10_3};
        std::copy(std::begin(counts), std::end(counts), pm.bit_errors);
    }
    answer_payload payload;
    payload.pm = pm;
    return payload;
}

std::optional<tesk_client_sfp_info> decode_sfp_info(const mbx_signal *signal)
{
    std::optional<tesk_sfp_info_ind> ind = host_copy_of<tesk_sfp_info_ind>(signal);
    if (!ind)
        return std::nullopt;
    tesk_client_sfp_info info{};
    info.port_no = ind->info.port_no;
    info.type = ind->info.type;
    info.speed = ind->info.sfp_speed;
    copy_text(info.morvaine_rdh, ind->info.sfp_morvaine_rdh);
    copy_text(info.morvaine_rdh_ext, ind->info.sfp_morvaine_rdh_ext);
    copy_text(info.vendor_name, ind->info.sfp_vendor_name);
    copy_text(info.vendor_pn, ind->info.sfp_vendor_pn);
    copy_text(info.vendor_rev, ind->info.sfp_vendor_rev);
    copy_text(info.date_code, ind->info.sfp_date_code);
    copy_text(info.vendor_sn, ind->info.sfp_vendor_sn);
    return info;
}

std::optional<tesk_client_port_status> decode_port_status(const mbx_signal *signal)
{
    std::optional<tesk_port_status_ind> ind = host_copy_of<tesk_port_status_ind>(signal);
    if (!ind)
        return std::nullopt;
    tesk_client_port_status status{};
    status.port_no = ind->info.port_no;
    status.link = ind->info.conn_status;
    status.sfp_type = ind->info.sfp_type;
    status.link_speed = ind->info.link_speed;
    status.environment = ind->info.env_status;
    copy_levels(status.level, ind->info);
    return status;
}

std::optional<answer_payload> decode_confirmation(const mbx_signal *signal)
{
    switch (signal->number) {
    case TESK_GET_PM_COUNTERS_CFM:
        return decode_pm(signal);
    case TESK_GET_CAPABILITIES_CFM:
        return decode_capabilities(signal);
    case TESK_SHELL_GET_PORT_STATUS_CACHE_CFM:
        return decode_history<tesk_shell_port_status_record>(signal);
    case TESK_SHELL_GET_SFP_INFO_CACHE_CFM:
        return decode_history<tesk_shell_sfp_info_record>(signal);
    case TESK_SHELL_GET_ACTIONS_CACHE_CFM:
        return decode_history<tesk_shell_action_record>(signal);
    default:
        return answer_payload{};
    }
}

std::string decode_error_text(const char (&field)[TESK_ERROR_DESCRIPTION_SIZE])
{
    return std::string(field, strnlen(field, sizeof(field) - 1));
}
