/* SPDX-License-Identifier: Apache-2.0 */
/* The memories of real modules, where they are at hand: beside what ethtool says of them, and what
   clients are told. */
#include "platform/dolm_ric/linux/module_decode.h"
#include "testkit/modules/module_images.h"
#include "testkit/modules/module_text.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>
#include <string>

using namespace linux_board;

/* Lines that one has and the other hasn't: "-" those of ethtool alone, "+" ours alone. */
static constexpr char measured[] = "-(Laser|Module|Receiver|Rcvr|Transmit).*";
static constexpr char zero_limits[] = "-.*threshold:0\\.0+(mA|mW|V|degreesC)";
static constexpr char no_a2[] = "it shows a memory of zeros, which nobody read, as values";
static constexpr char no_page[] = "it shows the limits of a page that isn't there as zeros";
static constexpr char cable[] = "it shows what a cable of copper leaves at zero or undefined";
static constexpr char rx_power[] = ".(Receiversignal|Laserrxpower.*threshold).*";
static constexpr char cut_bias[] = ".Laserbiascurrent.*threshold:(14.82[45]|3.01[23])mA";
static constexpr char cuts_bias[] = "it cuts 7412.5 and 1506.25 to whole steps of 2 uA";
static constexpr char no_powers[] = "it doesn't raise the reading of rx power to its powers";
static constexpr struct {
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
    /* Made by hand. */
    {"badsum", "-.*", "it doesn't look at the checksums"},
    {"swap", measured, "it reads diagnostics that need an address change"},
    {"ext", rx_power, no_powers},
    {"ext4", rx_power, no_powers},
    {"ext", cut_bias, cuts_bias},
    {"ext4", cut_bias, cuts_bias},
};

/* By module: the codes of speed and connector, the result of the diagnostics, diag_cap, and the
   five values. */
static const std::map<std::string, const char *> told = {
    {"amphenol-qsfpdd-cr8", "54530fa0 255 -6 0 0 0 0 0 0"},
    {"amphenol-sfp28-dac", "545300fa 255 -6 0 0 0 0 0 0"},
    {"fiberstore-badsum", "not ready"},
    {"finisar-25g-sr", "545300fa 1 -4 0 0 0 0 0 0"},
    {"finisar-8571-mup0wb0", "2 1 0 1f 10102 3316200 7176 585 0"},
    {"finisar-qsfp28-sr4", "545303e8 255 0 1f 26406 3257800 7078 996 741"},
    {"flexoptix-10g-lr", "2 1 0 1f 25543 3254500 27872 636 552"},
    {"innolight-qsfpdd-dr4", "54530fa0 255 0 3 59840 3288000 0 0 0"},
    {"intel-e10gsfpsrx", "2 1 0 1f 35336 3427200 8688 578 2"},
    {"juniper-800g-dr8", "54531f40 255 0 1f 57930 3305700 69982 1171 1071"},
    {"mellanox-qsfp-dac", "0 255 -6 0 0 0 0 0 0"},
    {"oem-sfp-10g-t8", "2 2 0 3 66199 3271400 0 0 0"},
    {"oom-qsfp", "54530190 255 0 1f 43359 3268900 6242 915 815"},
    {"qsfp28-lit", "545303e8 1 0 1f 28590 3320900 33408 1147 1726"},
};

static std::string read_file(const std::filesystem::path &from)
{
    std::ifstream file(from, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

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

static module_images::image read_image(const std::filesystem::path &stem)
{
    module_images::image made;
    const std::string a0 = read_file(stem.string() + ".a0"), a2 = read_file(stem.string() + ".a2");
    made.a0.assign(a0.begin(), a0.end());
    made.a2.assign(a2.begin(), a2.end());
    return made;
}

static void compare_with_ethtool(const std::string &name, const module_contents &contents,
                                 const std::string &ethtool)
{
    const auto ours = module_text(contents), theirs = comparable_text(ethtool);
    auto lines = missing(theirs, ours, '-');
    std::ranges::move(missing(ours, theirs, '+'), std::back_inserter(lines));
    for (const std::string &line : lines)
        EXPECT_TRUE(std::ranges::any_of(differences,
                                        [&](const auto &its) {
                                            return its.module == name &&
                                                   std::regex_match(line, std::regex(its.lines));
                                        }))
            << name << ": " << line;
}

static std::string summary(const module_records &records)
{
    const dolm_ric_module_diag &d = records.diag;
    char text[200];
    snprintf(text, sizeof(text), "%x %u %d %x %d %u %u %u %u", records.info.sfp.sfp_eth_speed,
             records.info.sfp.sfp_connector, records.diag_result, d.diag_cap, d.temperature,
             d.voltage, d.txbias, d.txpower, d.rxpower);
    return records.ready ? text : "not ready";
}

TEST(real_modules, say_what_ethtool_says_and_what_was_worked_out)
{
    const char *given = getenv("TESK_MODULES");
    const std::filesystem::path folder =
        given != nullptr ? given : TESK_SOURCE_DIR "/../shared/linux/modules";
    if (!std::filesystem::exists(folder / "bin"))
        GTEST_SKIP() << folder << " has no memories of real modules; TESK_MODULES may name them";

    size_t compared = 0;
    for (const auto &images : {folder / "bin", folder.parent_path() / "images"}) {
        if (!std::filesystem::exists(images))
            continue;
        for (const auto &entry : std::filesystem::directory_iterator(images)) {
            if (entry.path().extension() != ".a0")
                continue;
            const std::string name = entry.path().stem();
            const module_contents contents = decode_module(read_image(images / name).read());
            compare_with_ethtool(name, contents,
                                 read_file(folder / "ethtool-6.1" / (name + ".txt")));
            compared++;
            if (const auto expected = told.find(name); expected != told.end()) {
                EXPECT_EQ(summary(make_records(contents, {})), expected->second) << name;
            }
        }
    }
    EXPECT_GE(compared, 28u);
}
