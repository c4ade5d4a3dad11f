/* SPDX-License-Identifier: Apache-2.0 */
#include "testkit/modules/ethtool_comparison.h"

#include "testkit/modules/module_text.h"

#include <algorithm>
#include <iterator>
#include <regex>

using namespace linux_board;

/* Lines that only one output has: "-" for ethtool's, "+" for ours. */
static constexpr char measured[] = "-(Laser|Module|Receiver|Rcvr|Transmit).*";
static constexpr char zero_limits[] = "-.*threshold:0\\.0+(mA|mW|V|degreesC)";
static constexpr char no_a2[] = "it shows a memory of zeros, which nobody read, as values";
static constexpr char no_page[] = "it shows the limits of a page that isn't there as zeros";
static constexpr char cable[] = "it shows what a cable of copper leaves at zero or undefined";
static constexpr char rx_power[] = ".(Receiversignal|Laserrxpower.*threshold).*";
static constexpr char cut_bias[] = ".Laserbiascurrent.*threshold:(14.82[45]|3.01[23])mA";
static constexpr char cuts_bias[] = "it cuts 7412.5 and 1506.25 to whole steps of 2 uA";
static constexpr char no_powers[] = "it doesn't raise the reading of rx power to its powers";
static constexpr struct difference {
    const char *module;
    const char *lines;
    const char *why_ethtool_is_wrong;
} differences[] = {
    {"fiberstore-badsum", "-.*", "it doesn't look at the checksums"},
    {"finisar-fclf8522-1000t", ".Datecode:150524_?", "it shows the padding"},
    {"finisar-10g-zr", measured, no_a2},
    {"finisar-25g-sr", measured, no_a2},
    {"finisar-ftrj8519-external", measured, no_a2},
    {"oem-sfp-10g-t8", "-(Laser|Receiver).*", "it believes the light of a 10GBASE-T module"},
    {"finisar-qsfp28-sr4", zero_limits, no_page},
    {"lumentum-qsfp28-cwdm4", zero_limits, no_page},
    {"innolight-qsfpdd-dr4", zero_limits, no_page},
    {"mellanox-qsfp-dac", measured, cable},
    {"qsfp-2", measured, cable},
    /* The images made by hand. */
    {"badsum", "-.*", "it doesn't look at the checksums"},
    {"swap", measured, "it reads diagnostics that need an address change"},
    {"ext", rx_power, no_powers},
    {"ext4", rx_power, no_powers},
    {"ext", cut_bias, cuts_bias},
    {"ext4", cut_bias, cuts_bias},
    {"made-external", rx_power, no_powers},
    {"made-external", cut_bias, cuts_bias},
    {"made-cmis", ".Laser(tx)?biascurrent.*", "it divides the bias by its scale, not multiplies"},
};

static std::vector<std::string> missing(std::vector<std::string> from, std::vector<std::string> in,
                                        char sign)
{
    std::ranges::sort(from), std::ranges::sort(in);
    std::vector<std::string> lines;
    std::ranges::set_difference(from, in, std::back_inserter(lines));
    for (std::string &line : lines)
        line.insert(line.begin(), sign);
    return lines;
}

/* nullptr if ethtool is right. */
static const char *why_ethtool_is_wrong(const std::string &module, const std::string &line)
{
    for (const difference &known : differences)
        if (known.module == module && std::regex_match(line, std::regex(known.lines)))
            return known.why_ethtool_is_wrong;
    return nullptr;
}

std::vector<text_difference> compare_with_ethtool(const std::string &module,
                                                  const module_contents &contents,
                                                  std::string_view ethtool)
{
    const auto ours = module_text(contents), theirs = comparable_text(ethtool);
    auto lines = missing(theirs, ours, '-');
    std::ranges::move(missing(ours, theirs, '+'), std::back_inserter(lines));
    std::vector<text_difference> differing;
    differing.reserve(lines.size());
    for (const std::string &line : lines)
        differing.push_back({line, why_ethtool_is_wrong(module, line)});
    return differing;
}
