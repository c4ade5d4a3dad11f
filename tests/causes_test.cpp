/* SPDX-License-Identifier: Apache-2.0 */
/* Facts and verdicts. A case is the fall of a healthy link of four lanes with some facts changed;
   null removes a fact. */
#include "causes/facts_json.h"
#include "causes/verdict.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace causes;
using json = nlohmann::ordered_json;

/* No fact but the fall itself is abnormal. */
static const json healthy = json::parse(R"({
    "time": 1000, "clock_error_s": 0.01, "up_for_s": 5000, "falls_in_minute": 1,
    "device_others_fell": 0, "device_others_stayed": 3, "machine_others_fell": 0,
    "machine_others_stayed": 4, "set_down": false, "interface_removed": false,
    "interface_moved": false, "driver_unbound": false, "device_removed": false,
    "device_reset": false, "settings_changed": false, "remote_fault": false,
    "present_before": true, "present_after": true, "serial_before": "A", "serial_after": "A", "serial_after_s": 2,
    "medium": "light", "state_before": "ready", "state_after": "ready",
    "temperature_before": 40, "temperature_high_alarm": 75, "rx_before": [-2, -2, -2, -2],
    "rx_after": [-2, -2, -2, -2], "tx_before": [0, 0, 0, 0], "tx_after": [0, 0, 0, 0],
    "bias_before": [30, 30, 30, 30], "bias_after": [30, 30, 30, 30],
    "rx_los_after": [0, 0, 0, 0], "rx_lol_after": [0, 0, 0, 0], "tx_fault_before": [0, 0, 0, 0],
    "tx_fault_after": [0, 0, 0, 0], "tx_off_before": [0, 0, 0, 0], "tx_off_after": [0, 0, 0, 0],
    "rx_low_alarm": -12, "rx_lost_before": 0, "errors_before": 1e-9, "errors_limit": 2e-4})");

static constexpr char dark[] = R"("rx_after": [-40, -40, -40, -40], "rx_los_after": [1, 1, 1, 1])";

/* Another module is read two seconds after the fall. */
static const std::string swapped =
    R"("serial_after": "B", "present_after": false, "state_after": null, "rx_after": null,
       "rx_los_after": null, "rx_lol_after": null, "tx_fault_after": null)";

static facts facts_with(const std::string &changes)
{
    json object = healthy;
    const json changed = json::parse("{" + changes + "}");
    for (const auto &[key, value] : changed.items())
        object[key] = value;
    return facts_from(object);
}

