/* SPDX-License-Identifier: Apache-2.0 */
/* The forecast on small series with known results, and the replay of damaged files. */
#include "forecast/forecast.h"
#include "tesk_exporter/replay.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <zlib.h>

using namespace forecast;

static constexpr int64_t start = 1767225600;

/* A simplified reading: light in dBm. */
struct sample {
    double day, temperature, rx, tx, bias;
    bool has_link, has_module, is_missing;
    std::string serial;
    int64_t time;
    double step_uw = 0.1, rx_limit = 125.9;
};
using world = std::function<void(sample &)>;

static double since(const sample &s, double day)
{
    return std::max(0.0, s.day - day);
}

/* A module with a drift of 0.08 dB per degree in a room whose temperature varies by three degrees;
   limits: light of -9 dBm, 12 mA, 78 degrees. */
static std::vector<report> reports_of(const world &change, int days_of_it = 60)
{
    port watched;
    watched.set_limits(quantity::tx_power, {125.9, 150, 1000, 1500});
    watched.set_limits(quantity::bias, {2, 3, 11, 12});
    watched.set_limits(quantity::temperature, {-13, -8, 73, 78});
    std::mt19937 random(7);
    std::normal_distribution<double> noise;
    std::vector<report> reports;
    sample last{};
    for (int row = 0; row < days_of_it * 288; row++) {
        sample s{.day = row / 288.0,
                 .temperature = 40,
                 .rx = -6,
                 .tx = -4,
                 .bias = 6,
                 .has_link = true,
                 .has_module = true,
                 .is_missing = false,
                 .serial = "A",
                 .time = start + int64_t{row} * 300};
        s.temperature += 3 * std::sin(6.2832 * s.day) + 0.2 * noise(random);
        change(s);
        watched.set_limits(quantity::rx_power, {s.rx_limit, s.rx_limit + 10, 1000, 1500});
        s.rx += 0.08 * (s.temperature - 40) + 0.03 * noise(random);
        s.bias *= std::exp(0.012 * (s.temperature - 40)) * (1 + 0.003 * noise(random));
        s.tx += 0.01 * noise(random);
        if (s.is_missing)
            continue;
        const auto steps = [&s](double uw) { return std::round(uw / s.step_uw) * s.step_uw; };
        const lane_reading lane{s.has_link ? steps(1000 * std::pow(10, s.rx / 10)) : 0,
                                steps(1000 * std::pow(10, s.tx / 10)), s.bias, NAN};
        watched.feed({s.time, s.has_link, s.has_module, s.serial, s.temperature, 3.3, {&lane, 1}},
                     reports);
    }
    return reports;
}

static double day_of(const report &told)
{
    return static_cast<double>(told.time - start) / 86400;
}

static std::string text_of(const report &told)
{
    return std::to_string(day_of(told)) + " " + name_of(told.value) + " " + name_of(told.cause) +
           " " + std::to_string(static_cast<int>(told.what)) + ": " + told.reason + "\n";
}

/* Failures to announce: value, cause, latest day of the announcement, day on which the limit is
   reached. */
