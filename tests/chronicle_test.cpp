/* SPDX-License-Identifier: Apache-2.0 */
/* The history with a clock and a folder of the test's own. */
#include "history/chronicle.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace history;
namespace fs = std::filesystem;

/* SQLite's writing calls are redirected here: they end the process, or report a full disk. */
static int calls_left;
static bool is_full;
static size_t bytes_written, syncs;

static bool may_write()
{
    if (calls_left > 0 && --calls_left == 0)
        raise(SIGKILL);
    errno = ENOSPC;
    return !is_full;
}

extern "C" ssize_t pwrite64(int fd, const void *from, size_t size, off64_t at)
{
    bytes_written += size;
    if (calls_left == 1) /* only the first half is written */
        syscall(SYS_pwrite64, fd, from, size / 2, at);
    return may_write() ? syscall(SYS_pwrite64, fd, from, size, at) : -1;
}

extern "C" int fdatasync(int fd)
{
    syncs++;
    return may_write() ? static_cast<int>(syscall(SYS_fdatasync, fd)) : -1;
}

static constexpr int64_t day = 86400, begin = 20'000 * day;
static int boxes;

namespace
{

/* A box: its folder, its clocks and its reports. */
struct box {
    std::string folder = fmt::format("/dev/shm/tesk-chronicle-{}-{}", getpid(), boxes++);
    clocks now{begin, 1000};
    std::vector<std::string> told{};
    std::optional<chronicle> kept{};
    std::string serial = "S1", interface = "eth0";
    int64_t limit = int64_t{256} << 20;

    box()
    {
        fs::remove_all(folder);
    }
    ~box()
    {
        fs::remove_all(folder);
    }
    void start()
    {
        kept.emplace(chronicle::settings{
            folder, limit, [this](const std::string &text) { told.push_back(text); }, nullptr});
        kept->advance(now);
    }
    void stop()
    {
        kept->close(now);
        kept.reset();
    }
    void pass(int64_t seconds)
    {
        now.wall += seconds;
        now.boot += seconds;
    }
    /* Adds a reading of each of `ports` in each step of the time. */
    void run(int64_t seconds, uint32_t ports = 1, int16_t value = 100)
    {
        for (int64_t i = 0; i < seconds / 300; i++) {
            for (uint32_t port = 0; port < ports; port++)
                kept->take({port, interface, "V", "P", port == 0 ? serial : std::to_string(port)},
                           {100, {value, 16500, -1000, -1200, 600, absent}, {}, {}}, now);
            pass(300);
            kept->advance(now);
        }
    }
    /* Times as shown to users, and the middle temperatures. */
    std::vector<std::pair<int64_t, int16_t>> rows(level of)
    {
        std::vector<std::pair<int64_t, int16_t>> found;
        kept->read_all(of, 0, INT32_MAX, [&](int64_t number, int64_t id, const record &each) {
            if (id == 1)
                found.emplace_back(kept->time().wall_of(number * level_seconds[of]),
                                   each.middle[0]);
        });
        return found;
    }
};

} // namespace

static bool is_rising(const std::vector<std::pair<int64_t, int16_t>> &rows)
{
    return std::ranges::adjacent_find(
               rows, [](auto one, auto other) { return one.first >= other.first; }) == rows.end();
}

TEST(chronicle, keeps_rows_in_all_kinds_and_both_ways)
{
    record kept{80, {1, 2, 3, 4, 5, absent, 6, 7, 8, absent}, {}, {}};
    EXPECT_EQ(decode(encode(kept, false))->middle, kept.middle);
    kept.middle[5] = 9; /* an error ratio */
    accumulator sum;
    for (const auto &[value, link] : {std::pair{30, 80}, {10, 0}, {20, int{unknown_share}}}) {
        kept.middle[0] = static_cast<int16_t>(value);
        kept.middle[1] = value == 20 ? absent : int16_t{2};
        kept.link = static_cast<uint8_t>(link);
        sum.add(kept);
    }
    const record made = *decode(encode(sum.finish(), true));
    EXPECT_EQ(std::tie(made.least[0], made.middle[0], made.greatest[0], made.middle[5], made.link),
              std::make_tuple(10, 20, 30, 9, 40));
    EXPECT_EQ(made.least[1], 2);
    for (const std::string &bad : {std::string(), std::string("\x01"), std::string("\x01\x50zz"),
                                   "\x7f\x50" + std::string(766, 'z')}) /* 127 lanes */
        EXPECT_FALSE(decode(bad));
    constexpr double values[] = {-40.5, 3.3, -38, 5, 130, -12.5};
    for (size_t what = 0; what < std::size(values); what++) {
        const auto of = static_cast<measure>(what);
        EXPECT_NEAR(value_of(of, stored(of, values[what])), values[what], 0.001) << what;
    }
}