static const struct {
    std::string changes;
    const char *cause;
    causes::certainty certainty;
} cases[] = {
    {R"("set_down": true)", "set down", certainty::certain},
    {R"("set_down": true, "serial_after": null)", "set down", certainty::likely},
    {R"("set_down": true, "driver_error": "fw_fatal")", "set down", certainty::likely},
    {R"("set_down": true, "interface_removed": null, "left_after_s": 5)", "set down",
     certainty::possible},
    {R"("set_down": true, "device_reset": null)", "set down", certainty::likely},
    {R"("set_down": true, "device_others_fell": 1)", "set down", certainty::likely},
    {R"("set_down": true, "tx_fault_after": null)", "set down", certainty::likely},
    {R"("set_down": true, "rx_los_after": null)", "set down", certainty::likely},
    {R"("set_down": true, "falls_in_minute": 9)", "set down", certainty::likely},
    {R"("set_down": true, "settings_changed": true)", "set down", certainty::likely},
    {std::string(R"("set_down": true, )") + dark, "set down", certainty::likely},
    {R"("set_down": true, "rx_after": null, "rx_los_after": null)", "set down", certainty::likely},
    {R"("set_down": true, "medium": "copper", "rx_before": null, "rx_after": null)", "set down",
     certainty::certain},
    {R"("set_down": true, "serial_after": "B")", "set down", certainty::likely},
    {R"("set_down": true, "interface_moved": true, "interface_removed": true)", "interface moved",
     certainty::certain},
    {R"("set_down": true, "driver_unbound": true, "interface_removed": true)", "driver gone",
     certainty::certain},
    {R"("driver_unbound": true, "device_removed": true, "interface_removed": true)", "driver gone",
     certainty::certain},
    {R"("driver_unbound": true)", "driver gone", certainty::possible}, /* its interface stayed */
    {R"("interface_removed": true, "set_down": true)", "interface gone", certainty::certain},
    {R"("interface_removed": true, "driver_unbound": null)", "interface gone", certainty::likely},
    {R"("device_reset": true, "device_others_fell": 3, "device_others_stayed": 0)", "device reset",
     certainty::certain},
    {R"("device_reset": true, "device_others_fell": 2)", "device reset", certainty::likely},
    {std::string(R"("device_reset": true, "device_others_fell": 3, "device_others_stayed": 0, )") +
         dark,
     "device reset", certainty::likely},
    {R"("device_others_fell": 3, "device_others_stayed": 0)", "device reset", certainty::likely},
    {R"("device_others_fell": 1, "device_others_stayed": 0, "remote_fault": true)", "device reset",
     certainty::possible},
    {R"("device_others_fell": 1, "device_others_stayed": 0, "rx_after": [-2, -40, -2, -2])",
     "lane lost", certainty::likely},
    {R"("device_others_fell": 2, "device_others_stayed": 1)", "not known", certainty::possible},
    {R"("machine_others_fell": 4, "machine_others_stayed": 0)", "not known", certainty::possible},
    {std::string(R"("rx_lost_before": 37, "rx_before": [-40, -40, -40, -40], )") + dark,
     "not known", certainty::possible},
    {std::string(R"("device_others_fell": 3, "device_others_stayed": 0, )") + dark, "light lost",
     certainty::likely},
    {R"("device_others_fell": 3, "device_others_stayed": 0, "machine_others_fell": 4,
        "machine_others_stayed": 0)",
     "machine-wide", certainty::likely},
    {swapped, "module replaced", certainty::certain},
    {R"("serial_after": "B")", "module replaced", certainty::likely},
    {swapped + R"(, "device_others_fell": null)", "module replaced", certainty::likely},
    {swapped + R"(, "device_others_fell": 3, "device_others_stayed": 0)", "module replaced",
     certainty::likely},
    {swapped + R"(, "rx_lost_before": 9, "rx_before": [-11, -11, -11, -11])", "module replaced",
     certainty::likely},
    {swapped + R"(, "uncorrectable_in_minute": 90000)", "module replaced", certainty::likely},
    {swapped + R"(, "temperature_before": 82)", "module replaced", certainty::likely},
    {swapped + R"(, "present_before": null)", "module replaced", certainty::likely},
    {swapped + R"(, "serial_after_s": null)", "module pulled", certainty::possible},
    {std::string(R"("interface_removed": true, )") + dark, "interface gone", certainty::likely},
    {R"("interface_moved": true, "uncorrectable_in_minute": 4000)", "interface moved",
     certainty::likely},
    {R"("serial_after": "B", "present_before": false)", "module replaced", certainty::possible},
    {R"("serial_before": "ABC123", "serial_after": "abc1")", "not known", certainty::possible},
    {R"("serial_after": "B", "serial_after_s": 60)", "not known", certainty::possible},
    {R"("serial_after": "ÿÿ", "serial_after_s": 1)", "not known", certainty::possible},
    {R"("temperature_high_alarm": 0, "state_after": "starting")", "module failed",
     certainty::likely},
    {R"("medium": null, "rx_before": null, "rx_after": [-40, -40, -40, -40])", "not known",
     certainty::possible},
    {std::string(R"("serial_after": "B", "serial_after_s": 60, )") + dark, "light lost",
     certainty::likely},
    {R"("present_after": false, "state_after": null, "serial_after": null)", "module pulled",
     certainty::likely},
    {R"("present_after": false, "interface_removed": true)", "interface gone", certainty::possible},
    {R"("state_after": "starting")", "module failed", certainty::likely},
    {R"("state_after": "fault", "temperature_before": 80)", "module hot", certainty::likely},
    {R"("temperature_before": 80)", "not known", certainty::possible},
    {R"("state_after": "fault", "temperature_before": null, "extended_state": "Overheat")",
     "module hot", certainty::likely},
    {R"("extended_state": "Overheat")", "module hot", certainty::possible},
    {R"("extended_state": "No cable", "present_after": null)", "module pulled",
     certainty::possible},
    {R"("extended_state": "No cable")", "not known", certainty::possible},
    {R"("extended_state": "Power budget exceeded")", "module failed", certainty::possible},
    {std::string(R"("temperature_before": 80, )") + dark, "light lost", certainty::possible},
    {R"("tx_fault_after": [0, 1, 0, 0])", "transmitter fault", certainty::likely},
    {std::string(R"("tx_fault_after": [0, 1, 0, 0], )") + dark, "transmitter fault",
     certainty::possible},
    {R"("tx_fault_after": [0, 1, 0, 0], "tx_fault_before": [0, 1, 0, 0])", "not known",
     certainty::possible},
    {R"("bias_after": [0, 0, 0, 0], "tx_after": [-40, -40, -40, -40])", "laser dark",
     certainty::likely},
    {std::string(R"("bias_after": [0, 0, 0, 0], "tx_off_after": [1, 1, 1, 1], )") + dark,
     "light lost", certainty::possible},
    {R"("settings_changed": true)", "settings differ", certainty::likely},
    {R"("rx_lost_before": 5, "rx_before": [-11, -11, -11, -11], "rx_after": [-14, -14, -14, -14])",
     "light faded", certainty::likely},
    {R"("rx_before": [-11, -2, -2, -2], "rx_after": [-13, -2, -2, -2], "rx_los_after": [1, 0, 0, 0])",
     "light faded", certainty::likely},
    {R"("rx_lost_before": 4, "rx_before": [-10, -2, -2, -2], "rx_after": [-20, -2, -2, -2])",
     "light faded", certainty::likely}, /* the weakest lane was near the limit before */
    {R"("rx_low_alarm": null, "rx_before": [-20, -2, -2, -2], "rx_after": [-20.2, -2, -2, -2])",
     "not known", certainty::possible},
    {R"("rx_lost_before": 5, "rx_before": [-40, -2, -2, -2], "rx_after": [-40, -2, -2, -2])",
     "not known", certainty::possible}, /* the lane was dark long before */
    {std::string(R"("rx_lost_before": 4, "rx_before": [-8, -8, -8, -8], )") + dark, "light lost",
     certainty::likely},
    {R"("rx_lost_before": 3, "remote_fault": true)", "far side deaf", certainty::likely},
    {dark, "light lost", certainty::likely},
    {std::string(R"("rx_lost_before": null, )") + dark, "light lost", certainty::possible},
    {std::string(R"("rx_after": null, "rx_los_after": [1, 1, 1, 1])"), "light lost",
     certainty::likely},
    {std::string(R"("rx_before": null, )") + dark, "light lost", certainty::possible},
    {R"("rx_before": [-40, -40, -40, -40], "rx_after": null, "rx_los_after": [1, 1, 1, 1])",
     "not known", certainty::possible},
    {R"("rx_los_after": [1, 1, 1, 1], "remote_fault": true)", "far side deaf",
     certainty::possible}, /* the levels contradict */
    {R"("rx_after": [-2, -40, -2, -2], "rx_los_after": [0, 1, 0, 0])", "lane lost",
     certainty::likely},
    {R"("remote_fault": true)", "far side deaf", certainty::likely},
    {R"("remote_fault": true, "bias_after": null, "tx_after": null)", "far side deaf",
     certainty::possible},
    {R"("uncorrectable_in_minute": 12)", "errors rose", certainty::likely},
    {R"("symbol_errors_in_minute": 11)", "errors rose", certainty::likely},
    {R"("frame_errors_in_minute": 10)", "not known", certainty::possible},
    {R"("errors_before": 5e-5)", "errors rose", certainty::likely},
    {R"("errors_before": 5e-6)", "not known", certainty::possible},
    {R"("errors_limit": 0)", "not known", certainty::possible},
    {R"("rx_lol_after": [0, 0, 0, 1])", "no lock", certainty::likely},
    {R"("extended_state": "Autoneg")", "negotiation failed", certainty::likely},
    {R"("extended_state": "Autoneg", "negotiates": false)", "negotiation failed",
     certainty::possible},
    {std::string(R"("extended_state": "Autoneg", )") + dark, "light lost", certainty::likely},
    {R"("extended_state": "Autoneg", "medium": "copper", "rx_before": null, "rx_after": null)",
     "negotiation failed", certainty::possible},
    {R"("rx_after": [-20, -19, -21, -20], "rx_los_after": [1, 1, 1, 1])", "light lost",
     certainty::likely},
    {R"("falls_in_hour": 37)", "flapping", certainty::possible},
    {R"("falls_in_minute": 9)", "flapping", certainty::possible},
    {R"("falls_in_minute": 2)", "not known", certainty::possible},
    {"", "not known", certainty::possible},
};