TEST(Forecast, announces_what_fails)
{
    const struct {
        const char *name;
        quantity value;
        cause why;
        double by, limit;
        world change;
    } rows[] = {
        {"fade", quantity::rx_power, cause::light_lost, 23, 35,
         [](sample &s) { s.rx -= 0.15 * since(s, 15); }},
        {"slow fade while it warms", quantity::rx_power, cause::light_lost, 46, 54,
         [](sample &s) {
             s.temperature += 0.1 * s.day;
             s.rx -= 0.085 * since(s, 15);
         }},
        {"fast fade", quantity::rx_power, cause::light_lost, 27, 28,
         [](sample &s) { s.rx -= since(s, 25); }},
        {"fade over gaps and flaps", quantity::rx_power, cause::light_lost, 28, 35,
         [](sample &s) {
             s.rx -= 0.15 * since(s, 15);
             s.is_missing = s.day > 25 && s.day < 27.5;
             s.has_link = std::fmod(s.day, 1.7) > 0.01;
         }},
        {"another limit", quantity::rx_power, cause::light_lost, 33, 35,
         [](sample &s) {
             s.rx -= 0.05 * since(s, 15);
             s.rx_limit = s.day > 30 ? 199.5 : 125.9;
         }},
        {"fade of a module that came beyond its limit", quantity::rx_power, cause::light_lost, 23,
         35,
         [](sample &s) {
             s.serial = s.day > 8 ? "B" : "A";
             s.rx -= (s.day > 8 ? 5 : 0) + 0.15 * since(s, 15);
         }},
        {"ageing laser", quantity::bias, cause::laser_ageing, 36, 45,
         [](sample &s) { s.bias *= 1 + 0.04 * since(s, 20); }},
        {"laser without reserve", quantity::tx_power, cause::laser_ageing, 38, 45,
         [](sample &s) { s.tx -= 0.2 * since(s, 20); }},
        {"creeping temperature", quantity::temperature, cause::overheating, 38, 49,
         [](sample &s) { s.temperature += 1.2 * since(s, 20); }},
    };
    for (const auto &row : rows) {
        std::string all;
        const report *standing = nullptr;
        const auto reports = reports_of(row.change);
        for (const report &told : reports) {
            all += text_of(told);
            const double day = day_of(told);
            if (told.value != row.value || told.what == change::notice || day > row.limit - 0.5)
                continue;
            EXPECT_TRUE(told.what != change::raised || day < row.by) << row.name;
            standing = told.what == change::withdrawn ? nullptr : &told;
            if (standing != nullptr) {
                EXPECT_LT(day + told.low, row.limit + 1) << row.name;
                EXPECT_GT(day + told.high, row.limit - 1.5) << row.name;
            }
        }
        ASSERT_TRUE(standing != nullptr && standing->cause == row.why) << row.name << "\n" << all;
        EXPECT_NEAR(day_of(*standing) + standing->days_left, row.limit, 4) << row.name;
        for (const report &told : reports)
            EXPECT_TRUE(told.value == row.value || told.what == change::notice) << row.name << "\n"
                                                                                << all;
    }
}

TEST(Forecast, is_silent_on_what_recovers_or_steps)
{
    const auto dip = [](const sample &s, double day, double length) {
        const double x = (s.day - day) / length;
        return x > 0 && x < 1 ? std::sin(3.1416 * x) : 0;
    };
    const struct {
        const char *name;
        int notices;
        world change;
    } rows[] = {
        {"swing and season", 0,
         [](sample &s) { s.temperature += 5 * std::sin(6.28 * s.day) - 0.4 * s.day; }},
        {"cold cable", 0,
         [&](sample &s) { s.rx -= 1.2 * dip(s, 20, 6) + dip(s, 30, 3) + 0.5 * dip(s, 41, 5); }},
        {"step", 1, [](sample &s) { s.rx -= s.day > 30 ? 2 : 0; }},
        {"gap with a step", 1,
         [](sample &s) {
             s.rx -= s.day > 30 ? 2 : 0;
             s.is_missing = s.day > 26 && s.day < 30;
         }},
        {"small steps, each after a gap", 0,
         [](sample &s) {
             s.rx -= 0.4 * std::floor(since(s, 20) / 3);
             s.is_missing = s.day > 22 && std::fmod(s.day - 20, 3) > 2.98;
         }},
        {"set down for a day", 0,
         [](sample &s) {
             s.has_link = s.day < 25 || s.day > 26;
             s.tx -= s.has_link ? 0 : 20;
         }},
        {"swap", 0,
         [](sample &s) {
             if (s.day > 30) {
                 s.serial = "B";
                 s.rx -= 1.5;
                 s.bias *= 1.3;
             }
         }},
        {"stuck", 0,
         [](sample &s) {
             if (s.day > 25 && s.day < 28) {
                 s.temperature = 43;
                 s.rx = -6;
                 s.bias = 6;
             }
         }},
        {"wild readings", 0,
         [](sample &s) {
             if (std::fmod(s.day, 0.13) < 0.004) {
                 s.rx = 20;
                 s.bias = 130;
             }
         }},
        {"coarse floor", 0,
         [](sample &s) {
             s.rx = 10 * std::log10((5.4 + 0.3 * std::sin(s.day)) / 1000);
             s.step_uw = 1;
         }},
        {"clock of 1970 and of next year", 0,
         [](sample &s) {
             if (std::fmod(s.day, 9) < 0.3)
                 s.time += s.day < 30 ? -start : int64_t{86400} * 365;
         }},
        {"limits of another type", 0, [](sample &s) { s.rx -= 5; }},
        {"no values", 0, [](sample &s) { s.rx = s.tx = s.bias = s.temperature = NAN; }},
    };
    for (const auto &row : rows) {
        std::string all;
        int notices = 0;
        for (const report &told : reports_of(row.change)) {
            notices += told.what == change::notice;
            all += told.what == change::notice ? "" : text_of(told);
        }
        EXPECT_EQ(all, "") << row.name;
        EXPECT_EQ(notices, row.notices) << row.name;
    }
}

