/* SPDX-License-Identifier: Apache-2.0 */
/* The record of a fall: how a port's details and the kernel's messages become facts in its file.
   The clock moves only when a test moves it. */
#include "causes/facts_json.h"
#include "causes/verdict.h"
#include "platform/dolm_ric/fall_files.h"
#include "platform/dolm_ric/fall_recorder.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <semaphore>

using namespace board;
namespace fs = std::filesystem;

static constexpr uint32_t all_ports[] = {0, 1, 2};
static constexpr int64_t ms = 1'000'000, second = 1000 * ms;

namespace
{

/* A machine with two devices; their ports have modules with one lane. */
struct fall_recorder_test : testing::Test {
    fall_recorder_test()
    {
        make_falls_folder(folder);
        recorder.start(folder, {}, false);
        for (const uint32_t port : all_ports)
            plug(port, "A1");
        pass(60 * second);
    }
    dolm_ric_details_record &record_of(uint32_t port)
    {
        records[port].port = port;
        return records[port];
    }
    void report(uint32_t port, bool is_reported = true, bool is_exact = true)
    {
        recorder.report_link(
            port, {is_reported, is_exact, is_late, port < 2 ? "0000:03:00" : "0000:05:00"});
        recorder.see(record_of(port));
    }
    void plug(uint32_t port, const char *serial)
    {
        dolm_ric_details_record &its = record_of(port);
        its.presence = serial != nullptr ? DOLM_RIC_PRESENCE_READY : DOLM_RIC_PRESENCE_EMPTY;
        its.identity.state = serial != nullptr ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_EMPTY;
        if (serial != nullptr)
            strcpy(its.identity.serial, serial);
        its.lane_limits[DOLM_RIC_RX_POWER].state = DOLM_RIC_VALUE_VALID;
        set_link(port, true, serial != nullptr);
        if (serial != nullptr)
            read(port, 0.5);
    }
    void set_link(uint32_t port, bool is_started, bool is_up, bool is_reported = true,
                  bool is_exact = true)
    {
        dolm_ric_details_link &link = record_of(port).link;
        link.falls += link.oper == DOLM_RIC_SWITCH_UP && !is_up ? 1 : 0;
        link.state = DOLM_RIC_VALUE_VALID;
        link.admin = is_started ? DOLM_RIC_SWITCH_UP : DOLM_RIC_SWITCH_DOWN;
        link.oper = is_up ? DOLM_RIC_SWITCH_UP : DOLM_RIC_SWITCH_DOWN;
        link.changed_at = now;
        report(port, is_reported, is_exact);
    }
    void drop(uint32_t port)
    {
        set_link(port, true, false);
    }
    void leave(uint32_t port, departure how)
    {
        recorder.report_departure(port, how);
        const uint64_t falls = record_of(port).link.falls;
        record_of(port).link = {};
        record_of(port).link.falls = falls;
        record_of(port).link.changed_at = now;
        recorder.see(record_of(port));
    }
    /* A reading of the received power in mW. */
    void read(uint32_t port, double power, uint32_t lanes = 1)
    {
        dolm_ric_details_record &its = record_of(port);
        its.lane_count = lanes;
        its.own_lanes = (1U << lanes) - 1;
        for (uint32_t lane = 0; lane < lanes; lane++) {
            dolm_ric_details_value &light = its.lane[lane].value[DOLM_RIC_RX_POWER];
            light.state = DOLM_RIC_VALUE_VALID;
            light.read_at = now;
            light.value = power;
            for (const uint32_t flag : {DOLM_RIC_RX_LOS, DOLM_RIC_TX_FAULT})
                its.lane[lane].signal[flag].state = DOLM_RIC_VALUE_VALID;
        }
        recorder.see(its);
    }
    /* Advances the clock; the module of a link that is up is read each 4 s. */
    void pass(int64_t time, double power = 0.5)
    {
        for (const int64_t end = now + time; now < end;) {
            now += std::min(end - now, 4 * second);
            for (const uint32_t port : all_ports)
                if (record_of(port).link.oper == DOLM_RIC_SWITCH_UP)
                    read(port, power);
            recorder.work();
        }
        now += 2 * second;
    }
    /* Advances the clock until all looks are made and everything is written. */
    void finish()
    {
        for (int step = 0; step < 30; step++) {
            recorder.work();
            now += 100 * ms;
        }
    }
    std::vector<causes::facts> falls(uint32_t port = 0) const
    {
        std::vector<causes::facts> found;
        std::ifstream file(folder + "/" + std::to_string(port));
        for (std::string line; std::getline(file, line);)
            found.push_back(causes::facts_from(nlohmann::ordered_json::parse(line)));
        return found;
    }
    std::string verdict(uint32_t port = 0) const
    {
        const auto all = falls(port);
        if (all.empty())
            return "none";
        const causes::verdict its = causes::judge(all.back());
        return std::string(name_of(its.cause)) + ", " + name_of(its.certainty);
    }

