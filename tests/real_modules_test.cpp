/* SPDX-License-Identifier: Apache-2.0 */
/* The memories of real modules, where they are at hand: beside what ethtool says of them, and what
   clients are told. */
#include "platform/dolm_ric/linux/module_decode.h"
#include "testkit/modules/ethtool_comparison.h"
#include "testkit/modules/module_images.h"
#include "testkit/texts.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace linux_board;

/* By module: the codes of speed and connector, the result of the diagnostics, diag_cap, and the
   five values. */
static const std::map<std::string, const char *> told = {
    {"amphenol-qsfpdd-cr8", "54530fa0 2 -6 0 0 0 0 0 0"},
    {"amphenol-sfp28-dac", "545300fa 2 -6 0 0 0 0 0 0"},
    {"fiberstore-badsum", "not ready"},
    {"finisar-25g-sr", "545300fa 1 -4 0 0 0 0 0 0"},
    {"finisar-8571-mup0wb0", "2 1 0 1f 10102 3316200 7176 585 0"},
    {"finisar-qsfp28-sr4", "545303e8 1 0 1f 26406 3257800 7078 996 741"},
    {"flexoptix-10g-lr", "2 1 0 1f 25543 3254500 27872 636 552"},
    {"innolight-qsfpdd-dr4", "54530fa0 1 0 3 59840 3288000 0 0 0"},
    {"intel-e10gsfpsrx", "2 1 0 1f 35336 3427200 8688 578 2"},
    {"juniper-800g-dr8", "54531f40 1 0 1f 57930 3305700 69982 1171 1071"},
    {"mellanox-qsfp-dac", "0 2 -6 0 0 0 0 0 0"},
    {"oem-sfp-10g-t8", "2 2 0 3 66199 3271400 0 0 0"},
    {"oom-qsfp", "54530190 1 0 1f 43359 3268900 6242 915 815"},
    {"qsfp-2", "545303e8 2 0 3 27844 3220300 0 0 0"},
    {"qsfp28-lit", "545303e8 1 0 1f 28590 3320900 33408 1147 1726"},
};

static module_images::bytes read_bytes(const std::string &path)
{
    const std::string text = testkit::read_file(path);
    return {text.begin(), text.end()};
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
            const std::string stem = images / name;
            const module_images::image image = {
                read_bytes(stem + ".a0"), read_bytes(stem + ".a2"), {}};
            const module_contents contents = decode_module(image.read());
            const std::string ethtool =
                testkit::read_file(folder / "ethtool-6.1" / (name + ".txt"));
            for (const text_difference &its : compare_with_ethtool(name, contents, ethtool))
                EXPECT_NE(its.why_ethtool_is_wrong, nullptr) << name << ": " << its.line;
            compared++;
            if (const auto expected = told.find(name); expected != told.end()) {
                EXPECT_EQ(summary(make_records(contents, {})), expected->second) << name;
            }
        }
    }
    EXPECT_GE(compared, 28u);
}
