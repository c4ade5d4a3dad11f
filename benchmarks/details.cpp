/* SPDX-License-Identifier: Apache-2.0 */
/* details - publishing and reading the details of 512 ports of 8 lanes, in a folder of its own:

     details FOLDER ROUNDS

   prints one list for each round, in nanoseconds: an update of one record with a new reading, as
   the board's threads see it; the same until a reader finds it; the same as a JSON file that takes
   the place of the one before; reading all records; parsing all such JSON files, both of 512 ports;
   and the processor's time for the records of 64 links that fall at once, without the kernel's
   answers.
 */
#include "benchmarks/harness.h"
#include "platform/dolm_ric/fall_recorder.h"
#include "platform/dolm_ric/port_details.h"
#include "program/details_json.h"
#include "tesk_client/tesk_details.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

using namespace bench;

static constexpr uint32_t ports = 512;
static constexpr uint32_t lanes = 8;
static constexpr int updates = 2000;

static void change(dolm_ric_details_record &record, double value)
{
    record.presence = DOLM_RIC_PRESENCE_READY;
    record.lane_count = lanes;
    record.own_lanes = (1U << lanes) - 1;
    const int64_t now = now_ns();
    for (uint32_t lane = 0; lane < lanes; lane++)
        for (dolm_ric_details_value &its : record.lane[lane].value)
            its = {.state = DOLM_RIC_VALUE_VALID,
                   .grade = 1,
                   .read_at = now,
                   .value = value,
                   .flag = {}};
}

/* The median. */
template <typename function>
static int64_t time_of(int count, function &&act)
{
    std::vector<int64_t> times;
    for (int i = 0; i < count; i++) {
        const int64_t begin = now_ns();
        act(i);
        times.push_back(now_ns() - begin);
    }
    std::ranges::nth_element(times, times.begin() + count / 2);
    return times[static_cast<size_t>(count) / 2];
}

static void write_json(const std::string &path, const dolm_ric_details_record &record)
{
    std::ofstream(path + ".new") << to_json(record, 0).dump();
    std::filesystem::rename(path + ".new", path);
}

static void read_all(tesk_details *details, dolm_ric_details_record &record)
{
    for (uint32_t port = 0; port < ports; port++)
        if (tesk_details_read(details, port, &record) != TESK_DETAILS_OK)
            fail("a record can't be read");
}

static void parse_all(const std::string &folder)
{
    for (uint32_t port = 0; port < ports; port++) {
        std::ifstream file(folder + "/" + std::to_string(port));
        if (json_object::parse(file).empty())
            fail("a file can't be read");
    }
}

/* Of all threads. */
static int64_t processor_ns()
{
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1'000'000'000 + used.tv_nsec;
}

/* All three looks at each of the falls, and its file. */
static int64_t time_of_burst(const std::string &folder)
{
    constexpr uint32_t falling = 64;
    int64_t now = now_ns();
    board::fall_recorder recorder({.oldest_look = INT64_MAX, .youngest_look = 0},
                                  [&now] { return now; });
    recorder.start(folder, {}, false);
    auto record = std::make_unique<dolm_ric_details_record>();
    change(*record, 0.5);
    record->link.state = DOLM_RIC_VALUE_VALID;
    const auto show = [&](uint32_t state) {
        for (record->port = 0; record->port < falling; record->port++) {
            record->link.oper = state;
            record->link.changed_at = now;
            recorder.see(*record);
        }
    };
    show(DOLM_RIC_SWITCH_UP);
    const int64_t begin = processor_ns();
    show(DOLM_RIC_SWITCH_DOWN);
    for (const int64_t later : {0, 200'000'000, 2'000'000'000}) {
        now += later;
        recorder.work();
    }
    return processor_ns() - begin;
}

static int run(std::span<char *> words)
{
    if (words.size() != 3)
        fail("details FOLDER ROUNDS");
    const std::string folder = words[1];
    board::fall_recorder falls({.oldest_look = INT64_MAX, .youngest_look = 0});
    board::port_details published;
    published.watch([&](const dolm_ric_details_record &changed) { falls.see(changed); });
    falls.start(folder + "/falls", {});
    published.start(folder + "/details");
    auto record = std::make_unique<dolm_ric_details_record>();
    change(*record, 0.5);
    for (uint32_t port = 0; port < ports; port++) {
        published.update(port, [](auto &its) { change(its, 0.5); });
        write_json(folder + "/" + std::to_string(port), *record);
    }
    published.flush();
    tesk_details *details = nullptr;
    if (tesk_details_open((folder + "/details").c_str(), &details) != TESK_DETAILS_OK)
        fail("the details can't be opened");
    const auto update = [&](int i) {
        published.update(static_cast<uint32_t>(i) % ports, [i](auto &its) { change(its, i); });
    };
    for (int round = std::stoi(words[2]); round > 0; round--) {
        const int64_t told = time_of(updates, update);
        published.flush();
        print_list(
            {{told, time_of(updates, [&](int i) { update(i), published.flush(); }),
              time_of(updates / 10, [&](int) { write_json(folder + "/0", *record); }),
              time_of(5, [&](int) { read_all(details, *record); }),
              time_of(1, [&](int) { parse_all(folder); }), time_of_burst(folder + "/burst")}});
    }
    tesk_details_close(details);
    return 0;
}

int main(int count, char **words)
{
    return report_failures(run, count, words);
}