    int64_t now = 1000 * second;
    bool is_late = false; /* reported as late */
    testkit::directory place;
    const std::string folder = place.path + "/falls";
    std::map<uint32_t, dolm_ric_details_record> records;
    fall_recorder recorder{{.oldest_look = 30 * second, .youngest_look = second},
                           [this] { return now; }};
};

} // namespace

/* Events of port 0, and the verdict. */
static const struct {
    const char *name;
    void (*happens)(fall_recorder_test &at);
    const char *verdict;
} cases[] = {
    {"the interface is set down",
     [](auto &at) {
         at.set_link(0, false, false);
         at.now += second;
         at.read(0, 0.5);
     },
     "set down, certain"},
    {"its module isn't looked at again", [](auto &at) { at.set_link(0, false, false); },
     "set down, likely"},
    {"messages were lost before",
     [](auto &at) {
         at.set_link(0, false, false, false, false);
         at.read(0, 0.5);
     },
     "set down, possible"},
    {"nobody looked in time",
     [](auto &at) {
         at.set_link(0, false, false);
         at.read(0, 0.5);
         at.now += 3 * second;
     },
     "set down, possible"},
    {"the message may tell of a carrier that was lost before, too",
     [](auto &at) {
         at.set_link(0, false, false, true, false);
         at.read(0, 0.5);
     },
     "set down, likely"},
    {"nor is it certain that it was moved",
     [](auto &at) {
         at.set_link(0, false, false, true, false);
         at.read(0, 0.5);
         at.leave(0, departure::moved);
     },
     "interface moved, likely"},
    {"it is set up again at once",
     [](auto &at) {
         at.set_link(0, false, false);
         at.now += second;
         at.read(0, 0.5);
         at.set_link(0, true, false);
     },
     "set down, likely"},
    {"it is set down after the fall",
     [](auto &at) {
         at.drop(0);
         at.now += 100 * ms;
         at.set_link(0, false, false);
     },
     "not known, possible"},
    {"it is moved, and set down for that",
     [](auto &at) {
         at.set_link(0, false, false);
         at.read(0, 0.5);
         at.leave(0, departure::moved);
     },
     "interface moved, certain"},
    {"it is removed a second after it was set down",
     [](auto &at) {
         at.set_link(0, false, false);
         at.now += second;
         at.read(0, 0.5);
         at.leave(0, departure::removed);
     },
     "set down, possible"},
    {"it is moved just after it fell",
     [](auto &at) {
         at.drop(0);
         at.now += 100 * ms;
         at.read(0, 0.5);
         at.leave(0, departure::moved);
     },
     "not known, possible"},
    {"it is removed slowly",
     [](auto &at) {
         at.set_link(0, false, false);
         at.now += second;
         at.read(0, 0.5);
         at.finish();
         at.leave(0, departure::removed);
     },
     "set down, possible"},
    {"its driver may have gone", [](auto &at) { at.leave(0, departure::removed); },
     "interface gone, likely"},
    {"it isn't there any more when all are read", [](auto &at) { at.leave(0, departure::unknown); },
     "not known, possible"},
    {"the light is gone",
     [](auto &at) {
         at.drop(0);
         at.now += second;
         at.read(0, 0);
     },
     "light lost, likely"},
    {"the light was gone before the kernel told of the fall",
     [](auto &at) {
         at.read(0, 0);
         at.now += 900 * ms;
         at.drop(0);
         at.now += second;
         at.read(0, 0);
     },
     "light lost, likely"},
    {"the light faded",
     [](auto &at) {
         at.pass(8 * second, 0.05);
         at.now += 2 * second;
         at.drop(0);
         at.now += second;
         at.read(0, 0.02);
     },
     "light faded, likely"},
    {"the light faded, and nobody has looked for long",
     [](auto &at) {
         at.pass(8 * second, 0.05);
         at.now += 180 * second;
         at.drop(0);
     },
     "not known, possible"},
    {"the module is pulled",
     [](auto &at) {
         at.drop(0);
         at.now += 300 * ms;
         at.plug(0, nullptr);
     },
     "module pulled, likely"},
    {"the driver can't read its module any more",
     [](auto &at) {
         at.drop(0);
         at.now += 300 * ms;
         at.record_of(0).presence = DOLM_RIC_PRESENCE_UNKNOWN;
         at.recorder.see(at.record_of(0));
     },
     "not known, possible"},
    {"the module is pulled long after",
     [](auto &at) {
         at.drop(0);
         at.finish();
         at.now += 83 * second;
         at.plug(0, nullptr);
     },
     "not known, possible"},
    {"the module is gone just before the fall is told",
     [](auto &at) {
         at.plug(0, nullptr);
         at.now += 300 * ms;
     },
     "module pulled, likely"},
    {"another module is there soon",
     [](auto &at) {
         at.set_link(0, true, false);
         at.now += 300 * ms;
         at.plug(0, nullptr);
         at.now += 5 * second;
         at.plug(0, "B2");
     },
     "module replaced, likely"},
    {"both ports of the device fall",
     [](auto &at) {
         at.drop(0);
         at.now += 700 * ms;
         at.drop(1);
         at.read(0, 0.5);
     },
     "device reset, possible"},
    {"both have fallen some time while the server was stopped",
     [](auto &at) {
         at.is_late = true;
         at.set_link(0, true, false, false, false);
         at.set_link(1, true, false, false, false);
         at.is_late = false;
         at.read(0, 0.5);
     },
     "not known, possible"},
    {"the other one, at the other end of its cable, is set down",
     [](auto &at) {
         at.drop(0);
         at.set_link(1, false, false);
         at.read(0, 0.5);
     },
     "not known, possible"},
    {"the other one falls later",
     [](auto &at) {
         at.drop(0);
         at.now += 1200 * ms;
         at.drop(1);
     },
     "not known, possible"},
    {"all ports of all devices fall",
     [](auto &at) {
         for (const uint32_t port : all_ports)
             at.drop(port);
         at.read(0, 0.5);
     },
     "machine-wide, likely"},
    {"it falls again and again",
     [](auto &at) {
         for (int round = 0; round < 3; round++) {
             at.drop(0);
             at.now += second;
             at.set_link(0, true, true);
             at.now += second;
         }
     },
     "flapping, possible"},
};

