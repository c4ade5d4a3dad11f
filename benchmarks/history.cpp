/* SPDX-License-Identifier: Apache-2.0 */
/* history - what the exporter's history and forecast cost, in a folder of its own:

     history FOLDER

   prints one list: of 512 ports of 8 lanes with all values, the size in bytes of a file that is
   full (two days of steps, eight weeks of hours, two years of days); the processor's time for
   taking it in after a start, and the memory that stays allocated; of the hour that costs most,
   once in three, the processor's time of the forecast; and the median of the processor's time to
   answer with the weeks of one port. Of 512 idle ports of one lane, the bytes that are passed to
   write calls in a day, by /proc/self/io, and the calls of fdatasync. Times are in nanoseconds. */
#include "benchmarks/harness.h"
#include "tesk_exporter/history_json.h"
#include "tesk_exporter/outlooks.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <random>
#include <sys/syscall.h>
#include <unistd.h>

using namespace bench;
using history::level_length;
using history::level_seconds;
using history::levels;

static constexpr uint32_t ports = 512;
static constexpr int64_t limit = int64_t{256} << 20;
static constexpr int64_t day = 86400, present = 20'000 * day;

/* In the place of the C library's: SQLite's syncs are counted. */
static int64_t syncs;
extern "C" int fdatasync(int fd)
{
    syncs++;
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}

static int64_t processor_ns()
{
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1'000'000'000 + used.tv_nsec;
}

/* Healthy values with noise, so that the forecast does what it does on each day. */
static history::row values_of(size_t lanes)
{
    static std::minstd_rand random(1);
    const auto near = [](int value, unsigned noise) {
        return static_cast<int16_t>(value + static_cast<int>(random() % noise));
    };
    history::row values = {near(4000, 200), near(16500, 50)};
    for (size_t lane = 0; lane < lanes; lane++)
        for (const int16_t value :
             {near(-2500, 40), near(-1000, 20), near(700, 10), near(-8000, 90)})
            values.push_back(value);
    return values;
}

static history::record record_of(size_t lanes, bool is_summary)
{
    history::record made{100, values_of(lanes), {}, {}};
    if (is_summary)
        made.least = made.greatest = made.middle;
    return made;
}

static history::place place_of(int64_t id)
{
    const auto port = static_cast<uint32_t>(id - 1);
    return {id, port,   "eth" + std::to_string(port), "Vendor", "Part", std::to_string(id),
            0,  present};
}

/* All rows that a history keeps, a day of them in each batch. */
static void fill(const std::string &folder)
{
    std::vector<std::string> notes;
    history::store full(folder, limit, "", notes);
    history::batch first;
    for (int64_t id = 1; id <= ports; id++)
        first.places.push_back(place_of(id));
    full.write(first, present);
    for (const auto of : {history::day_rows, history::hour_rows, history::step_rows}) {
        const int64_t last = present / level_seconds[of],
                      at_once = of == history::step_rows ? 288 : 24;
        for (int64_t number = last - level_length[of] + 1; number < last;) {
            history::batch next;
            for (const int64_t end = std::min(number + at_once, last); number < end; number++) {
                const bool is_summary = of != history::step_rows;
                const std::string blob = history::encode(record_of(8, is_summary), is_summary);
                for (int64_t id = 1; id <= ports; id++)
                    next.rows[of].push_back({number, id, blob});
            }
            full.write(next, present);
            full.checkpoint();
        }
    }
    if (!notes.empty())
        fail(notes[0]);
}

static int64_t size_of(const std::string &folder)
{
    int64_t size = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        size += static_cast<int64_t>(entry.file_size());
    return size;
}

static void take_all(history::chronicle &into, size_t lanes, const history::clocks &now)
{
    for (int64_t id = 1; id <= ports; id++) {
        history::place its = place_of(id);
        into.take({its.port, its.interface, its.vendor, its.part, its.serial},
                  record_of(lanes, false), now);
    }
}

static void pass(history::clocks &now)
{
    now.wall += level_seconds[history::step_rows];
    now.boot += level_seconds[history::step_rows];
}

static void measure_full(const std::string &folder, std::vector<int64_t> &figures)
{
    fill(folder);
    figures.push_back(size_of(folder));
    exporter::outlooks ahead;
    int64_t spent = 0; /* by the forecast */
    const auto timed = [&spent](auto act) {
        const int64_t begin = processor_ns();
        act();
        spent += processor_ns() - begin;
    };
    history::chronicle kept(
        {folder, limit, [](const std::string &text) { fail(text); },
         [&](const history::place &of, int64_t time, const history::record &read) {
             timed([&] { ahead.feed(of, time, read); });
         }});
    history::clocks now{present, 1000};
    kept.advance(now);
    const size_t before = mallinfo2().uordblks;
    timed([&] { ahead.restore(kept); });
    figures.push_back(spent);
    figures.push_back(static_cast<int64_t>(mallinfo2().uordblks - before));
    int64_t most = 0;
    for (int hour = 0; hour < 6; hour++) {
        spent = 0;
        for (int step = 0; step < 12; step++) {
            take_all(kept, 8, now);
            pass(now);
            kept.advance(now);
            timed([&] { ahead.settle(kept, now); });
        }
        most = std::max(most, spent);
    }
    std::vector<int64_t> times;
    for (uint32_t port = 0; port < 100; port++) {
        const int64_t begin = processor_ns();
        if (exporter::history_json(kept, port, history::hour_rows, now.boot).empty())
            fail("a port has no weeks");
        times.push_back(processor_ns() - begin);
    }
    std::ranges::nth_element(times, times.begin() + 50);
    figures.push_back(most);
    figures.push_back(times[50]);
}

static int64_t bytes_written()
{
    std::ifstream io("/proc/self/io");
    for (std::string key; io >> key;)
        if (int64_t value = 0; key == "wchar:" && io >> value)
            return value;
    fail("/proc/self/io has no wchar");
}

static void measure_idle(const std::string &folder, std::vector<int64_t> &figures)
{
    history::chronicle kept({folder, limit, [](const std::string &text) { fail(text); }, nullptr});
    history::clocks now{present, 1000};
    int64_t bytes = 0;
    for (int64_t step = 0; step < int64_t{3} * 288; step++) {
        if (step == int64_t{2} * 288) { /* from now on rows leave, too */
            bytes = bytes_written();
            syncs = 0;
        }
        kept.advance(now);
        take_all(kept, 1, now);
        pass(now);
    }
    kept.advance(now);
    figures.push_back(bytes_written() - bytes);
    figures.push_back(syncs);
}

int main(int count, char **words)
try {
    if (count != 2)
        fail("history FOLDER");
    const std::string folder = words[1];
    std::vector<int64_t> figures;
    measure_full(folder + "/full", figures);
    measure_idle(folder + "/idle", figures);
    for (size_t i = 0; i < figures.size(); i++)
        std::printf("%s%lld", i == 0 ? "[" : ", ", static_cast<long long>(figures[i]));
    std::printf("]\n");
} catch (const std::exception &error) {
    std::fprintf(stderr, "history: %s\n", error.what());
    return 1;
}