/* A finished hour counts once in its day, however often the exporter restarts, and a day also ends
   without its module. */
TEST(chronicle, makes_a_day_of_its_hours)
{
    box on;
    on.start();
    on.run(3600, 1, 1);
    for (int i = 0; i < 2; i++) {
        on.stop();
        on.start();
    }
    on.run(3600, 1, 2);
    on.kept->vacate(0);
    on.pass(day);
    on.kept->advance(on.now);
    on.kept->close(on.now);
    on.start();
    EXPECT_EQ(on.rows(day_rows), (std::vector{std::pair(begin, int16_t{2})}));
}

TEST(chronicle, has_steps_hours_and_days_after_restarts)
{
    box on;
    on.start();
    for (int i = 0; i < 30; i++) { /* restarts within hours, and within steps */
        on.run(7500, 1, static_cast<int16_t>(100 + i));
        on.pass(10);
        on.stop();
        on.start();
    }
    on.run(day, 2);
    EXPECT_TRUE(is_rising(on.rows(step_rows)));
    EXPECT_EQ(on.rows(hour_rows).size() / 10, (62 + 24) / 10);
    EXPECT_EQ(on.rows(day_rows).front(), std::pair(begin, int16_t{106}));
    EXPECT_EQ(on.kept->places().size(), 2);
    on.run(3 * day);
    EXPECT_EQ(on.rows(step_rows).front().first / 3600, (on.now.wall - 2 * day) / 3600);
    EXPECT_TRUE(on.told.empty()) << on.told[0];
}

/* If a module moves to another port, its rows stay with the first place, and both ports list it. */
TEST(chronicle, records_changes_of_modules)
{
    box on;
    on.start();
    on.run(1200);
    on.kept->note(0, "removed", "", on.now);
    on.kept->note(no_port, "lost", "", on.now);
    on.kept->vacate(0);
    EXPECT_EQ(on.kept->occupant_of(0), 0);
    on.serial = "S2";
    on.run(1200);
    on.serial = "S1";
    on.interface = "eth9";
    on.run(1200);
    EXPECT_EQ(on.kept->occupant_of(0), 1);
    EXPECT_EQ(on.kept->places().at(1).interface, "eth9");
    for (int i = 0; i < 1000; i++) /* a port that flaps */
        on.kept->note(0, "down", "", on.now);
    on.run(600);
    const auto events = on.kept->events(0, 0, 1000);
    EXPECT_EQ(events.size(), 35);
    EXPECT_EQ(events.front().kind, "removed");
    EXPECT_EQ(events.back().text, "968 more changes within a minute");
    EXPECT_EQ(on.rows(step_rows).size(), 10);
    on.pass(800 * day);
    on.run(7500);
    EXPECT_TRUE(on.kept->events(std::nullopt, 0, 1000).empty());
    for (size_t serial = 0; serial < most_places; serial++) /* read differently each time */
        on.kept->take({0, "eth0", "V", "P", std::to_string(serial)}, {100, {1}, {}, {}}, on.now);
    EXPECT_EQ(on.kept->places().size(), most_places);
    EXPECT_FALSE(on.kept->places().contains(1)) << "the oldest is forgotten";
}

/* Whatever the clock does, each step is stored once, and in order as shown to users. */
TEST(chronicle, survives_a_clock_that_jumps)
{
    struct jump {
        int64_t by;
        bool is_restart;
    };
    static const std::vector<jump> cases[] = {
        {{3600, false}, {-3600, false}},
        {{-7200, true}, {7200, false}}, /* wrong at a start, corrected later */
        {{-30 * (365 * day), true}, {30 * (365 * day), false}, {0, true}}, /* no battery */
        {{300 * day, true}, {-300 * day, false}, {0, true}},
        {{-30, true}, {45, false}, {-90, true}, {20 * day, true}},
    };
    for (const auto &jumps : cases) {
        box on;
        on.start();
        on.run(6000);
        for (const auto &[by, is_restart] : jumps) {
            if (is_restart)
                on.stop();
            on.now.wall += by;
            if (is_restart)
                on.start();
            on.run(6000);
        }
        const auto rows = on.rows(step_rows);
        EXPECT_TRUE(is_rising(rows));
        EXPECT_GE(rows.size(), 20 * (jumps.size() + 1) - jumps.size());
        EXPECT_LE(std::abs(rows.back().first + 300 - on.now.wall), 300);
        EXPECT_GE(on.kept->events(std::nullopt, 0, 100).size(), 2);
        EXPECT_TRUE(on.told.empty());
    }
}