TEST(Forecast, withdraws_with_a_reason_and_uses_no_later_reading)
{
    const world cleaned = [](sample &s) { s.rx -= s.day < 30 ? 0.15 * since(s, 15) : 0; };
    std::string all, first;
    for (const report &told : reports_of(cleaned))
        all += text_of(told);
    for (const report &told : reports_of(cleaned, 27))
        first += text_of(told);
    EXPECT_NE(all.find("A step began a new series."), std::string::npos) << all;
    EXPECT_NE(first, "");
    EXPECT_EQ(all.substr(0, first.size()), first);
    const world half_back = [](sample &s) {
        s.rx -= 0.3 * since(s, 20) - std::min(1.8, 3.9 * since(s, 30));
    };
    EXPECT_LE(std::ranges::count(reports_of(half_back), change::withdrawn, &report::what), 2);
}

TEST(Replay, names_what_it_cannot_use)
{
    const std::string head =
        "# limit rx_uw 100 110 1000 2000\ntime,link,present,serial,temperature_c,rx_uw_1\n";
    std::string rows;
    for (int row = 0; row < 30 * 288; row++)
        rows += std::to_string(start + int64_t{300} * row) + ",1,1,A," +
                std::to_string(40 + std::sin(row / 46.0)) + "," +
                std::to_string(250 * std::pow(10, -std::max(0, row - 2880) / 57600.0) + row % 3) +
                "\n";
    const struct {
        const char *name;
        std::string text;
        int code;
        bool has_alarm;
        std::string message;
    } cases[] = {
        {"good.csv", head + rows, 0, true, ""},
        {"columns.csv", "a,b\n1,2\n", 1, false, "columns.csv:1: the columns need"},
        {"empty.csv", "", 1, false, "no line with the names of columns"},
        {"words.csv", head + "1767000000,1,1,A,hot,nan\n" + rows, 0, true,
         "words.csv:3: a value that isn't a number"},
        {"short.csv", head + "1767000000,1\n1,2\n" + rows, 0, true,
         "1 more: a row without 6 columns"},
        {"time.csv", head + "soon,1,1,A,1,1\n" + rows, 0, true, "time.csv:3: a row without a time"},
        {"back.csv", head + rows + "9,1,1,A,1,1\n", 0, true, "back.csv:8643: the time goes back"},
        {"long.csv", head + std::string(100000, '7') + "\n" + rows, 0, true,
         "long.csv:3: a line is too long"},
        {"limit.csv", "# limit rx_uw low\n" + head + rows, 0, true,
         "limit.csv:1: a limit needs four numbers"},
        {"cut.csv.gz", head + rows, 1, true, "it is cut off"},
    };
    const std::filesystem::path folder =
        std::filesystem::path(testing::TempDir()) / "forecast_replay";
    std::filesystem::create_directories(folder);
    for (const auto &each : cases) {
        const std::string path = folder / each.name;
        if (path.ends_with(".gz")) {
            const gzFile file = gzopen(path.c_str(), "wb");
            gzwrite(file, each.text.data(), static_cast<unsigned>(each.text.size()));
            gzclose(file);
            std::filesystem::resize_file(path, std::filesystem::file_size(path) * 19 / 20);
        } else {
            std::ofstream(path) << each.text;
        }
        char *written = nullptr, *told = nullptr;
        size_t size = 0, told_size = 0;
        FILE *out = open_memstream(&written, &size), *errors = open_memstream(&told, &told_size);
        EXPECT_EQ(exporter::replay({path}, out, errors), each.code) << each.name;
        fclose(out);
        fclose(errors);
        EXPECT_EQ(std::string(written).find("\"cause\":\"light_lost\"") != std::string::npos,
                  each.has_alarm)
            << each.name;
        EXPECT_NE(std::string(told).find(each.message), std::string::npos)
            << each.name << ": " << told;
        EXPECT_EQ(each.message.empty(), told_size == 0) << told;
        free(written);
        free(told);
    }
    std::filesystem::remove_all(folder);
    FILE *nowhere = fopen("/dev/null", "w");
    EXPECT_EQ(exporter::replay({"/nowhere.csv"}, nowhere, nowhere), 1);
    fclose(nowhere);
}