TEST(causes, each_fall_has_its_verdict)
{
    for (const auto &its : cases) {
        const verdict made = judge(facts_with(its.changes));
        EXPECT_STREQ(name_of(made.cause), its.cause) << its.changes;
        EXPECT_EQ(made.certainty, its.certainty) << its.changes;
        EXPECT_GE(made.evidence.size(), made.cause == cause::not_known ? 1u : 2u) << its.changes;
        EXPECT_EQ(made.settle.empty(), made.certainty == certainty::certain);
        EXPECT_FALSE(made.action.empty());
    }
}

/* Fewer facts, and facts of two causes at once. */
TEST(causes, no_other_cause_becomes_certain_when_facts_are_missing_or_mixed)
{
    /* Few ports report these facts, and an interface that was removed has no light to look at:
       without them the kernel's message decides. */
    static constexpr const char *hints[] = {"driver_error",
                                            "left_after_s",
                                            "falls_in_minute",
                                            "settings_changed",
                                            "rx_after, \frx_los_after",
                                            "rx_lost_before",
                                            "temperature",
                                            "uncorrectable",
                                            "state_after"};
    size_t tried = 0;
    const auto expect_no_other = [&](const verdict &with, const facts &fewer,
                                     const std::string &what) {
        const verdict made = judge(fewer);
        tried++;
        EXPECT_TRUE(made.certainty != certainty::certain || made.cause == with.cause) << what;
        EXPECT_TRUE(made.certainty != certainty::certain || with.certainty == certainty::certain ||
                    !with.conflicts.empty() ||
                    std::ranges::any_of(hints,
                                        [&](const char *hint) {
                                            return what.find(std::string("\f") + hint) !=
                                                   std::string::npos;
                                        }))
            << what;
    };
    for (const auto &its : cases) {
        const facts all = facts_with(its.changes);
        const verdict with = judge(all);
        for (const auto &[first, fewer] : without_each(all)) {
            expect_no_other(with, fewer, its.changes + " without \f" + first);
            for (const auto &[second, fewest] : without_each(fewer))
                if (first < second)
                    expect_no_other(with, fewest,
                                    its.changes + " without \f" + first + ", \f" + second);
        }
        for (const auto &other : cases) {
            const std::string both = its.changes +
                                     (its.changes.empty() || other.changes.empty() ? "" : ", ") +
                                     other.changes;
            const verdict mixed = judge(facts_with(both));
            EXPECT_TRUE(mixed.certainty != certainty::certain ||
                        name_of(mixed.cause) == std::string(its.cause) ||
                        name_of(mixed.cause) == std::string(other.cause))
                << both;
        }
    }
    EXPECT_GT(tried, 20'000u);
}

TEST(causes, a_link_that_came_back_worse_is_ill)
{
    const auto ills = [](const std::string &changes) {
        return judge(facts_with(R"("is_up": true, "down_for_s": 3, )" + changes)).ill.size();
    };
    EXPECT_EQ(ills(R"("rx_again": [-2, -2, -2, -2], "errors_again": 2e-9)"), 0u);
    EXPECT_EQ(ills(R"("rx_again": [-2, -2, -5, -2], "errors_again": 3e-5)"), 2u);
    EXPECT_EQ(ills(R"("speed_before": 100000, "speed_after": 25000, "lanes_before": 4,
                       "lanes_after": 1)"),
              2u);
    EXPECT_EQ(ills(R"("settings_changed": true, "speed_before": 100000, "speed_after": 25000)"),
              0u);
    EXPECT_EQ(ills(R"("serial_after": "B", "rx_again": [-5, -5, -5, -5], "errors_again": 1e-6)"),
              0u)
        << "of another module";
}

TEST(causes, two_ends_tell_more_as_far_as_their_clocks_allow)
{
    const struct {
        std::string here, there;
        const char *cause;
        causes::side side;
        bool is_known, here_first;
    } rows[] = {
        {dark, R"("set_down": true, "time": 997)", "set down", side::remote, true, false},
        {dark, R"("set_down": true, "time": 1001)", "set down", side::remote, false, true},
        {dark, R"("set_down": true, "time": 997.5, "clock_error_s": 3)", "set down", side::remote,
         false, false},
        {dark, R"("set_down": true, "time": 1002)", "light lost", side::between, true, true},
        {dark, R"("set_down": true, "time": 990)", "light lost", side::unknown, false, false},
        {dark, R"("set_down": true, "time": null)", "set down", side::remote, false, false},
        {R"("remote_fault": true)", dark, "far side deaf", side::between, false, false},
        {R"("rx_after": null, "rx_los_after": null)", dark, "light lost", side::unknown, false,
         false},
        {dark, R"("bias_after": [0, 0, 0, 0], "time": 997)", "laser dark", side::remote, true,
         false},
        {dark, R"("bias_after": [8, 8, 8, 0], "time": 997)", "light lost", side::unknown, true,
         false},
        {dark, R"("tx_off_before": null, "tx_off_after": [0, 1, 0, 0], "time": 997)", "light lost",
         side::unknown, true, false},
        {dark, R"("clock_error_s": null, "set_down": true, "time": 900)", "light lost",
         side::unknown, false, false},
        {dark, R"("clock_error_s": null)", "light lost", side::between, false, false},
        {dark, R"("set_down": true, "time": 900)", "light lost", side::unknown, false, false},
        {R"("serial_after": "B")", R"("set_down": true)", "module replaced", side::local, false,
         false},
    };
    for (const auto &its : rows) {
        order who;
        const verdict made = judge_both(facts_with(its.here), facts_with(its.there), who);
        EXPECT_STREQ(name_of(made.cause), its.cause) << its.there;
        EXPECT_EQ(made.side, its.side) << its.there;
        EXPECT_EQ(who.is_known, its.is_known) << its.there;
        EXPECT_TRUE(!who.is_known || who.here_first == its.here_first) << its.there;
        EXPECT_TRUE(made.certainty != certainty::certain || made.side == side::local);
    }
}

TEST(causes, facts_of_the_other_end_that_contradict_lower_the_certainty)
{
    order who;
    for (const auto &[negotiates, expected] :
         {std::pair{"true", certainty::likely}, {"false", certainty::possible}}) {
        const std::string there =
            std::string(R"("extended_state": "Autoneg", "negotiates": )") + negotiates;
        const verdict made = judge_both(facts_with(dark), facts_with(there), who);
        EXPECT_EQ(made.side, side::between);
        EXPECT_EQ(made.certainty, expected) << there;
    }
}

TEST(causes, sentences_have_the_lanes_and_ports_that_are_meant)
{
    static const std::pair<const char *, const char *> rows[] = {
        {R"("rx_after": [-2, -40, -2, -40])", " on lanes 1, 3 of 4"},
        {R"("up_for_s": 7199)", "It had been up for 119 minutes."},
        {R"("set_down": true, "device_others_fell": 2, "device_others_stayed": 1,
            "machine_others_fell": 4)",
         "of the device fell within a second, too: 2; 1 stayed up."}};
    for (const auto &[changes, part] : rows) {
        std::string all;
        for (const std::string &each : judge(facts_with(changes)).evidence)
            all += each;
        EXPECT_NE(all.find(part), std::string::npos) << all;
    }
}