TEST_F(fall_recorder_test, each_fall_has_its_verdict)
{
    for (const auto &its : cases) {
        SCOPED_TRACE(its.name);
        fs::remove(folder + "/0");
        plug(0, "A1");
        for (const uint32_t port : all_ports)
            set_link(port, true, true);
        pass(1000 * second); /* without it, ten falls in an hour would count as flapping */
        its.happens(*this);
        finish();
        EXPECT_EQ(verdict(), its.verdict);
    }
}

TEST_F(fall_recorder_test, a_burst_is_one_record_and_the_next_fall_another_one)
{
    for (int round = 0; round < 4; round++) {
        drop(0);
        now += 3 * second;
        set_link(0, true, true);
        now += second;
    }
    finish();
    ASSERT_EQ(falls().size(), 1U);
    EXPECT_EQ(falls()[0].falls_in_minute, 4);
    EXPECT_FALSE(falls()[0].rx_low_alarm) << "without a limit";
    set_link(0, false, false);
    finish();
    EXPECT_EQ(falls().size(), 2U) << "somebody has set it down meanwhile";
    EXPECT_EQ(falls()[0].falls_in_minute, 4);
    EXPECT_EQ(falls()[1].falls_in_minute, 5);
    set_link(0, true, true);
    drop(0);
    finish();
    ASSERT_EQ(falls().size(), 3U) << "nor does what follows belong to that";
    dolm_ric_details_link &link = record_of(0).link;
    link.falls += 2; /* the kernel reports two falls in one message */
    link.rises += 2;
    link.changed_at = now;
    report(0);
    now += 3 * second;
    finish();
    EXPECT_EQ(falls()[2].falls_in_minute, 8) << "though it stays down";
    for (const int64_t hours : {2, 23}) {
        set_link(0, true, true);
        now += hours * 3600 * second;
        drop(0);
        finish();
        EXPECT_EQ(falls().back().falls_in_hour, 1);
        EXPECT_EQ(falls().back().falls_in_day, hours == 2 ? 9 : 2);
    }
}

