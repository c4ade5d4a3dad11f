/* SPDX-License-Identifier: Apache-2.0 */
/* The memories of real modules, if available, compared with the output of ethtool. */
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/decode/module_details.h"
#include "testkit/modules/ethtool_comparison.h"
#include "testkit/modules/module_images.h"
#include "testkit/texts.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace linux_board;

static module_images::bytes read_bytes(const std::string &path)
{
    const std::string text = testkit::read_file(path);
    return {text.begin(), text.end()};
}

/* Where the three layouts have tx bias, tx power and rx power, their limits, their flags, and LOS.
   For SFP the position of flags is a bit number. */
struct lane_layout {
    uint32_t lanes;
    size_t values[3], limits[3], flags[3], los;
};
static constexpr lane_layout of_sfp = {1, {100, 102, 104}, {16, 24, 32}, {2, 0, 14}, 0};
static constexpr lane_layout of_qsfp = {4, {42, 50, 34}, {568, 576, 560}, {11, 13, 9}, 3};
static constexpr lane_layout of_cmis = {
    8, {2346, 2330, 2362}, {440, 432, 448}, {2319, 2315, 2325}, 2323};

static bool is_raised(const module_images::bytes &from, const lane_layout &its, size_t kind,
                      size_t lane, size_t flag)
{
    const size_t at = its.flags[kind];
    if (its.lanes == 8)
        return from[at + 3 - flag] >> lane & 1;
    if (its.lanes == 4)
        return from[at + lane / 2] >> (flag + (lane % 2 == 0 ? 4 : 0)) & 1;
    const size_t byte = (flag >= DOLM_RIC_FLAG_LOW_ALARM ? 112 : 116) + at / 8;
    return from[byte] >> (at % 8 + flag % 2) & 1;
}

/* Flags of all modules; lanes, limits and LOS of internally calibrated ones, straight from the
   bytes. Returns how many flags were compared. */
static size_t compare_details(const std::string &name, const module_images::image &image)
{
    const module_memory memory = image.read();
    dolm_ric_details_record record = {};
    const module_contents contents = decode_module(memory);
    take_module(memory, contents, {}, record);
    const bool is_sfp = image.a0[0] == 3, is_cmis = image.a0[0] >= 0x18;
    const lane_layout &its = is_sfp ? of_sfp : is_cmis ? of_cmis : of_qsfp;
    const module_images::bytes &from = is_sfp ? image.a2 : image.a0;
    if (record.lanes_state != DOLM_RIC_VALUE_VALID)
        return 0;
    const bool is_internal = !is_sfp || (image.a0[92] & 0x10) == 0;
    EXPECT_EQ(record.lane_count, its.lanes) << name;
    size_t compared = 0;
    const int los = is_sfp ? image.a2[110] >> 1 : from[its.los];
    for (size_t kind = 0; kind < DOLM_RIC_LANE_VALUES; kind++) {
        const int scale = is_cmis ? 1 << (from[288] >> 3 & 3) : 1;
        const double step = kind == DOLM_RIC_TX_BIAS ? 0.002 * scale : 0.0001;
        const auto is_at = [&](double value, size_t at) {
            return std::abs(value - step * (from[at] << 8 | from[at + 1])) < 1e-9;
        };
        for (size_t lane = 0; lane < its.lanes; lane++) {
            const auto &value = record.lane[lane].value[kind];
            const auto &signal = record.lane[lane].signal[DOLM_RIC_RX_LOS];
            for (size_t flag = 0; value.state == DOLM_RIC_VALUE_VALID && flag < DOLM_RIC_FLAGS;
                 flag++, compared++)
                EXPECT_EQ(value.flag[flag].count != 0,
                          contents.has_flags && is_raised(from, its, kind, lane, flag))
                    << name << lane << kind << flag;
            EXPECT_TRUE(!is_internal || value.state != DOLM_RIC_VALUE_VALID ||
                        is_at(value.value, its.values[kind] + 2 * lane))
                << name << lane;
            EXPECT_TRUE(signal.state != DOLM_RIC_VALUE_VALID ||
                        static_cast<int>(signal.on) == (los >> lane & 1))
                << name << lane;
        }
        const dolm_ric_details_limits &found = record.lane_limits[kind];
        const size_t at = its.limits[kind];
        EXPECT_TRUE(!is_internal || found.state != DOLM_RIC_VALUE_VALID ||
                    (is_at(found.high_alarm, at) && is_at(found.low_alarm, at + 2) &&
                     is_at(found.high_warning, at + 4) && is_at(found.low_warning, at + 6)))
            << name << kind;
    }
    return compared;
}

TEST(real_modules, say_what_ethtool_says)
{
    const char *given = getenv("TESK_MODULES");
    const std::filesystem::path folder =
        given != nullptr ? given : TESK_SOURCE_DIR "/../shared/linux/modules";
    if (!std::filesystem::exists(folder / "bin"))
        GTEST_SKIP() << folder << " has no memories of real modules; TESK_MODULES may name them";

    size_t compared = 0;
    size_t flags = 0;
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
            flags += compare_details(name, image);
            compared++;
        }
    }
    EXPECT_GE(compared, 28u);
    EXPECT_GE(flags, 100u);
}
