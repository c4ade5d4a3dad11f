/* SPDX-License-Identifier: Apache-2.0 */
/* The decoder of module memory: results calculated by hand, and memories with wrong content. */
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/decode/module_details.h"
#include "platform/dolm_ric/linux/decode/module_speed.h"
#include "testkit/modules/module_images.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace linux_board;
using namespace module_images;
using numbers = std::vector<int64_t>;

static constexpr uint32_t all_five = 0x1f;
static constexpr uint32_t not_light = DOLM_SFP_DIAGCAP_TEMP | DOLM_SFP_DIAGCAP_VOLTAGE;

static module_contents contents_of(const image &from)
{
    return decode_module(from.read());
}

static module_records records_of(const image &from, const port_view &port = {})
{
    return make_records(contents_of(from), port);
}

/* For each measurement: low and high warning, low and high alarm, value. */
static numbers words_of(const module_records &records)
{
    int32_t words[25];
    memcpy(words, &records.diag.temperature_low_warn, sizeof(words));
    return {std::begin(words), std::end(words)};
}

static numbers values_of(const module_records &records)
{
    const numbers words = words_of(records);
    return {words[4], words[9], words[14], words[19], words[24]};
}

TEST(sfp_values, internal_calibration)
{
    const module_records records = records_of(sfp());
    const dolm_sfp_info &info = records.info.sfp;

    ASSERT_EQ(records.diag_result, DOLM_RICERR_OK);
    EXPECT_EQ(records.diag.diag_cap, all_five);
    EXPECT_EQ(words_of(records),
              (numbers{-8000,   73000, -13000, 78000, 25719, 3000000, 3600000, 2900000, 3700000,
                       3301200, 2500,  12500,  2000,  13000, 7176,    126,     794,     100,
                       1000,    585,   16,     794,   10,    1000,    432}));
    EXPECT_STREQ(info.sfp_vendor_name, "EXAMPLE");
    EXPECT_STREQ(info.sfp_vendor_pn, "EX-10G");
    EXPECT_STREQ(info.sfp_vendor_rev, "A");
    EXPECT_STREQ(info.sfp_vendor_sn, "0001");
    EXPECT_STREQ(info.sfp_date_code, "240115");
    EXPECT_EQ(std::string(info.sfp_vendor_oui, 3), std::string("\x00\x90\x65", 3));
    EXPECT_EQ(info.sfp_connector, DOLM_SFP_CONNECTOR_LC);
    EXPECT_EQ(info.sfp_eth_compliance, 0x008u);
    EXPECT_EQ(info.sfp_nom_bitrate, 103);
    EXPECT_EQ(records_of(sfp(0x60)).diag.rxpower, 432u) << "OMA has the same steps";
}

TEST(sfp_values, external_calibration)
{
    EXPECT_EQ(words_of(records_of(external_sfp())),
              (numbers{-9000,   77063, -14313, 82375, -11125, 2980000, 3580000, 2880000, 3680000,
                       3280000, 3013,  14263,  2450,  14825,  6950,    247,     1584,    195,
                       1995,    495,   8,      460,   5,      600,     51}));
    EXPECT_NEAR(contents_of(external_sfp()).rx_power.lanes[0].value, 51.2, 1e-5);

    image fourth = external_sfp(); /* C4 1e-12, C3 2e-9 */
    put16(fourth.a2, 56, 0x2b8c), put16(fourth.a2, 58, 0xbccc);
    put16(fourth.a2, 60, 0x3109), put16(fourth.a2, 62, 0x705f);
    put_sum(fourth.a2, 0, 95);
    EXPECT_NEAR(contents_of(fourth).rx_power.lanes[0].value, 51.5, 1e-5);

    /* C1 is -0.5, -2, 2^23, infinity and NaN: a little below 0 counts as 0, and no receiver
       survives 0.1 W. */
    const std::pair<int, double> ends[] = {
        {0xbf00, 0}, {0xc000, -1}, {0x4b00, -1}, {0x7f80, -1}, {0x7fc0, -1}};
    for (const auto &[upper, expected] : ends) {
        image end = external_sfp();
        put16(end.a2, 68, upper), put_sum(end.a2, 0, 95);
        const auto lanes = contents_of(end).rx_power.lanes;
        EXPECT_EQ(lanes.empty() ? -1 : lanes[0].value, expected) << upper;
    }
    /* Constants that turn every number into nothing: slopes of 0, and an offset that leaves 0 V. */
    const std::pair<size_t, int> zeros[] = {{76, 0}, {80, 0}, {84, 0}, {88, 0}, {90, -32000}};
    for (const auto &[at, word] : zeros) {
        image zero = external_sfp({-2560, 32000, 3000, 2500, 1000});
        put16(zero.a2, at, word), put_sum(zero.a2, 0, 95);
        EXPECT_EQ(records_of(zero).diag_result, DOLM_RICERR_NOTAVAIL) << at;
        EXPECT_EQ(contents_of(zero).doubts.size(), 1u) << at;
    }
}