TEST_F(fall_recorder_test, a_link_that_comes_back_is_added_to_its_record)
{
    drop(0);
    finish();
    ASSERT_EQ(falls().size(), 1U);
    EXPECT_FALSE(falls()[0].is_up);
    EXPECT_FALSE(falls()[0].up_for_s) << "it was up before it was seen first";
    read(0, 0);
    pass(4 * second);
    const auto written_at = fs::last_write_time(folder + "/0");
    for (int look = 0; look < 100; look++) {
        read(0, 0.0001 * look);
        pass(4 * second);
    }
    EXPECT_EQ(fs::last_write_time(folder + "/0"), written_at) << "nothing new is known";
    record_of(0).link.speed = 1000;
    set_link(0, true, true);
    read(0, 0.0001); /* the laser is still starting */
    pass(12 * second, 0.1);
    ASSERT_EQ(falls().size(), 1U);
    const causes::facts seen = falls()[0];
    EXPECT_EQ(seen.is_up, true);
    EXPECT_NEAR(seen.down_for_s.value_or(0), 609, 1);
    EXPECT_EQ(seen.rx_again, std::vector{-10.0});
    EXPECT_EQ(seen.speed_after, 1000);
    EXPECT_EQ(causes::judge(seen).ill.size(), 1U) << "it has 7 dB less";
}

TEST_F(fall_recorder_test, a_carrier_counted_at_the_start_and_a_port_left_out_are_no_falls)
{
    set_link(0, false, false);
    finish();
    record_of(0).link.falls++; /* drivers drop the carrier while a port is set up */
    record_of(0).link.rises++;
    set_link(0, true, true);
    finish();
    EXPECT_EQ(falls().size(), 1U);
    recorder.leave_out(1);
    leave(1, departure::unknown);
    finish();
    EXPECT_EQ(falls(1).size(), 0U);
}

/* The last look at port 0 took long: the other ports don't wait for its next one. */
TEST_F(fall_recorder_test, a_slow_driver_is_asked_last)
{
    std::string asked;
    board::fall_recorder own({.oldest_look = 30 * second, .youngest_look = second},
                             [this] { return now; });
    own.start(folder,
              {.fell =
                   [&](uint32_t port, const fall_recorder::up_time &its, causes::facts &) {
                       EXPECT_GT(its.up_since, 0) << "it was up when it was seen first";
                       asked += std::to_string(port);
                       now += port == 0 ? second : 0;
                   },
               .risen = [](uint32_t, int64_t, causes::facts &seen) { seen.errors_again = 1e-4; }},
              false);
    for (const uint32_t state : {DOLM_RIC_SWITCH_UP, DOLM_RIC_SWITCH_DOWN})
        for (const uint32_t port : all_ports) {
            record_of(port).link.oper = state;
            own.see(record_of(port));
        }
    own.work();
    now += second;
    own.work();
    EXPECT_EQ(asked, "012112200");
    now += 10 * second;
    own.work();
    record_of(1).link.oper = DOLM_RIC_SWITCH_UP;
    own.see(record_of(1));
    now += 4 * second;
    own.work();
    EXPECT_EQ(causes::judge(falls(1).back()).ill.size(), 1U) << "up, with many errors";
}

/* If nothing is due, the thread waits for a minute. Before it waits, it reads the clock once more,
   with the lock held. */
TEST_F(fall_recorder_test, a_fall_wakes_the_thread)
{
    std::binary_semaphore waits{0}, looked{0};
    std::atomic<int> asked = 0;
    board::fall_recorder own({.oldest_look = 30 * second, .youngest_look = second}, [&] {
        if (++asked == 2)
            waits.release();
        return 1000 * second;
    });
    own.start(folder,
              {.fell = [&](uint32_t, const auto &, auto &) { looked.release(); }, .risen = {}});
    ASSERT_TRUE(waits.try_acquire_for(std::chrono::seconds{20}));
    own.see(record_of(0));
    record_of(0).link.oper = DOLM_RIC_SWITCH_DOWN;
    own.see(record_of(0));
    EXPECT_TRUE(looked.try_acquire_for(std::chrono::seconds{20}));
}