TEST(causes, the_record_of_this_end_is_not_the_other_ends)
{
    const facts here = facts_with(std::string(R"("boot": "b", "interface": "eth1", )") + dark);
    order who;
    EXPECT_EQ(judge_both(here, here, who).side, side::unknown);
    EXPECT_FALSE(who.is_one_fall);
}

TEST(causes, facts_are_read_strictly_and_written_as_they_were)
{
    EXPECT_EQ(to_json(facts_from(healthy)), healthy);
    for (const char *wrong :
         {"[]", R"({"rx": 1})", R"({"set_down": 1})", R"({"time": "now"})", R"({"rx_before": []})",
          R"({"rx_before": [1, "2"]})", R"({"rx_before": [1], "rx_after": [1, 2]})",
          R"({"rx_before": [1, 2], "rx_after": [1]})", R"({"errors_before": 2})",
          R"({"medium": 3})", R"({"state_after": "broken"})", R"({"rx_after": [1e99]})"})
        EXPECT_THROW(facts_from(json::parse(wrong)), facts_error) << wrong;
    std::ifstream examples(TESK_SOURCE_DIR "/examples/facts/falls.jsonl");
    std::string found;
    for (std::string line; std::getline(examples, line);)
        found += std::string(name_of(judge(facts_from(json::parse(line))).cause)) + ';';
    EXPECT_EQ(found, "set down;light lost;light faded;module pulled;far side deaf;"
                     "negotiation failed;");
}