TEST(sfp_values, halves_are_rounded_away_from_zero)
{
    const std::pair<std::array<int, 5>, numbers> cases[] = {
        {{-16, 1, 1, 5, 15}, {-63, 100, 2, 1, 2}}, /* -62.5, 0.5 and 1.5 */
        {{16, 65535, 65535, 4, 14}, {63, 6553500, 131070, 0, 1}},
        {{-32768, 33000, 3000, 65535, 65535}, {-128000, 3300000, 6000, 6554, 6554}},
        {{-1, 33000, 3000, 24, 25}, {-4, 3300000, 6000, 2, 3}}};
    for (const auto &[raw, values] : cases) {
        image made = sfp();
        for (size_t n = 0; n < 5; n++)
            put16(made.a2, 96 + 2 * n, raw[n]);
        EXPECT_EQ(values_of(records_of(made)), values);
    }
}

/* Limits and value of rx power: high alarm, low alarm, high warning, low warning, value. */
static dolm_ric_module_diag with_rx_power(const std::array<int, 5> &raw)
{
    image made = sfp();
    for (size_t n = 0; n < 4; n++)
        put16(made.a2, 32 + 2 * n, raw[n]);
    put_sum(made.a2, 0, 95);
    put16(made.a2, 104, raw[4]);
    return records_of(made).diag;
}

