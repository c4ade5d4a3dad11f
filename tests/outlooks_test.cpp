/* SPDX-License-Identifier: Apache-2.0 */
/* The forecast over the history: a fade of weeks, restarts, and a module that is removed. */
#include "program/json_records.h"
#include "tesk_exporter/history_json.h"
#include "tesk_exporter/history_keeper.h"
#include "tesk_exporter/outlooks.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/syscall.h>
#include <unistd.h>

using namespace exporter;
using history::measure;
using history::stored;

static constexpr int64_t day = 86400;

/* How many seconds the test's clock is ahead of the system's. */
static std::atomic<int64_t> ahead_by{0};

extern "C" int clock_gettime(clockid_t clock, timespec *now)
{
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec += ahead_by;
    return result;
}

namespace
{

struct box {
    std::string folder = fmt::format("/dev/shm/tesk-outlooks-{}", getpid());
    history::clocks now{20'000 * day, 1000};
    outlooks ahead{};
    std::optional<history::chronicle> kept{};
    std::vector<outlooks::news> told{};
    double loss = 0; /* dB */
    std::string serial = "S1";
    uint8_t link = 100;
    bool has_light = true, has_second_lane = false;

    box()
    {
        std::filesystem::remove_all(folder);
        start();
    }
    ~box()
    {
        std::filesystem::remove_all(folder);
    }
    void start()
    {
        kept.emplace(history::chronicle::settings{
            folder, 256 << 20, [](const std::string &text) { ADD_FAILURE() << text; },
            [this](const history::place &of, int64_t time, const history::record &read) {
                ahead.feed(of, time, read);
            }});
        kept->advance(now);
        ahead.restore(*kept);
        settle();
    }
    void settle()
    {
        for (outlooks::news &each : ahead.settle(*kept, now))
            told.push_back(std::move(each));
    }
    void restart()
    {
        kept->close(now);
        start();
    }
    void run(int days, double loss_a_day)
    {
        for (int i = 0; i < days * 288; i++) {
            const double swing = std::sin(static_cast<double>(now.wall % day) / day * 2 * M_PI),
                         noise = 0.02 * std::sin(i * 12.9898) + 0.01 * std::cos(i * 78.233);
            const int16_t light =
                has_light ? stored(measure::rx_power, -5 - loss + noise) : history::absent;
            history::row values = {stored(measure::temperature, 40 + 3 * swing + noise),
                                   16500,
                                   light,
                                   stored(measure::tx_power, -2 + noise),
                                   stored(measure::bias, 30 + noise),
                                   history::absent};
            if (has_second_lane)
                values.insert(values.end(), values.begin() + 2, values.begin() + 6);
            kept->take({3, "eth3", "V", "P", serial}, {link, std::move(values), {}, {}}, now);
            loss += loss_a_day / 288;
            now.wall += 300;
            now.boot += 300;
            kept->advance(now);
            settle();
        }
    }
};

} // namespace

TEST(outlooks, announce_a_fade_once_and_withdraw_it_with_its_module)
{
    box on;
    on.run(20, 0);
    EXPECT_TRUE(on.told.empty());
    on.run(12, 0.12);
    ASSERT_EQ(on.told.size(), 1);
    EXPECT_TRUE(on.told[0].is_raised);
    EXPECT_EQ(on.told[0].told.value, forecast::quantity::rx_power);
    const auto days_left = [&on] {
        return on.ahead.samples(*on.kept, on.now.boot).at(0).days_left;
    };
    const double before = days_left();
    EXPECT_NEAR(before, (3 - on.loss) / 0.12, 4);
    EXPECT_NEAR(on.ahead.samples(*on.kept, on.now.boot + day).at(0).days_left, before - 1, 0.01);
    on.restart();
    EXPECT_NEAR(days_left(), before, 3);
    on.run(7, 0.12);
    EXPECT_EQ(on.told.size(), 1) << on.told.back().told.reason;
    const auto answer = json_object::parse(on.ahead.json(*on.kept, on.now.boot))["forecasts"][0];
    EXPECT_TRUE(answer["cause"] == "light_lost" && answer["interface"] == "eth3") << answer;
    /* The interval is computed now; it isn't the remainder of the announced one. */
    EXPECT_NEAR(answer["days_left"].get<double>(), (3 - on.loss) / 0.12, 1.5);
    EXPECT_GT(answer["low"].get<double>(), 1.5) << answer;
    EXPECT_LT(answer["high"].get<double>(), 12) << answer;
    on.kept->vacate(3);
    on.settle();
    ASSERT_EQ(on.told.size(), 2);
    EXPECT_EQ(on.told[1].told.reason, "The module isn't in the port any more.");
    EXPECT_TRUE(on.ahead.samples(*on.kept, on.now.boot).empty());
    EXPECT_EQ(on.kept->events(3, 0, 10).size(), 2);
}

TEST(outlooks, withdraw_what_no_reading_supports)
{
    box on;
    on.run(20, 0);
    on.ahead.know_limits(*on.kept, 3, {forecast::limits{199.5, 316, 1000, 1995}}); /* -7 dBm */
    on.run(12, 0.12);
    EXPECT_NEAR(on.ahead.samples(*on.kept, on.now.boot).at(0).days_left, (2 - on.loss) / 0.12, 3);
    on.restart(); /* no module is read yet */
    const auto answer = json_object::parse(on.ahead.json(*on.kept, on.now.boot))["forecasts"][0];
    EXPECT_TRUE(answer["limit"] == "module" && answer["lane"] == 0) << answer;
    on.has_second_lane = true; /* as when details become available: no series begins again */
    on.run(1, 0.12);
    EXPECT_EQ(on.told.size(), 1) << on.told.back().told.reason;
    on.has_light = false;
    on.run(3, 0.12);
    ASSERT_EQ(on.told.size(), 2);
    EXPECT_EQ(on.told[1].told.reason, "There have been no readings for two days.");
}

TEST(outlooks, light_that_ends_with_the_link_is_no_fade)
{
    box on;
    on.run(20, 0);
    on.link = 0;
    on.run(12, 0.12);
    EXPECT_TRUE(on.told.empty()) << on.told[0].told.reason;
}

/* A second module is in the port for two of ten days. */
TEST(outlooks, weeks_of_a_port_are_read_at_once)
{
    box on;
    on.run(4, 0);
    on.serial = "S2";
    on.run(2, 0);
    on.serial = "S1";
    on.run(4, 0);
    const auto start = std::chrono::steady_clock::now();
    const auto answer =
        json_object::parse(history_json(*on.kept, 3, history::hour_rows, on.now.boot));
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - start;
    RecordProperty("ms", std::to_string(taken.count()));
    EXPECT_EQ(answer["time"].size(), 240);
    EXPECT_EQ(answer["time"][0], 20'000 * day);
    const auto &powers = answer["lanes"][0]["rx_power_dbm"];
    EXPECT_EQ(powers.size(), 240);
    EXPECT_LE(powers[7][0], powers[7][1]);
    EXPECT_NEAR(powers[7][1].get<double>(), -5, 0.05);
    EXPECT_TRUE(std::ranges::is_sorted(answer["time"]));
    EXPECT_EQ(answer["modules"][0]["until"], nullptr);
    EXPECT_EQ(answer["modules"][1]["until"], 20'000 * day + 6 * day - 300);
    EXPECT_EQ(history_json(*on.kept, 4, history::hour_rows, on.now.boot), "");
}

/* The lanes of the details if there are several, else the server's values. */
TEST(outlooks, the_keeper_takes_what_a_port_measures_until_it_is_empty)
{
    const testkit::directory place;
    history_keeper keeper(place.path + "/history", 256 << 20, false);
    const auto ask = [&](history_question::kind what) {
        keeper.ask({what, 3, history::step_rows, true});
        testkit::await(keeper.fd(), "the answer");
        return json_object::parse(keeper.take_answers().at(0).text);
    };
    port_state port{};
    port.number = 3;
    port.info = tesk_client_sfp_info{};
    port.status = tesk_client_port_status{};
    port.status->link = TESK_CLIENT_LINK_OPERATIONAL;
    port.reading = tesk_client_pm{};
    port.reading->has_rx_power = port.reading->has_tx_power = port.reading->has_tx_bias = true;
    port.reading->rx_power = 100, port.reading->tx_power = 1000, port.reading->tx_bias = 3000;
    auto details = std::make_unique<dolm_ric_details_record>();
    details->presence = DOLM_RIC_PRESENCE_READY;
    details->lane_count = 2;
    details->own_lanes = 2;
    for (auto &lane : details->lane)
        for (auto &value : lane.value)
            value.state = DOLM_RIC_VALUE_VALID, value.value = 0.1;
    details->lane[1].value[DOLM_RIC_TX_POWER].value = 2;
    for (const bool has_lanes : {false, true}) {
        keeper.take(port, has_lanes ? details.get() : nullptr);
        ask(history_question::kind::modules); /* the reading is taken before the clock moves */
        ahead_by += 300;
    }
    const auto lanes = ask(history_question::kind::port)["lanes"];
    EXPECT_EQ(lanes[0]["rx_power_dbm"].dump() + lanes[0]["tx_power_dbm"].dump() +
                  lanes[0]["tx_bias_ma"].dump(),
              "[-10.0,null][0.0,null][30.0,null]");
    EXPECT_EQ(lanes[1]["rx_power_dbm"].dump() + lanes[1]["tx_power_dbm"].dump(),
              "[null,-10.0][null,3.01]");
    const auto is_present = [&] {
        return ask(history_question::kind::modules)["modules"][0]["places"][0]["present"];
    };
    EXPECT_EQ(is_present(), true);
    port.info->port_no = 3;
    port.info->type = TESK_CLIENT_SFP_NOT_PRESENT;
    keeper.note({1, 0, change::removed, *port.info, ""});
    EXPECT_EQ(is_present(), false);
    ahead_by = 0;
}
