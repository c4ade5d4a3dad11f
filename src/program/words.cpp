/* SPDX-License-Identifier: Apache-2.0 */
/* Texts for people: trailing blanks of a module's texts are dropped, missing values are left out,
   and the worst level comes first. */
#include "program/words.h"

#include "program/units.h"
#include "util/escape.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

/* A module's text without its trailing blanks, which are padding. */
template <size_t width>
static std::string trimmed(const char (&field)[width])
{
    std::string_view text(field, strnlen(field, width));
    text = text.substr(0, text.find_last_not_of(' ') + 1);
    return escape(text);
}

/* The levels, the worst first; levels that a module can't have come last. */
static constexpr uint32_t by_severity[] = {
    TESK_CLIENT_LEVEL_HIGH_ALARM,    TESK_CLIENT_LEVEL_LOW_ALARM, TESK_CLIENT_LEVEL_HIGH_WARNING,
    TESK_CLIENT_LEVEL_LOW_WARNING,   TESK_CLIENT_LEVEL_OK,        TESK_CLIENT_LEVEL_NOT_MEASURED,
    TESK_CLIENT_LEVEL_NOT_SUPPORTED,
};

const char *module_text(uint32_t type)
{
    switch (type) {
    case TESK_CLIENT_SFP_NOT_PRESENT:
        return "no module";
    case module_not_ready:
        return "module not ready";
    default:
        return tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, type);
    }
}

std::string module_phrase(uint32_t type)
{
    const bool is_phrase = type == TESK_CLIENT_SFP_NOT_PRESENT || type == module_not_ready;
    return is_phrase ? module_text(type) : fmt::format("module {}", module_text(type));
}

std::string describe(const tesk_client_sfp_info &info)
{
    std::string text = module_text(info.type);
    if (info.type == TESK_CLIENT_SFP_NOT_PRESENT || info.type == module_not_ready)
        return text;
    auto add = [&text](const char *label, const std::string &value) {
        if (!value.empty())
            text += fmt::format(", {} {}", label, value);
    };
    if (info.speed != 0)
        text += ", " + gbps(info.speed);
    add("vendor", trimmed(info.vendor_name));
    add("part", trimmed(info.vendor_pn));
    add("rev", trimmed(info.vendor_rev));
    add("serial", trimmed(info.vendor_sn));
    add("date", trimmed(info.date_code));
    add("product", trimmed(info.morvaine_rdh));
    add("ext", trimmed(info.morvaine_rdh_ext));
    return text;
}

uint32_t severity(uint32_t level)
{
    const auto found = std::ranges::find(by_severity, level);
    return static_cast<uint32_t>(std::end(by_severity) - found);
}

uint32_t worst_level(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS])
{
    return *std::ranges::max_element(level, {}, severity);
}

std::string describe_levels(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS])
{
    std::string text;
    for (const uint32_t wanted : by_severity) {
        if (wanted == TESK_CLIENT_LEVEL_NOT_SUPPORTED)
            continue;
        std::string names;
        for (uint32_t i = 0; i < TESK_CLIENT_MEASUREMENTS; i++) {
            if (level[i] == wanted) {
                names += names.empty() ? "" : ", ";
                names += tesk_client_text(TESK_CLIENT_TEXT_MEASUREMENT, i);
            }
        }
        if (!names.empty())
            text += fmt::format("{}{}: {}", text.empty() ? "" : "; ",
                                tesk_client_text(TESK_CLIENT_TEXT_LEVEL, wanted), names);
    }
    return text;
}

/* Nothing for a link that is down, since it has no speed. */
static std::string speed_text(const tesk_client_port_status &status)
{
    if (status.link != TESK_CLIENT_LINK_OPERATIONAL)
        return "";
    return status.link_speed != 0 ? " " + gbps(status.link_speed) : ", speed not known";
}

std::string link_text(const tesk_client_port_status &status)
{
    switch (status.link) {
    case TESK_CLIENT_LINK_OPERATIONAL:
        return "up" + speed_text(status);
    case TESK_CLIENT_LINK_NOT_OPERATIONAL:
        return "down";
    default:
        return tesk_client_text(TESK_CLIENT_TEXT_LINK, status.link);
    }
}

std::string describe(const tesk_client_port_status &status)
{
    const std::string link =
        tesk_client_text(TESK_CLIENT_TEXT_LINK, status.link) + speed_text(status);
    if (status.sfp_type == TESK_CLIENT_SFP_NOT_PRESENT)
        return fmt::format("{}, {}", link, module_text(status.sfp_type));
    return fmt::format("{}, {}, environment {}; {}", link, module_phrase(status.sfp_type),
                       tesk_client_text(TESK_CLIENT_TEXT_ENVIRONMENT, status.environment),
                       describe_levels(status.level));
}

std::string describe(const tesk_client_pm &pm)
{
    if (pm.sfp_type == TESK_CLIENT_SFP_NOT_PRESENT)
        return module_text(pm.sfp_type);
    auto value = [](const char *label, bool has, const std::string &text) {
        return fmt::format("{} {}", label, has ? text : "not measured");
    };
    auto power = [](uint32_t microwatts) {
        return fmt::format("{} ({})", dbm(microwatts), milliwatts(microwatts));
    };
    return fmt::format("{}, {}, {}, {}, {}", value("tx", pm.has_tx_power, power(pm.tx_power)),
                       value("rx", pm.has_rx_power, power(pm.rx_power)),
                       value("temperature", pm.has_temperature, celsius(pm.temperature)),
                       value("voltage", pm.has_voltage, volts(pm.voltage)),
                       value("bias", pm.has_tx_bias, milliamperes(pm.tx_bias)));
}

std::string request_name(tesk_client_request_type type)
{
    switch (type) {
    case TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO:
        return "subscribe sfp";
    case TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO:
        return "unsubscribe sfp";
    case TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS:
        return "subscribe status";
    case TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS:
        return "unsubscribe status";
    case TESK_CLIENT_REQUEST_PM:
        return "pm";
    case TESK_CLIENT_REQUEST_CAPABILITIES:
        return "capabilities";
    default:
        return "history";
    }
}