TEST(limits, that_make_no_sense_are_left_open)
{
    const std::array<int, 4> nonsense[] = {{0, 0, 0, 0},
                                           {100, 10000, 158, 7943},
                                           {7943, 158, 10000, 100},
                                           {10000, 100, 158, 158},
                                           {65535, 65535, 65535, 65535}};
    for (const auto &[high_alarm, low_alarm, high_warning, low_warning] : nonsense) {
        const auto diag = with_rx_power({high_alarm, low_alarm, high_warning, low_warning, 4321});
        EXPECT_EQ(diag.diag_cap, all_five);
        EXPECT_EQ(diag.rxpower, 432u);
        EXPECT_EQ(diag.rxpower_low_alarm + diag.rxpower_low_warn, 0u);
        EXPECT_GT(std::min(diag.rxpower_high_warn, diag.rxpower_high_alarm), 1'000'000'000u);
        EXPECT_EQ(diag.txpower_low_alarm, 100u) << "the others keep theirs";
        /* 0 would always be shown with an alarm. */
        EXPECT_EQ(with_rx_power({high_alarm, low_alarm, high_warning, low_warning, 4}).diag_cap,
                  all_five & ~uint32_t{DOLM_SFP_DIAGCAP_RXPOWER});
    }
    image made = sfp();
    put16(made.a2, 0, -100), put_sum(made.a2, 0, 95); /* of temperature */
    EXPECT_LT(records_of(made).diag.temperature_low_warn, -1'000'000'000);
    EXPECT_GT(records_of(made).diag.temperature_high_warn, 1'000'000'000);
    image wrong_sum = sfp();
    wrong_sum.a2[95] ^= 1;
    EXPECT_EQ(records_of(wrong_sum).diag.voltage, 3301200u);
    EXPECT_EQ(records_of(wrong_sum).diag.voltage_low_alarm, 0u);
}

TEST(limits, stay_on_their_side_of_the_exact_value)
{
    /* Alarm, warning and value; low alarm, low warning, value and high warning of the record. */
    const std::tuple<int, int, int, numbers> cases[] = {
        {1000, 1003, 1004, {99, 99, 100, 794}},   {1000, 1003, 1003, {99, 100, 100, 794}},
        {1000, 1003, 1000, {100, 100, 100, 794}}, {1000, 1259, 7942, {100, 126, 794, 795}},
        {1000, 1259, 7943, {100, 126, 794, 794}}, {4, 8, 4, {0, 1, 0, 794}}};
    for (const auto &[alarm, warning, value, expected] : cases) {
        const auto d = with_rx_power({10000, alarm, 7943, warning, value});
        EXPECT_EQ(
            (numbers{d.rxpower_low_alarm, d.rxpower_low_warn, d.rxpower, d.rxpower_high_warn}),
            expected);
    }
    EXPECT_EQ(with_rx_power({10000, 1, 7943, 2, 4}).diag_cap & DOLM_SFP_DIAGCAP_RXPOWER, 0u);
}

TEST(limits, of_a_stopped_port_let_the_laser_be_off)
{
    image dark = sfp();
    put16(dark.a2, 100, 0), put16(dark.a2, 102, 20), put16(dark.a2, 104, 0);
    EXPECT_EQ(records_of(dark).diag.diag_cap, all_five);
    const dolm_ric_module_diag stopped = records_of(dark, {.stopped = true}).diag;
    EXPECT_EQ(stopped.diag_cap, not_light | DOLM_SFP_DIAGCAP_TXPOWER);
    EXPECT_LT(stopped.txpower_low_warn, stopped.txpower);
    EXPECT_EQ(stopped.txpower_high_warn, 794u);
}

TEST(refused, memories_that_can_not_be_true)
{
    constexpr int32_t ok = DOLM_RICERR_OK, none = DOLM_RICERR_UNSUPPORTED;
    constexpr int32_t missing = DOLM_RICERR_NOTAVAIL;
    static constexpr struct outcome {
        bool ready;
        int32_t diag, external; /* results */
    } unready = {false, missing, missing}, silent = {true, missing, missing},
      unable = {true, none, none}, sound = {true, ok, ok}, raw = {true, ok, missing};
    constexpr auto a0 = &image::a0, a2 = &image::a2;
    /* Memory, first and last byte, and the outcome. */
    const std::tuple<bytes image::*, size_t, size_t, uint8_t, outcome> cases[] = {
        {a0, 25, 25, '!', unready}, {a0, 70, 70, '!', unready}, {a0, 0, 255, 0xff, unready},
        {a0, 0, 255, 0, unready},   {a0, 1, 255, 0, unready},   {a0, 0, 0, 6, unready},
        {a2, 0, 255, 0, silent},    {a2, 0, 255, 0xff, silent}, {a2, 96, 255, 0xff, silent},
        {a2, 110, 110, 1, silent},  {a2, 96, 103, 0, silent},   {a0, 92, 92, 0, unable},
        {a0, 92, 92, 0x6c, unable}, {a0, 92, 92, 0x78, sound},  {a2, 95, 95, 0xee, raw},
        {a2, 0, 95, 0, raw}};
    for (const auto &[memory, first, last, byte, its] : cases)
        for (const bool is_external : {false, true}) {
            SCOPED_TRACE(std::to_string(first) + " to " + std::to_string(last) + " is " +
                         std::to_string(byte));
            image made = is_external ? external_sfp() : sfp();
            std::fill_n(&(made.*memory)[first], last - first + 1, byte);
            if (first == 92)
                put_sum(made.a0, 64, 95);
            const module_records records = records_of(made);
            const int32_t expected = is_external ? its.external : its.diag;
            EXPECT_EQ(records.ready, its.ready);
            EXPECT_EQ(records.info_result, its.ready ? ok : missing);
            EXPECT_EQ(records.diag_result, expected);
            EXPECT_EQ(records.diag.diag_cap, expected == ok ? all_five : 0);
        }
    image copied = sfp(), absent = sfp();
    std::fill(copied.a0.begin() + 96, copied.a0.end(), uint8_t{0x50}); /* the maker's bytes */
    copied.a2 = copied.a0;
    absent.a2.clear();
    EXPECT_EQ(records_of(copied).diag_result, missing);
    EXPECT_EQ(records_of(absent).diag_result, missing);
    EXPECT_FALSE(make_records(decode_module({}), {}).ready);
    image wrong_sum = sfp();
    wrong_sum.a0[63] ^= 1;
    module_memory trusted = wrong_sum.read();
    trusted.trust_sums(true);
    EXPECT_TRUE(decode_module(trusted).ready && decode_module(trusted).has_trusted_sum);
    for (image made : {qsfp(), cmis()}) {
        EXPECT_EQ(records_of(made).diag.diag_cap, all_five);
        std::fill(made.a0.begin() + 10, made.a0.begin() + 60, uint8_t{0xff});
        EXPECT_EQ(records_of(made).diag_result, missing);
        put16(made.a0, 14, 1), put16(made.a0, 16, 0), put16(made.a0, 26, 0); /* 0 V */
        made.a0[2] = 0, made.a0[128 + 159] = 2, put_page_sums(made.a0);
        EXPECT_EQ(records_of(made).diag_result, missing);
        made.a0[128 + 25] ^= 1;
        EXPECT_FALSE(records_of(made).ready);
        std::fill(made.a0.begin() + 128, made.a0.begin() + 256, uint8_t{0}); /* sums are right */
        EXPECT_FALSE(records_of(made).ready);
    }
}

/* All set flags, each as lane, measurement and flag. */
static std::string flags_of(const image &from)
{
    const module_contents contents = contents_of(from);
    std::string found;
    size_t name = 0;
    for (const auto its : {&contents.temperature, &contents.voltage, &contents.tx_bias,
                           &contents.tx_power, &contents.rx_power}) {
        for (const lane_value &lane : its->lanes)
            if (lane.flags != 0)
                found += std::to_string(lane.lane) + "tvbxr"[name] + std::to_string(lane.flags);
        name++;
    }
    return found;
}

TEST(flags, each_bit_belongs_to_one_limit)
{
    for (size_t place = 0; place < 20; place++) { /* two bytes of alarms, then of warnings */
        const size_t bit = place % 10;
        image made = sfp();
        made.a2[112 + place / 10 * 4 + bit / 8] = static_cast<uint8_t>(0x80 >> bit % 8);
        const char flag = "8421"[place / 10 * 2 + bit % 2];
        EXPECT_EQ(flags_of(made), std::string("0") + "tvbxr"[bit / 2] + flag);
    }
    using place = std::tuple<size_t, int, const char *>; /* byte, bit and flag */
    static const place in_qsfp[] = {{6, 7, "0t8"},  {6, 4, "0t1"},  {7, 6, "0v4"},  {9, 7, "0r8"},
                                    {9, 3, "1r8"},  {10, 4, "2r1"}, {10, 2, "3r4"}, {11, 5, "0b2"},
                                    {12, 1, "3b2"}, {13, 0, "1x1"}, {14, 6, "2x4"}};
    static const place in_cmis[] = {
        {9, 0, "0t8"},    {9, 1, "0t4"},   {9, 2, "0t2"},    {9, 3, "0t1"},   {9, 4, "0v8"},
        {9, 7, "0v1"},    {139, 0, "8x8"}, {140, 7, "15x4"}, {143, 1, "9b8"}, {146, 2, "10b1"},
        {149, 3, "11r8"}, {151, 4, "12r2"}}; /* lanes of the second bank, 8 and up */
    for (const auto &[byte, bit, flag] : in_qsfp) {
        image made = qsfp();
        made.a0[byte] = static_cast<uint8_t>(1 << bit);
        EXPECT_EQ(flags_of(made), flag);
    }
    for (const auto &[byte, bit, flag] : in_cmis) {
        image made = cmis();
        (byte < 128 ? made.a0 : made.lanes[1])[byte] = static_cast<uint8_t>(1 << bit);
        EXPECT_EQ(flags_of(made), flag);
    }
}

TEST(status, tells_los_and_fault_of_the_port_s_own_lanes)
{
    const std::array<uint8_t, 3> bits[] = {{0xf0, 0, 0}, {0xf0, 2, 1}, {0xf0, 4, 2},
                                           {0x30, 6, 3}, {0x10, 6, 1}, {0xf0, 0x80, 0},
                                           {0x20, 6, 2}};
    for (const auto &[options, byte, status] : bits) {
        image made = sfp();
        made.a0[93] = options, made.a2[110] = byte, put_sum(made.a0, 64, 95);
        EXPECT_EQ(records_of(made).status.status, status);
    }
    image four = qsfp(), banks = cmis();
    four.a0[3] = 0x14, four.a0[4] = 0x08; /* LOS of lane 2, and at the far end; fault of lane 3 */
    banks.lanes[1][135] = 0x01, banks.lanes[1][147] = 0x80;
    EXPECT_EQ(records_of(four).status.status, 3u);
    EXPECT_EQ(records_of(four, {.lanes = 0x3}).status.status, 0u);
    EXPECT_EQ(records_of(four, {.lanes = 0x4}).status.status, 1u);
    four.a0[113] = 0x04; /* the module lacks lane 2 */
    EXPECT_EQ(records_of(four).status.status, 2u);
    EXPECT_EQ(records_of(banks, {.lanes = 0x0100}).status.status, 2u);
    EXPECT_EQ(records_of(banks, {.lanes = 0x8000}).status.status, 1u);
}

TEST(lanes, the_one_that_is_worst_off_stands_for_all)
{
    /* tx power in uW, with the limits 500, 1000, 3500 and 3600; lanes of the port; its value */
    const std::tuple<std::array<int, 4>, uint32_t, uint32_t> cases[] = {
        {{1500, 1600, 1400, 2000}, 0, 1400}, {{1500, 3300, 1400, 2000}, 0, 3300},
        {{900, 1500, 3450, 1500}, 0, 900},   {{900, 4000, 700, 1500}, 0, 4000},
        {{450, 600, 3900, 100}, 0, 100},     {{900, 4000, 700, 1500}, 0x8, 1500},
        {{900, 4000, 700, 1500}, 0x5, 700},  {{900, 4000, 700, 1500}, 0xf0, 0},
        {{600, 3600, 1500, 1500}, 0, 3600},  {{600, 3550, 1500, 1500}, 0, 600}};
    for (const auto &[tx, lanes, expected] : cases) {
        image made = qsfp();
        for (size_t lane = 0; lane < 4; lane++)
            put16(made.a0, 50 + 2 * lane, 10 * tx[lane]);
        EXPECT_EQ(records_of(made, {.lanes = lanes}).diag.txpower, expected);
        EXPECT_EQ(records_of(made, {.lanes = lanes}).diag.temperature, 29000);
    }
    image off = qsfp(); /* the host has switched the dark lane off */
    put16(off.a0, 50, 0), put16(off.a0, 42, 0), off.a0[4] = 1, off.a0[86] = 1;
    EXPECT_EQ(records_of(off).diag.txpower, 2000u);
    EXPECT_EQ(records_of(off).status.status, 0u);
    image flat = qsfp(); /* without limits: the lowest */
    flat.a0[2] = 4, put16(flat.a0, 38, 40);
    EXPECT_EQ(records_of(flat).diag.rxpower, 4u);
    flat.a0[113] = 0x04; /* the module lacks lane 2 */
    EXPECT_EQ(records_of(flat).diag.rxpower, 500u);
}

TEST(lanes, of_banks_and_of_modules_that_do_not_run)
{
    image made = cmis();
    put16(made.lanes[1], 170 + 6, 400);
    EXPECT_EQ(values_of(records_of(made)), (numbers{57930, 3305700, 3200, 1000, 1000}));
    EXPECT_EQ(records_of(made).diag.txbias_low_warn, 5600u) << "scaled as the values are";
    EXPECT_EQ(records_of(made, {.lanes = 0xff}).diag.txbias, 8000u);
    made.a0[210] = 0xf0, put_sum(made.a0, 128, 222); /* lanes of the first bank */
    EXPECT_EQ(contents_of(made).tx_power.lanes.size(), 12u);
    made.a0[128 + 160] |= 0x18, put_page_sums(made.a0); /* a reserved factor of bias */
    EXPECT_TRUE(contents_of(made).tx_bias.lanes.empty());
    made.a0[128 + 160] = 0x12, put_page_sums(made.a0); /* tx power is the only measurement */
    EXPECT_EQ(records_of(made).diag.diag_cap, not_light | DOLM_SFP_DIAGCAP_TXPOWER);
    made.a0[3] = 0x02; /* low power */
    EXPECT_EQ(records_of(made).diag.diag_cap, not_light);
    made.a0[2] = 0x80; /* flat */
    EXPECT_EQ(records_of(made).diag.temperature, 57930);
    put16(made.a0, 14, 0), put16(made.a0, 16, 0);
    EXPECT_EQ(records_of(made).diag_result, DOLM_RICERR_UNSUPPORTED);
    made.a0[2] = 0, put16(made.a0, 14, 1); /* paged, and the voltage isn't measured */
    EXPECT_EQ(records_of(made).diag.diag_cap, uint32_t{DOLM_SFP_DIAGCAP_TEMP});

    /* The lowest tx power of the lanes of light that belong to the port's host lanes; each lane has
       1 uW more. */
    const auto power_of = [](const image &from, uint32_t host_lanes) {
        return records_of(from, {.host_lanes = host_lanes}).diag.txpower;
    };
    image halves = cmis();
    for (size_t lane = 0; lane < 8; lane++)
        put16(halves.lanes[0], 154 + 2 * lane, 10000 + 10 * static_cast<int>(lane));
    halves.a0[88] = 0x84, halves.a0[89] = 1; /* 8 lanes of the host on 4 lanes of light */
    EXPECT_EQ((numbers{power_of(halves, 0x0f), power_of(halves, 0xf0)}), (numbers{1000, 1002}));
    halves.a0[92] = 0x42, halves.a0[93] = 0x11, halves.a0[128 + 177] = 0x11; /* 4 on 2, from 4 */
    put_page_sums(halves.a0), std::fill_n(&halves.lanes[0][210], 4, uint8_t{0x28});
    EXPECT_EQ((numbers{power_of(halves, 0x0f), power_of(halves, 0xf0)}), (numbers{1000, 1004}));
    halves.a0.resize(2304), halves.a0[2048 + 130] = 0x10; /* the host has switched lane 4 off */
    EXPECT_EQ(power_of(halves, 0xf0), 1005u);
    halves.lanes[0][130] = halves.lanes[0][131] = 0x11; /* the data paths of lane 4, too */
    halves.lanes[0][147] = 0x30;                        /* LOS */
    EXPECT_EQ(records_of(halves, {.host_lanes = 0xf0}).diag.diag_cap, not_light);
    EXPECT_EQ(records_of(halves, {.host_lanes = 0xf0}).status.status, 0u);
    halves.a0[511] ^= 1; /* the checksum of the limits */
    EXPECT_EQ(records_of(halves).diag.voltage_low_alarm, 0u);
    halves.a0[383] ^= 1; /* and that of page 01h */
    EXPECT_EQ(records_of(halves).diag.diag_cap, not_light);

    const std::tuple<const char *, uint32_t, uint32_t> names[] = {
        {"p1s2", 0, 4},  {"p12s0", 1, 1}, {"p1s1", 4, 0xf0},      {"p1s0", 32, UINT32_MAX},
        {"p1s32", 0, 0}, {"p1", 1, 0},    {"pf0sf1", 1, 0},       {"", 1, 0},
        {"p1s", 1, 0},   {"s1", 1, 0},    {"p1s3", UINT32_MAX, 0}};
    for (const auto &[name, lanes, mask] : names)
        EXPECT_EQ(lanes_of_port(name, lanes), mask) << name;
}

TEST(identity, copper_has_no_light)
{
    /* A byte and its offset, the connector; whether the module is copper, and the connector
       reported. */
    const std::tuple<size_t, uint8_t, uint8_t, bool, uint8_t> cases[] = {
        {8, 0x04, 0x21, true, DOLM_SFP_CONNECTOR_RJ45},   /* passive cable */
        {8, 0x08, 0x21, true, DOLM_SFP_CONNECTOR_RJ45},   /* active cable */
        {3, 0x00, 0x23, false, DOLM_SFP_CONNECTOR_OTHER}, /* nothing tells */
        {8, 0x08, 0x23, false, DOLM_SFP_CONNECTOR_LC},    /* active optical cable */
        {6, 0x08, 0x00, true, DOLM_SFP_CONNECTOR_RJ45},   /* 1000BASE-T */
        {8, 0x00, 0x22, true, DOLM_SFP_CONNECTOR_RJ45},
        {36, 0x1c, 0x07, true, DOLM_SFP_CONNECTOR_RJ45}, /* 10GBASE-T */
        {36, 0x0c, 0x07, true, DOLM_SFP_CONNECTOR_RJ45}, /* 25GBASE-CR */
        {36, 0x02, 0x01, false, DOLM_SFP_CONNECTOR_LC},
        {55, '-', 0x07, true, DOLM_SFP_CONNECTOR_RJ45}, /* recognized by its name */
    };
    for (const auto &[at, byte, connector, is_copper, reported] : cases) {
        image made = sfp();
        if (at == 55)
            put_text(made.a0, 20, 16, "OEM"), put_text(made.a0, 40, 16, "SFP-10G-T");
        else
            made.a0[at] = byte;
        made.a0[2] = connector, made.a0[18] = 3, put_sum(made.a0, 0, 63);
        EXPECT_EQ(records_of(made).diag.diag_cap, is_copper ? not_light : all_five) << at;
        EXPECT_EQ(records_of(made).info.sfp.sfp_connector, reported) << at;
        dolm_ric_details_record details = {};
        take_module(made.read(), decode_module(made.read()), {}, details);
        EXPECT_EQ(details.identity.length[DOLM_RIC_LENGTH_CABLE], is_copper || at == 8 ? 3 : 0)
            << at;
    }
    for (const size_t at : {147u, 131u}) { /* technology, then the code of 40GBASE-CR4 */
        image cable = qsfp();
        cable.a0[at] = 0xa8, put_sum(cable.a0, 128, 191);
        EXPECT_EQ(records_of(cable).diag.diag_cap, not_light);
        std::fill_n(&cable.a0[22], 36, uint8_t{0});
        EXPECT_EQ(records_of(cable).diag_result, DOLM_RICERR_UNSUPPORTED);
    }
}

TEST(identity, speeds_have_codes)
{
    /* The bytes 3, 6, 11, 12 and 36. */
    const std::tuple<uint8_t, uint8_t, uint8_t, uint8_t, uint8_t, uint32_t> modules[] = {
        {0x20, 0, 6, 103, 0, 2},
        {0, 1, 1, 21, 0, 1},
        {0, 0x20, 2, 1, 0, 0x54530001},
        {0, 0x40, 2, 1, 0, 0x54530001},
        {0, 0x40, 1, 13, 0, 1},
        {0, 0, 8, 255, 0x3f, 0x545303e8},
        {0, 0, 3, 13, 0, 1},
        {0, 0, 6, 25, 0, 0x54530019},
        {0, 0, 6, 42, 0, 0},
        {0, 0, 8, 255, 0x41, 0x545301f4},
        {0, 0, 8, 250, 0, 0x545301f4},
        {0x10, 0, 6, 0, 5, 2}};
    for (const auto &[ten_gig, one_gig, encoding, rate, extended, code] : modules) {
        image made = sfp();
        made.a0[3] = ten_gig, made.a0[6] = one_gig, made.a0[11] = encoding;
        made.a0[12] = rate, made.a0[36] = extended, put_sum(made.a0, 0, 63);
        EXPECT_EQ(records_of(made).info.sfp.sfp_eth_speed, code);
    }
    image fast = sfp(); /* 255: byte 66 has the rate */
    fast.a0[3] = 0, fast.a0[12] = 255, fast.a0[66] = 103;
    put_sum(fast.a0, 0, 63), put_sum(fast.a0, 64, 95);
    EXPECT_EQ(records_of(fast).info.sfp.sfp_eth_speed, 0x545300fau);
    EXPECT_EQ(records_of(qsfp()).info.sfp.sfp_eth_speed, 0x545303e8u);
    EXPECT_EQ(records_of(cmis()).info.sfp.sfp_eth_speed, 0x54531f40u);
    const std::pair<uint32_t, uint32_t> links[] = {
        {10, 0},         {100, 0x54530001},   {1000, 0x5453000a},   {2500, 0x0002},
        {10000, 0x1000}, {25000, 0x545300fa}, {800000, 0x54531f40}, {UINT32_MAX - 1, 0}};
    for (const auto &[megabits, code] : links)
        EXPECT_EQ(link_speed_code(tenth_gbps_of(megabits)), code) << megabits;
    EXPECT_EQ(tenth_gbps_of(UINT32_MAX), 0u);
}

TEST(plan, reads_what_the_module_has_and_nothing_else)
{
    image plain = sfp(), garbled = sfp(), flat = qsfp();
    plain.a0[92] = 0, put_sum(plain.a0, 64, 95);
    garbled.a0[20] ^= 1;
    flat.a0[2] = 4;
    const std::pair<image, size_t> sizes[] = {
        {garbled, 1 + 96},
        {plain, 1 + 96 + 28},
        {sfp(), 1 + 96 + 28 + 120},
        {flat, 1 + 96 + 28 + 1 + 58 + 1},
        {qsfp(), 1 + 96 + 28 + 1 + 58 + 1 + 72},
        {cmis(), 1 + 95 + 24 + 34 + 24 + 2 * 128 + 2 * 87 + 4}};
    for (const auto &[module, expected] : sizes) {
        size_t size = 0;
        for (const reading_step &step : reading_plan(module.read()))
            size += step.range.length;
        EXPECT_EQ(size, expected);
    }
}

TEST(memory, gives_the_bytes_of_a_range)
{
    const auto time = [](int n) { return module_memory::time_point(std::chrono::seconds(n)); };
    const memory_range whole = {0x50, 0, 0, 0, 96}, part = {0x50, 0, 0, 68, 28};
    module_memory memory;
    memory.store(whole, bytes(96, 1), time(1));
    EXPECT_EQ(memory.bytes(part)[0], 1);
    EXPECT_TRUE(memory.bytes({0x51, 0, 0, 68, 28}).empty());
    EXPECT_TRUE(memory.bytes({0x50, 0, 0, 90, 7}).empty());
    memory.store(part, bytes(28, 2), time(2));
    EXPECT_EQ(memory.bytes(part)[27], 2);
    EXPECT_EQ(memory.read_at(part), time(2));
    memory.store(part, bytes(27, 3), time(3)); /* too few bytes count as a failed reading */
    EXPECT_EQ(memory.read_at(part), time(1));
    memory.clear();
    EXPECT_TRUE(memory.bytes(whole).empty());
}