/* A module with another number of lanes can't be compared, and facts with both lists would be
   invalid. */
TEST_F(fall_recorder_test, lists_have_one_length)
{
    drop(0);
    now += second;
    read(0, 0.5, 4);
    finish();
    ASSERT_EQ(falls().size(), 1U);
    EXPECT_TRUE(falls()[0].rx_before);
    EXPECT_FALSE(falls()[0].rx_after);
}

TEST_F(fall_recorder_test, a_file_holds_the_newest_falls_those_of_an_earlier_start_too)
{
    for (int round = 0; round < 40; round++) {
        drop(0);
        finish();
        pass(20 * second);
        set_link(0, true, true);
        pass(20 * second);
    }
    const auto before = falls();
    ASSERT_EQ(before.size(), most_falls);
    EXPECT_GT(before.back().time, before.front().time);
    EXPECT_LE(fs::file_size(folder + "/0"), most_fall_bytes);
    fall_recorder again({.oldest_look = 30 * second, .youngest_look = second},
                        [this] { return now; });
    again.start(folder, {}, false);
    again.see(record_of(0));
    record_of(0).link.falls++;
    again.see(record_of(0));
    again.stop();
    EXPECT_EQ(falls().size(), most_falls);
    EXPECT_EQ(falls()[most_falls - 2].time, before.back().time);
}

TEST_F(fall_recorder_test, what_cannot_be_written_is_written_later)
{
    fs::remove_all(folder);
    std::ofstream(folder) << "in its place";
    testing::internal::CaptureStderr();
    for (int round = 0; round < 3; round++) {
        drop(0);
        finish();
        set_link(0, true, true);
        pass(20 * second);
    }
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::ranges::count(told, '\n'), 1) << told;
    const auto try_again = [this] {
        for (int round = 0; round < 2; round++) {
            now += 2 * second;
            finish();
        }
    };
    fs::remove(folder);
    try_again();
    EXPECT_EQ(falls().size(), 3U) << "in a folder that was made anew";
    fs::create_directories(folder + "/1/x");
    testing::internal::CaptureStderr();
    for (int round = 0; round < 3; round++)
        for (const uint32_t port : {1U, 0U}) {
            drop(port);
            finish();
            set_link(port, true, true);
            pass(20 * second);
        }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "libdolm_ric: cannot record falls in " + folder +
                  "/1: Is a directory; it is tried again\n");
    EXPECT_EQ(falls().size(), 6U) << "those of other ports can be written";
    fs::remove_all(folder + "/1");
    try_again();
    EXPECT_EQ(falls(1).size(), 3U);
}

/* The newest falls that fit are kept: a long file leaves no room for others. */
TEST_F(fall_recorder_test, files_share_the_folder)
{
    const std::string line(7000, 'x');
    size_t taken = 0;
    for (int round = 0; round < 12; round++)
        ASSERT_TRUE(keep_fall(folder, 9, line, false, 1, taken));
    EXPECT_EQ(fs::file_size(folder + "/9"), 9 * 7001U);
    ASSERT_TRUE(keep_fall(folder, 9, "{}", false, 1024, taken));
    EXPECT_EQ(fs::file_size(folder + "/9"), 2 * 7001U + 3);
    fs::remove(folder + "/9");
    fs::create_symlink("/etc/passwd", folder + "/9");
    ASSERT_TRUE(keep_fall(folder, 9, "{}", true, 1, taken));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder + "/9")));
    for (uint32_t port = 1000; port < 1300; port++) /* files of ports that no longer exist */
        ASSERT_TRUE(
            keep_fall(folder, port, std::string(most_fall_bytes - 1, 'x'), false, 1, taken));
    EXPECT_EQ(taken, most_folder_bytes);
    EXPECT_EQ(taken, trim_falls(folder));
    EXPECT_FALSE(fs::exists(folder + "/9"));
    EXPECT_TRUE(fs::exists(folder + "/1299"));
}
