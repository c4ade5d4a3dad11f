/* SPDX-License-Identifier: Apache-2.0 */
#include "testkit/modules/module_text.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <fmt/printf.h>

using namespace linux_board;

/* The unit of a measurement and its names: before the value, before the flags and before the
   limits. With several lanes the first two names differ. */
struct wording {
    measurement module_contents::*its;
    const char *unit;
    double per_unit;
    const char *value;
    const char *lane_value;
    const char *lane_flag;
    const char *limit;
};

static constexpr wording wordings[] = {
    {&module_contents::temperature, "%.2fdegreesC", 1000, "Moduletemperature", nullptr, nullptr,
     "Moduletemperature"},
    {&module_contents::voltage, "%.4fV", 1e6, "Modulevoltage", nullptr, nullptr, "Modulevoltage"},
    {&module_contents::tx_bias, "%.3fmA", 1000, "Laserbiascurrent", "Lasertxbiascurrent",
     "Laserbiascurrent%s(Chan%d)", "Laserbiascurrent"},
    {&module_contents::tx_power, "%.4fmW", 1000, "Laseroutputpower", "Transmitavgopticalpower",
     "Lasertxpower%s(Channel%d)", "Laseroutputpower"},
    {&module_contents::rx_power, "%.4fmW", 1000, "%s", "%s", "Laserrxpower%s(Channel%d)",
     "Laserrxpower"},
};

struct limit_kind {
    const char *name;
    measurement_flag flag;
    double measurement_limits::*value;
};

static constexpr limit_kind limit_kinds[] = {
    {"highalarm", high_alarm_flag, &measurement_limits::high_alarm},
    {"lowalarm", low_alarm_flag, &measurement_limits::low_alarm},
    {"highwarning", high_warning_flag, &measurement_limits::high_warning},
    {"lowwarning", low_warning_flag, &measurement_limits::low_warning},
};

/* The modules' steps end at the third or fourth digit; printf truncates temperatures. */
static std::string in_unit(const wording &words, double value)
{
    const double steps = words.per_unit == 1e6 ? value : std::round(value * 10) / 10;
    return fmt::sprintf(words.unit, steps / words.per_unit);
}

static void add_measurement(const module_contents &contents, const wording &words,
                            std::vector<std::string> &lines)
{
    const measurement &its = contents.*words.its;
    const bool has_lanes = contents.family != module_family::sfp && words.lane_value != nullptr;
    const char *rx_power = !contents.has_average_power ? "ReceiversignalOMA"
                           : has_lanes                 ? "Rcvrsignalavgopticalpower"
                                                       : "Receiversignalaverageopticalpower";

    for (const lane_value &lane : its.lanes) {
        std::string name = fmt::sprintf(has_lanes ? words.lane_value : words.value, rx_power);
        if (has_lanes)
            name += fmt::format("(Channel{})", lane.lane + 1);
        lines.push_back(name + ":" + in_unit(words, lane.value));
        for (const limit_kind &limit : limit_kinds) {
            if (!contents.has_flags)
                continue;
            const std::string flag = has_lanes
                                         ? fmt::sprintf(words.lane_flag, limit.name, lane.lane + 1)
                                         : std::string(words.limit) + limit.name;
            lines.push_back(flag + ((lane.flags & limit.flag) != 0 ? ":On" : ":Off"));
        }
    }
    if (!its.lanes.empty() && its.limits)
        for (const limit_kind &limit : limit_kinds)
            lines.push_back(fmt::format("{}{}threshold:{}", words.limit, limit.name,
                                        in_unit(words, *its.limits.*limit.value)));
}

static std::string without_blanks(std::string_view text)
{
    std::string line(text.substr(0, text.find(" / ")));
    std::erase_if(line, [](char byte) { return byte == ' ' || byte == '\t'; });
    return line;
}

std::vector<std::string> module_text(const module_contents &contents)
{
    std::vector<std::string> lines;
    if (!contents.ready)
        return lines;
    const dolm_sfp_info &sfp = contents.identity;
    for (const auto &[name, value] :
         {std::pair("Vendorname:", sfp.sfp_vendor_name), std::pair("VendorPN:", sfp.sfp_vendor_pn),
          std::pair("Vendorrev:", sfp.sfp_vendor_rev), std::pair("VendorSN:", sfp.sfp_vendor_sn),
          std::pair("Datecode:", sfp.sfp_date_code)})
        lines.push_back(name + without_blanks(value));
    for (const wording &words : wordings)
        add_measurement(contents, words, lines);
    return lines;
}

std::vector<std::string> comparable_text(std::string_view ethtool)
{
    static constexpr std::string_view beginnings[] = {
        "Vendorname:",       "VendorPN:",     "Vendorrev:",     "VendorSN:",  "Datecode:",  "Laser",
        "Moduletemperature", "Modulevoltage", "Receiversignal", "Rcvrsignal", "Transmitavg"};

    std::vector<std::string> lines;
    for (size_t at = 0; at < ethtool.size();) {
        const size_t end = std::min(ethtool.find('\n', at), ethtool.size());
        const std::string line = without_blanks(ethtool.substr(at, end - at));
        at = end + 1;
        if (!line.starts_with("Laserwavelength") &&
            std::ranges::any_of(beginnings, [&](auto begin) { return line.starts_with(begin); }))
            lines.push_back(line);
    }
    return lines;
}
