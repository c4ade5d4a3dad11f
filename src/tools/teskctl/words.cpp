/* SPDX-License-Identifier: Apache-2.0 */
/* Words are for people: blanks at the end of a module's texts are dropped, what has no value is
   left out, and the worst level comes first. */
#include "tools/teskctl/words.h"

#include "tools/common/units.h"
#include "util/escape.h"

#include <cstring>
#include <fmt/format.h>

/* A text of a module, without the blanks that modules pad theirs with. */
template <size_t width>
static std::string module_text(const char (&field)[width])
{
    std::string_view text(field, strnlen(field, width));
    text = text.substr(0, text.find_last_not_of(' ') + 1);
    return escape(text);
}

std::string describe(const tesk_client_sfp_info &info)
{
    const char *type = tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, info.type);
    if (info.type == TESK_CLIENT_SFP_NOT_PRESENT)
        return type;
    std::string text = type;
    auto add = [&text](const char *label, const std::string &value) {
        if (!value.empty())
            text += fmt::format(", {} {}", label, value);
    };
    if (info.speed != 0)
        text += ", " + gbps(info.speed);
    add("vendor", module_text(info.vendor_name));
    add("part", module_text(info.vendor_pn));
    add("rev", module_text(info.vendor_rev));
    add("serial", module_text(info.vendor_sn));
    add("date", module_text(info.date_code));
    add("product", module_text(info.morvaine_rdh));
    add("ext", module_text(info.morvaine_rdh_ext));
    return text;
}

std::string describe_levels(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS])
{
    /* The worst first; what a module can't have at all is left out. */
    static constexpr uint32_t order[] = {
        TESK_CLIENT_LEVEL_HIGH_ALARM,  TESK_CLIENT_LEVEL_LOW_ALARM, TESK_CLIENT_LEVEL_HIGH_WARNING,
        TESK_CLIENT_LEVEL_LOW_WARNING, TESK_CLIENT_LEVEL_OK,        TESK_CLIENT_LEVEL_NOT_MEASURED,
    };
    std::string text;
    for (const uint32_t wanted : order) {
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

std::string describe(const tesk_client_port_status &status)
{
    std::string text = tesk_client_text(TESK_CLIENT_TEXT_LINK, status.link);
    if (status.link == TESK_CLIENT_LINK_OPERATIONAL) /* a link that is down has no speed */
        text += " " + gbps(status.link_speed);
    return fmt::format("{}, module {}, environment {}; {}", text,
                       tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, status.sfp_type),
                       tesk_client_text(TESK_CLIENT_TEXT_ENVIRONMENT, status.environment),
                       describe_levels(status.level));
}

std::string describe(const tesk_client_pm &pm)
{
    auto value = [](const char *label, bool has, const std::string &text) {
        return fmt::format("{} {}", label, has ? text : "absent");
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