/* The process ends at each writing system call in turn: committed data is kept. */
TEST(chronicle, loses_nothing_that_was_committed)
{
    int killed = 0;
    for (int call = 1;; call++) {
        box on;
        on.start();
        on.run(3600);
        on.stop();
        const pid_t child = fork();
        if (child == 0) {
            calls_left = call;
            on.start();
            on.run(4500);
            on.stop();
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        on.start();
        const auto rows = on.rows(step_rows);
        EXPECT_GE(rows.size(), 12) << "killed at call " << call;
        EXPECT_TRUE(is_rising(rows));
        EXPECT_TRUE(on.told.empty()) << on.told[0];
        if (WIFEXITED(status))
            break;
        killed++;
    }
    EXPECT_GT(killed, 40);
}

TEST(chronicle, goes_on_in_memory_while_the_disk_is_full)
{
    box on;
    on.start();
    on.run(3600);
    is_full = true;
    on.serial = "S2";
    on.run(600);
    on.serial = "S1";
    on.run(6600);
    EXPECT_EQ(on.told.size(), 1);
    EXPECT_FALSE(on.kept->write_trouble().empty());
    size_t seen = 0;
    on.kept->read(step_rows, 1, 0, INT32_MAX, [&](int64_t, const record &) { seen++; });
    EXPECT_EQ(seen, 34);
    const size_t tried = bytes_written;
    on.run(3600);
    EXPECT_LE(bytes_written - tried, 5 * 4096); /* one try in a quarter of an hour */
    is_full = false;
    on.run(1200);
    EXPECT_EQ(on.told.size(), 2);
    EXPECT_EQ(on.rows(step_rows).size(), 50);
    on.stop();
    on.start();
    EXPECT_EQ(on.kept->places().size(), 2);
}

/* A file that is cut at any page, isn't a database, can't be written, or has a newer version. */
TEST(chronicle, sets_a_bad_file_aside_and_leaves_a_newer_one_alone)
{
    box on;
    on.start();
    on.run(day);
    on.stop();
    const std::string path = on.folder + "/history.db";
    const auto good = fs::file_size(path);
    fs::copy(path, path + ".good");
    const auto begin_with = [&](uintmax_t size, const std::function<void()> &spoil) {
        fs::copy(path + ".good", path, fs::copy_options::overwrite_existing);
        fs::remove(path + "-wal");
        fs::resize_file(path, size);
        spoil();
        on.told.clear();
        on.start();
        on.run(day / 8);
        on.rows(step_rows);
        on.kept->events(std::nullopt, 0, 100);
        on.run(600);
        const bool is_kept = on.kept->trouble().empty();
        on.stop();
        return is_kept;
    };
    for (uintmax_t size = 0; size < good; size += 4096) {
        EXPECT_TRUE(begin_with(size, [] {})) << size;
        EXPECT_EQ(on.told.size(), size == 0 ? 0 : 1) << size;
    }
    EXPECT_TRUE(begin_with(good, [&] { std::ofstream(path) << "no history"; }));
    EXPECT_EQ(on.told.size(), 1);
    const auto kept_files = std::distance(fs::directory_iterator(on.folder), {});
    EXPECT_LE(kept_files, 6); /* one file set aside */
    EXPECT_FALSE(begin_with(good, [&] { database(path).run("PRAGMA user_version = 9"); }));
    EXPECT_EQ(on.told.size(), 1);
    EXPECT_NE(on.told[0].find("version 9"), std::string::npos);
}

/* A power cut may leave any part of the log. */
TEST(chronicle, opens_with_a_log_that_was_cut_anywhere)
{
    box on;
    on.start();
    on.run(3600);
    on.stop();
    if (const pid_t child = fork(); child == 0) {
        on.start();
        on.run(4500);
        _exit(0); /* without close(), so that the log stays */
    } else {
        waitpid(child, nullptr, 0);
    }
    const std::string path = on.folder + "/history.db", log = path + "-wal";
    fs::copy(path, path + ".good");
    fs::copy(log, log + ".good");
    const auto whole = fs::file_size(log);
    EXPECT_GT(whole, 10 * 4096);
    for (uintmax_t size = 0; size <= whole; size += 2048) {
        fs::copy(path + ".good", path, fs::copy_options::overwrite_existing);
        fs::copy(log + ".good", log, fs::copy_options::overwrite_existing);
        fs::resize_file(log, size);
        on.start();
        EXPECT_GE(on.rows(step_rows).size(), 12) << size;
        EXPECT_TRUE(is_rising(on.rows(step_rows)) && on.told.empty()) << size;
        on.stop();
    }
}

TEST(chronicle, sets_a_file_aside_that_is_damaged_while_it_is_read)
{
    box on;
    on.start();
    on.run(2 * day, 300); /* more rows than SQLite's cache holds */
    std::fstream file(on.folder + "/history.db");
    file.seekp(4096);
    for (int page = 0; page < 500; page++)
        file << std::string(4096, 'x');
    file.close();
    on.rows(step_rows);
    EXPECT_FALSE(on.kept->trouble().empty());
    EXPECT_TRUE(on.kept->events(std::nullopt, 0, 100).empty());
    on.kept->advance(on.now);
    on.run(600);
    size_t seen = 0;
    on.kept->read(step_rows, *on.kept->occupant_of(0), 0, INT32_MAX,
                  [&](int64_t, const record &) { seen++; });
    EXPECT_EQ(seen, 2);
    ASSERT_EQ(on.told.size(), 1);
    EXPECT_NE(on.told[0].find("a new history begins"), std::string::npos) << on.told[0];
}

/* A link in place of the file could lead anywhere; a link to the folder is allowed. */
TEST(chronicle, follows_a_link_to_its_folder_but_none_to_its_file)
{
    box on, other;
    fs::create_directory(on.folder);
    fs::create_symlink("elsewhere", on.folder + "/history.db");
    on.start();
    on.pass(60);
    on.kept->advance(on.now);
    EXPECT_FALSE(on.kept->trouble().empty());
    EXPECT_EQ(on.told.size(), 1);
    EXPECT_FALSE(fs::exists(on.folder + "/elsewhere"));
    fs::remove(on.folder + "/history.db");
    on.pass(60);
    on.kept->advance(on.now);
    on.run(600);
    EXPECT_EQ(on.told.size(), 2);
    on.stop();
    fs::create_directory_symlink(on.folder, other.folder);
    other.start();
    EXPECT_EQ(other.rows(step_rows).size(), 2);
    EXPECT_TRUE(other.told.empty());
}

TEST(chronicle, gives_a_second_exporter_nothing_until_the_first_ends)
{
    box on, other;
    other.folder = on.folder;
    on.start();
    other.start();
    other.run(300);
    EXPECT_EQ(other.told.size(), 1);
    EXPECT_NE(other.told[0].find("another exporter"), std::string::npos);
    on.stop();
    other.run(300);
    EXPECT_TRUE(other.kept->trouble().empty());
    EXPECT_EQ(other.told.size(), 2);
}

/* The oldest rows are dropped to keep the limit, also after it was lowered. */
TEST(chronicle, stays_below_its_limit)
{
    box on;
    on.start();
    on.run(2 * day, 900);
    on.stop();
    const auto size = fs::file_size(on.folder + "/history.db");
    EXPECT_GT(size, 12 << 20);
    on.limit = 16 << 20;
    on.start();
    on.run(day / 2, 900);
    const auto rows = on.rows(step_rows);
    EXPECT_EQ(rows.back().first + 300, on.now.wall);
    EXPECT_TRUE(on.told.empty());
    is_full = true; /* so long that pending rows would fill the file */
    on.run(day, 300);
    is_full = false;
    on.run(1200);
    EXPECT_EQ(on.told.size(), 2);
    const auto kept = on.rows(step_rows);
    EXPECT_EQ(on.now.wall - kept[kept.size() - 90].first, 90 * 300) << "the newest half is there";
    for (int minute = 0; minute < 7; minute++) {
        const int64_t first = on.kept->time().at(on.now.boot);
        for (int64_t event = 0; event < 25'000; event++)
            on.kept->note(event % 900, "changed", std::string(150, 'x'), on.now);
        ASSERT_EQ(on.kept->events(std::nullopt, first, 1).size(), 20'000);
        on.pass(60);
        on.kept->advance(on.now);
        ASSERT_EQ(on.kept->write_trouble(), "") << minute;
    }
    on.stop();
    EXPECT_LE(fs::file_size(on.folder + "/history.db"), 12 << 20);
    EXPECT_EQ(on.told.size(), 2);
}

/* Flash memory wears out: counts the bytes and syncs of 512 idle ports during a day. */
TEST(chronicle, writes_little)
{
    box on;
    on.start();
    on.run(2 * day, 512);
    bytes_written = syncs = 0;
    on.run(day, 512);
    EXPECT_LE(bytes_written / 1440, 40 * 1024);
    EXPECT_LE(syncs, 1440);
    RecordProperty("bytes_a_minute", static_cast<int>(bytes_written / 1440));
    RecordProperty("syncs_a_day", static_cast<int>(syncs));
}
