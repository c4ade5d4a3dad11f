/* SPDX-License-Identifier: Apache-2.0 */
/* The forecast over the history: a fade of weeks, restarts, and a module that leaves. */
#include "tesk_exporter/history_json.h"
#include "tesk_exporter/outlooks.h"
#include "tools/common/json_records.h"

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

using namespace exporter;
using history::measure;
using history::stored;

static constexpr int64_t day = 86400;

namespace
{

struct box {
    std::string folder = fmt::format("/dev/shm/tesk-outlooks-{}", getpid());
    history::clocks now{20'000 * day, 1000};
    outlooks ahead{};
    std::optional<history::chronicle> kept{};
    std::vector<outlooks::news> told{};
    double loss = 0; /* dB */

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
            kept->take({3, "eth3", "V", "P", "S1"},
                       {100,
                        {stored(measure::temperature, 40 + 3 * swing + noise), 16500,
                         stored(measure::rx_power, -5 - loss + noise),
                         stored(measure::tx_power, -2 + noise), stored(measure::bias, 30 + noise),
                         history::absent},
                        {},
                        {}},
                       now);
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
    on.restart();
    EXPECT_NEAR(days_left(), before, 3);
    on.run(1, 0.12);
    EXPECT_EQ(on.told.size(), 1) << on.told.back().told.reason;
    const auto answer = json_object::parse(on.ahead.json(*on.kept, on.now.boot));
    EXPECT_EQ(answer["forecasts"][0]["cause"], "light_lost");
    EXPECT_EQ(answer["forecasts"][0]["interface"], "eth3");
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
    on.ahead.know_limits(3, {forecast::limits{199.5, 316, 1000, 1995}}); /* -7 dBm */
    on.run(20, 0);
    on.run(12, 0.12);
    EXPECT_NEAR(on.ahead.samples(*on.kept, on.now.boot).at(0).days_left, (2 - on.loss) / 0.12, 3);
    const auto answer = json_object::parse(on.ahead.json(*on.kept, on.now.boot))["forecasts"][0];
    EXPECT_TRUE(answer["limit"] == "module" && answer["lane"] == 0) << answer;
    on.now = {on.now.wall + 3 * day, on.now.boot + 3 * day};
    on.settle();
    ASSERT_EQ(on.told.size(), 2);
    EXPECT_EQ(on.told[1].told.reason, "There have been no readings for two days.");
}

TEST(outlooks, weeks_of_a_port_are_read_at_once)
{
    box on;
    on.run(10, 0);
    const auto start = std::chrono::steady_clock::now();
    const auto answer = json_object::parse(history_json(*on.kept, 3, history::HOURS, on.now.boot));
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - start;
    RecordProperty("ms", std::to_string(taken.count()));
    EXPECT_EQ(answer["time"].size(), 240);
    EXPECT_EQ(answer["time"][0], 20'000 * day);
    const auto &powers = answer["lanes"][0]["rx_power_dbm"];
    EXPECT_EQ(powers.size(), 240);
    EXPECT_LE(powers[7][0], powers[7][1]);
    EXPECT_NEAR(powers[7][1].get<double>(), -5, 0.05);
    EXPECT_EQ(answer["modules"][0]["until"], nullptr);
    EXPECT_EQ(history_json(*on.kept, 4, history::HOURS, on.now.boot), "");
}
