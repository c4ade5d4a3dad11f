/* SPDX-License-Identifier: Apache-2.0 */
/* The details of ports: their writer and reader together, and the details made from a module's
   memory. */
#include "platform/dolm_ric/details_record.h"
#include "platform/dolm_ric/linux/decode/module_details.h"
#include "platform/dolm_ric/linux/decode/vdm.h"
#include "platform/dolm_ric/port_details.h"
#include "tesk_client/tesk_details.h"
#include "testkit/modules/module_images.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"
#include "util/deadline.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace linux_board;
using record_type = dolm_ric_details_record;
namespace fs = std::filesystem;

namespace
{

struct details_test : testing::Test {
    tesk_details_result open()
    {
        tesk_details_close(reader);
        return tesk_details_open(path.c_str(), &reader);
    }
    ~details_test() override
    {
        tesk_details_close(reader);
    }
    /* Overwrites a part of the file, which only its writer may do. */
    template <typename value_type>
    void spoil(off_t offset, value_type value) const
    {
        const util::descriptor file(::open(path.c_str(), O_WRONLY));
        EXPECT_EQ(pwrite(file.get(), &value, sizeof(value), offset), ssize_t{sizeof(value)});
    }
    testkit::directory folder;
    const std::string path = folder.path + "/details";
    struct : board::port_details {
        template <typename edit_type>
        void publish(uint32_t port, edit_type &&edit)
        {
            update(port, edit);
            flush();
        }
    } writer;
    tesk_details *reader = nullptr;
    record_type record = {};
};

} // namespace

/* All counters of a record are set by the same update. */
static void fill(record_type &record, uint64_t number)
{
    record.lane_count = DOLM_RIC_DETAILS_LANES;
    record.vdm_count = number % 2 == 0 ? DOLM_RIC_DETAILS_VDM : 1;
    record.cost.reads = number;
    for (auto &lane : record.lane)
        lane.value[2].flag[3].count = lane.signal[6].count = number;
    record.vdm[0].value = record.vdm[record.vdm_count - 1].value = static_cast<double>(number);
}

TEST_F(details_test, a_reader_never_sees_half_a_record)
{
    writer.update(7, [](record_type &its) { fill(its, 1); });
    writer.start(path);
    ASSERT_EQ(open(), TESK_DETAILS_OK);
    std::jthread busy([&](const std::stop_token &over) {
        for (uint64_t number = 2; !over.stop_requested(); number++)
            writer.publish(7, [number](record_type &its) { fill(its, number); });
    });
    uint64_t last = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < end) {
        const tesk_details_result result = tesk_details_read(reader, 7, &record);
        if (result == TESK_DETAILS_BUSY)
            continue; /* the writer never pauses */
        ASSERT_EQ(result, TESK_DETAILS_OK);
        const uint64_t number = record.cost.reads;
        ASSERT_GE(number, last);
        for (const auto &lane : record.lane)
            ASSERT_TRUE(lane.value[2].flag[3].count == number && lane.signal[6].count == number);
        ASSERT_EQ(record.vdm[record.vdm_count - 1].value, static_cast<double>(number));
        last = number;
    }
    busy.request_stop();
    busy.join();
    ASSERT_EQ(tesk_details_read(reader, 7, &record), TESK_DETAILS_OK);
    EXPECT_GE(record.cost.reads, last);
}

TEST_F(details_test, a_handle_outlives_its_board_and_what_happens_to_its_file)
{
    EXPECT_EQ(open(), TESK_DETAILS_NO_FILE);
    writer.start(path);
    writer.publish(3, [](record_type &its) { its.cost.reads = 1; });
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    setenv("DOLM_RIC_PORT_MAP", (folder.path + "/ports").c_str(), 1);
    EXPECT_EQ(tesk_details_open(nullptr, &reader), TESK_DETAILS_OK) << "beside the port map";
    unsetenv("DOLM_RIC_PORT_MAP");
    ASSERT_EQ(open(), TESK_DETAILS_OK);
    EXPECT_TRUE(tesk_details_is_newer(reader, &record));
    ASSERT_EQ(tesk_details_read(reader, 3, &record), TESK_DETAILS_OK);
    EXPECT_FALSE(tesk_details_is_newer(reader, &record));
    writer.publish(3, [](record_type &) {});
    EXPECT_TRUE(tesk_details_is_newer(reader, &record));
    for (const uint32_t port : {0u, 2u, 4u, 65534u, UINT32_MAX})
        EXPECT_EQ(tesk_details_read(reader, port, &record), TESK_DETAILS_NO_PORT) << port;
    EXPECT_EQ(tesk_details_port_limit(reader), 4u);

    spoil(0, '\0');
    tesk_details_close(std::exchange(reader, nullptr));
    EXPECT_EQ(open(), TESK_DETAILS_NOT_DETAILS);
    for (const bool is_replaced : {false, true}) {
        if (is_replaced)
            fs::rename(path, path + ".old");
        std::ofstream(path, std::ios::trunc).close();
        EXPECT_EQ(open(), TESK_DETAILS_TRUNCATED);
        const util::deadline until(testkit::deadline);
        while (open() != TESK_DETAILS_OK && !until.has_passed())
            writer.publish(3, [](record_type &) {}); /* it notices and makes another file */
        EXPECT_EQ(tesk_details_read(reader, 3, &record), TESK_DETAILS_OK);
    }
    board::port_details other; /* can't write a file at this path while the first writer lives */
    other.start(path);
    other.stop();
    EXPECT_EQ(tesk_details_read(reader, 3, &record), TESK_DETAILS_OK);

    writer.stop();
    EXPECT_TRUE(tesk_details_is_newer(reader, &record)) << "of a board that has ended";
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(tesk_details_read(reader, 3, &record), TESK_DETAILS_NO_FILE);
    writer.start(path);
    ASSERT_EQ(tesk_details_read(reader, 3, &record), TESK_DETAILS_OK);
    EXPECT_EQ(record.cost.reads, 1u);
}

TEST_F(details_test, a_file_that_was_cut_is_made_anew_by_the_next_change_of_any_port)
{
    writer.start(path);
    for (const uint32_t port : {0u, 1u})
        writer.publish(port, [](record_type &) {});
    const auto whole = static_cast<off_t>(fs::file_size(path));
    for (const off_t size : {off_t{4096}, whole - 100}) {
        ASSERT_EQ(truncate(path.c_str(), size), 0);
        writer.publish(size == 4096 ? 1 : 0, [](record_type &) {});
        ASSERT_EQ(open(), TESK_DETAILS_OK);
        for (const uint32_t port : {0u, 1u})
            EXPECT_EQ(tesk_details_read(reader, port, &record), TESK_DETAILS_OK) << port << size;
        tesk_details_close(std::exchange(reader, nullptr));
    }
}

TEST_F(details_test, the_file_of_another_board_that_lives_is_left_alone_and_records_have_a_bound)
{
    board::port_details first;
    first.start(path);
    writer.start(path);
    writer.publish(1, [](record_type &its) { its.cost.reads = 1; });
    ASSERT_EQ(open(), TESK_DETAILS_OK);
    EXPECT_EQ(tesk_details_read(reader, 1, &record), TESK_DETAILS_NO_PORT);
    first.stop();
    const util::deadline until(testkit::deadline);
    while (tesk_details_read(reader, 1, &record) != TESK_DETAILS_OK && !until.has_passed())
        writer.publish(1, [](record_type &) {});
    EXPECT_EQ(record.cost.reads, 1u);
    for (uint32_t port = 2; port <= board::port_details::most_records; port++)
        writer.update(port, [](record_type &its) { its.presence = DOLM_RIC_PRESENCE_EMPTY; });
    writer.publish(1, [](record_type &its) { its.presence = DOLM_RIC_PRESENCE_OUT; });
    for (const uint32_t port : {5000u, 5001u})
        writer.publish(port, [](record_type &) {});
    EXPECT_EQ(tesk_details_read(reader, 5000, &record), TESK_DETAILS_OK);
    for (const uint32_t port : {1u, 5001u})
        EXPECT_EQ(tesk_details_read(reader, port, &record), TESK_DETAILS_NO_PORT) << port;
}

TEST_F(details_test, what_is_no_file_of_a_living_board_is_refused_at_once)
{
    writer.start(path);
    writer.publish(0, [](record_type &) {});
    const std::string good = testkit::read_file(path);
    writer.stop();
    const auto put = [&](const std::string &text) { std::ofstream(path) << text; };
    const struct {
        tesk_details_result result;
        std::function<void()> make;
    } cases[] = {
        {TESK_DETAILS_NOT_DETAILS, [&] { mkfifo(path.c_str(), 0600); }},
        {TESK_DETAILS_NOT_DETAILS, [&] { fs::create_directory(path); }},
        {TESK_DETAILS_NOT_DETAILS, [&] { fs::create_symlink("/etc/passwd", path); }},
        {TESK_DETAILS_NOT_DETAILS, [&] { put(std::string(4096, 'x')); }},
        {TESK_DETAILS_TRUNCATED, [&] { put(good.substr(0, 63)); }},
        {TESK_DETAILS_ENDED, [&] { put(good); }}, /* no process has its lock */
        {TESK_DETAILS_OTHER_VERSION, [&] { put(good), spoil(8, uint32_t{2}); }},
        {TESK_DETAILS_DAMAGED, [&] { put(good), spoil(16, uint32_t{1}); }},
    };
    for (const auto &its : cases) {
        fs::remove(path);
        its.make();
        EXPECT_EQ(open(), its.result) << tesk_details_result_text(its.result);
    }
}

TEST_F(details_test, a_record_that_contradicts_itself_or_stays_unfinished_is_not_given_out)
{
    writer.start(path);
    writer.publish(0, [](record_type &) {});
    ASSERT_EQ(open(), TESK_DETAILS_OK);
    constexpr off_t at = 4096;
    writer.publish(0, [](record_type &its) { memset(its.identity.vendor, 'x', 20); });
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_OK);
    EXPECT_EQ(record.identity.vendor[19], '\0') << "a text ends";
    spoil(at + offsetof(record_type, lane_count), uint32_t{17});
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_DAMAGED);
    writer.publish(0, [](record_type &) {});
    spoil(at + offsetof(record_type, port), uint32_t{1});
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_DAMAGED);
    spoil(at, uint64_t{3});
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_BUSY);
    ASSERT_EQ(truncate(path.c_str(), at + 100), 0);
    spoil(at, uint64_t{4});
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_TRUNCATED);
}

TEST_F(details_test, a_record_that_could_not_be_written_is_written_later)
{
    writer.start(path);
    ASSERT_EQ(open(), TESK_DETAILS_OK);
    rlimit usual = {};
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit small = {4096, usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    writer.publish(0, [](record_type &) {});
    setrlimit(RLIMIT_FSIZE, &usual);
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_NO_PORT);
    const util::deadline until(testkit::deadline);
    while (tesk_details_read(reader, 0, &record) != TESK_DETAILS_OK && !until.has_passed())
        std::this_thread::yield();
    EXPECT_FALSE(until.has_passed());
}

TEST_F(details_test, a_new_port_takes_the_place_of_one_that_was_taken_out)
{
    for (uint32_t port = 0; port < board::port_details::most_records; port++)
        writer.update(port, [](record_type &its) { its.presence = DOLM_RIC_PRESENCE_OUT; });
    writer.start(path);
    writer.publish(2000, [](record_type &) {});
    ASSERT_EQ(open(), TESK_DETAILS_OK);
    EXPECT_EQ(tesk_details_read(reader, 0, &record), TESK_DETAILS_NO_PORT);
    EXPECT_EQ(tesk_details_read(reader, 1, &record), TESK_DETAILS_OK);
    EXPECT_EQ(tesk_details_read(reader, 2000, &record), TESK_DETAILS_OK);
}

TEST_F(details_test, grades_texts_and_lanes_are_those_of_the_module)
{
    const dolm_ric_details_limits limits = {DOLM_RIC_VALUE_VALID, 0, 1, 2, 3, 4};
    static const std::tuple<double, bool, uint32_t> rows[] = {
        {1, true, DOLM_RIC_GRADE_LOW_ALARM},    {2, true, DOLM_RIC_GRADE_LOW_WARNING},
        {1, false, DOLM_RIC_GRADE_OK},          {2.5, true, DOLM_RIC_GRADE_OK},
        {3, true, DOLM_RIC_GRADE_HIGH_WARNING}, {4, true, DOLM_RIC_GRADE_HIGH_ALARM}};
    for (const auto &[value, has_low_limits, grade] : rows)
        EXPECT_EQ(board::grade_value(value, limits, has_low_limits), grade) << value;
    fill(record, 1);
    for (const uint32_t count : {2u, DOLM_RIC_DETAILS_LANES + 0u})
        board::set_lane_count(count, record);
    EXPECT_TRUE(record.lane[1].signal[6].count == 1 && record.lane[2].signal[6].count == 0);
    board::set_text(record.identity.revision, 8, "a\x1b\xe9 long one", 15);
    EXPECT_STREQ(record.identity.revision, "a?? lon");
}

/* Reads all ranges of the plan, at a time in ns. */
static module_memory read_at(const module_images::image &image, int64_t time)
{
    module_memory memory;
    const auto at = module_memory::time_point(std::chrono::nanoseconds(time));
    for (size_t done = 0; done < reading_plan(memory).size(); done++) {
        const memory_range range = reading_plan(memory)[done].range;
        memory.store(range, image.at(range), at);
    }
    return memory;
}

static void take(const module_images::image &image, int64_t time, record_type &record)
{
    const module_memory memory = read_at(image, time);
    take_module(memory, decode_module(memory), {}, record);
}

TEST_F(details_test, flags_are_counted_once_for_each_reading)
{
    module_images::image sfp = module_images::sfp();
    sfp.a2[112] = 0x80; /* high alarm of the temperature */
    sfp.a2[110] = 0x02;
    for (const int64_t time : {100, 100, 200})
        take(sfp, time, record);
    sfp.a2[112] = sfp.a2[110] = 0;
    take(sfp, 300, record);
    const dolm_ric_details_value &its = record.module_value[DOLM_RIC_TEMPERATURE];
    const dolm_ric_details_flag &flag = its.flag[DOLM_RIC_FLAG_HIGH_ALARM];
    EXPECT_TRUE(flag.count == 2 && flag.first_at == 100 && flag.last_at == 200 &&
                its.read_at == 300);
    const dolm_ric_details_condition &los = record.lane[0].signal[DOLM_RIC_RX_LOS];
    EXPECT_TRUE(los.count == 2 && los.last_at == 200 && los.on == 0 &&
                los.state == DOLM_RIC_VALUE_VALID);
    EXPECT_STREQ(record.identity.encoding, "64B/66B");
    EXPECT_STREQ(record.identity.compliance[0], "10GBASE-SR");
    board::forget_module(DOLM_RIC_PRESENCE_EMPTY, DOLM_RIC_VALUE_EMPTY, record);
    EXPECT_TRUE(its.state == DOLM_RIC_VALUE_EMPTY && flag.count == 0 && record.lane_count == 0);
}

TEST_F(details_test, lanes_are_graded_and_watched_each_by_itself)
{
    module_images::image qsfp = module_images::qsfp();
    qsfp.a0[86] = 0x02; /* the transmitter of lane 1 is switched off */
    take(qsfp, 100, record);
    const auto grade = [&](uint32_t lane, uint32_t kind) {
        return record.lane[lane].value[kind].grade;
    };
    EXPECT_EQ(grade(1, DOLM_RIC_TX_BIAS), uint32_t{DOLM_RIC_GRADE_OFF});
    EXPECT_EQ(grade(0, DOLM_RIC_TX_BIAS), grade(1, DOLM_RIC_RX_POWER));

    module_images::image sfp = module_images::sfp();
    module_images::put16(sfp.a2, 102, 0); /* sends no light */
    const module_memory memory = read_at(sfp, 100);
    for (const bool is_stopped : {false, true}) {
        take_module(memory, decode_module(memory), {.stopped = is_stopped}, record);
        EXPECT_EQ(grade(0, DOLM_RIC_TX_POWER),
                  is_stopped ? DOLM_RIC_GRADE_OK : DOLM_RIC_GRADE_LOW_ALARM);
    }

    module_images::image cmis = module_images::cmis();
    cmis.a0[128 + 158] = 0x02;
    module_images::put_page_sums(cmis.a0);
    cmis.lanes[1][147] = 1; /* a lane of the second bank */
    take(cmis, 100, record);
    EXPECT_TRUE(record.lane[8].signal[DOLM_RIC_RX_LOS].on == 1 &&
                record.lane[0].signal[DOLM_RIC_RX_LOS].on == 0);
    for (const int64_t now : {5, 9})
        set_presence(true, DOLM_RIC_VALUE_VALID, now, record);
    EXPECT_EQ(record.inserted_at, 5);
}

TEST_F(details_test, versatile_diagnostics_are_read_after_all_else)
{
    module_images::image module = module_images::cmis_with_vdm();
    const auto put = [&](size_t page, size_t at, int value) {
        module_images::put16(module.a0, page * 128 + at, value);
    };
    put(0x20, 130, 0x120f);                            /* a bit error ratio of 0 */
    put(0x20, 132, 0x0004), put(0x24, 132, -10 * 256); /* a laser below 0 degrees */
    put(0x2c, 128, 0x2400);                            /* flags of rows 1 and 0 */
    take(module, 100, record);
    ASSERT_EQ(record.vdm_count, 4u);
    EXPECT_EQ(record.vdm[0].raised, 1u << DOLM_RIC_FLAG_HIGH_WARNING);
    EXPECT_EQ(record.vdm[1].raised, 1u << DOLM_RIC_FLAG_LOW_ALARM);
    const dolm_ric_details_vdm &ber = record.vdm[0], &snr = record.vdm[3];
    EXPECT_TRUE(ber.kind == DOLM_RIC_VDM_PRE_FEC_BER_CURRENT && ber.side == DOLM_RIC_SIDE_MEDIA &&
                ber.lane == 2 && ber.read_at == 100 && ber.grade == DOLM_RIC_GRADE_HIGH_WARNING);
    EXPECT_DOUBLE_EQ(ber.value, 240e-8);
    EXPECT_DOUBLE_EQ(ber.limits.high_alarm, 1e-4);
    EXPECT_TRUE(snr.kind == DOLM_RIC_VDM_SNR && snr.side == DOLM_RIC_SIDE_HOST && snr.lane == 3 &&
                snr.value == 20 && snr.limits.state == DOLM_RIC_VALUE_NOT_SUPPORTED);
    EXPECT_EQ(record.vdm[1].grade, uint32_t{DOLM_RIC_GRADE_OK});
    EXPECT_EQ(record.vdm[2].value, -10);
    module_memory memory = read_at(module, 150);
    memory.drop(vdm_flags_range);
    take_vdm(memory, DOLM_RIC_VALUE_VALID, record);
    EXPECT_EQ(record.vdm[0].raised, DOLM_RIC_VDM_FLAGS_UNKNOWN);
    memory.drop(vdm_range(vdm_descriptors, 0));
    take_vdm(memory, DOLM_RIC_VALUE_VALID, record);
    EXPECT_EQ(record.vdm_state, uint32_t{DOLM_RIC_VALUE_NOT_READ});
    for (size_t at = 128; at < 256; at += 2)
        put(0x20, at, 0);
    take(module, 160, record);
    EXPECT_EQ(record.vdm_state, uint32_t{DOLM_RIC_VALUE_NOT_SUPPORTED}); /* it has no descriptor */
    for (const size_t page : {0x20u, 0x21u, 0x22u})
        for (size_t at = 128; at < 256; at += 2)
            put(page, at, 5);
    put(0x2f, 128, 2 << 8); /* three groups */
    take(module, 200, record);
    EXPECT_TRUE(record.vdm_count == DOLM_RIC_DETAILS_VDM && record.vdm_left_out == 64);
}

TEST_F(details_test, what_a_module_claims_is_taken_and_nothing_else)
{
    const auto is_told = [&](uint32_t lane, uint32_t kind) {
        return record.lane[lane].signal[kind].state == DOLM_RIC_VALUE_VALID;
    };
    module_images::image module = module_images::cmis_with_vdm();
    module_images::bytes &a0 = module.a0;
    const auto put = [&](size_t at, std::initializer_list<int> words) {
        for (const int word : words)
            module_images::put16(a0, at, word), at += 2;
    };
    a0[128 + 159] = 0x0f, a0[128 + 145] = 1; /* monitors of a TEC and of a laser's temperature */
    put(18, {-8192, 55 * 256}), a0[10] = 0x20;
    put(256 + 152, {60 * 256, 45 * 256, 54 * 256, 47 * 256});
    a0[128 + 142] = 0x40, a0[128 + 157] = 7, a0[128 + 158] = 6, a0[128 + 160] = 0x1f;
    for (size_t at = 86; at < 118; at += 4)
        put(at, {0x4f1c, 0x8401}); /* 8 lanes of the host on 4 lanes of light */
    put(128 + 223, {0x511e, 0x4411, 0xff00});
    put(0x20 * 128 + 130, {0x3002}); /* the TEC's current, by VDM */
    a0[210] = 0xf0;
    std::fill_n(&module.lanes[0][206], 8, uint8_t{0x90});
    module.lanes[0][136] = 0x40;
    for (const uint8_t technology : {uint8_t{6}, uint8_t{0x0c}}) { /* and an active copper cable */
        a0[212] = technology;
        module_images::put_sum(a0, 128, 222), module_images::put_page_sums(a0);
        take(module, 100 + technology, record);
        EXPECT_TRUE(record.vdm_count == 3 && record.vdm[1].lane == 0xff);
        EXPECT_EQ(record.lane_count, technology == 6 ? 8u : 0u);
        const auto &laser = record.module_value[DOLM_RIC_LASER_TEMPERATURE];
        EXPECT_TRUE(laser.value == 55 && laser.grade == DOLM_RIC_GRADE_HIGH_WARNING &&
                    laser.flag[DOLM_RIC_FLAG_LOW_ALARM].count != 0);
        EXPECT_NEAR(record.module_value[DOLM_RIC_TEC_CURRENT].value, -25, 1e-2);
        if (technology == 6) {
            EXPECT_TRUE(is_told(6, DOLM_RIC_TX_LOL) && !is_told(6, DOLM_RIC_RX_LOL));
            EXPECT_EQ(record.lane[6].signal[DOLM_RIC_TX_LOS].on, 1u);
            EXPECT_EQ(record.lane_limits[DOLM_RIC_TX_BIAS].state, /* a reserved factor of bias */
                      uint32_t{DOLM_RIC_VALUE_NOT_SUPPORTED});
            EXPECT_EQ(record.identity.application_count, 9u);
            EXPECT_EQ(record.identity.application[8].selected_lanes, 0xffu);
        }
    }
    a0[3] = 2; /* low power */
    take(module, 200, record);
    EXPECT_EQ(record.module_value[DOLM_RIC_TEC_CURRENT].state, uint32_t{DOLM_RIC_VALUE_NOT_READY});

    module_images::image qsfp = module_images::qsfp(), sfp = module_images::sfp();
    qsfp.a0[194] = qsfp.a0[195] = 0, module_images::put_sum(qsfp.a0, 192, 223);
    take(qsfp, 300, record);
    for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++)
        EXPECT_EQ(is_told(0, kind), kind == DOLM_RIC_RX_LOS) << kind;
    sfp.a0[64] = 8, module_images::put_sum(sfp.a0, 64, 95);
    sfp.a2[119] = 2;
    take(sfp, 400, record);
    EXPECT_TRUE(is_told(0, DOLM_RIC_RX_LOL) && record.lane[0].signal[DOLM_RIC_TX_LOL].on == 1 &&
                record.lane[0].signal[DOLM_RIC_RX_LOL].on == 0);
}

TEST_F(details_test, what_is_missing_has_its_reason)
{
    using image = module_images::image;
    const struct {
        const char *what;
        image (*make)();
        uint32_t module_value, lane_value, limits;
    } cases[] = {
        {"whole", [] { return module_images::qsfp(); }, DOLM_RIC_VALUE_VALID, DOLM_RIC_VALUE_VALID,
         DOLM_RIC_VALUE_VALID},
        {"none", [] { return module_images::sfp(0); }, DOLM_RIC_VALUE_NOT_SUPPORTED,
         DOLM_RIC_VALUE_NOT_SUPPORTED, DOLM_RIC_VALUE_NOT_SUPPORTED},
        {"wrong sum of limits",
         [] {
             image made = module_images::sfp();
             made.a2[95]++;
             return made;
         },
         DOLM_RIC_VALUE_VALID, DOLM_RIC_VALUE_VALID, DOLM_RIC_VALUE_WRONG_CHECKSUM},
        {"blank",
         [] {
             image made = module_images::sfp();
             std::fill(made.a2.begin() + 96, made.a2.end(), uint8_t{0});
             return made;
         },
         DOLM_RIC_VALUE_DOUBTFUL, DOLM_RIC_VALUE_DOUBTFUL, DOLM_RIC_VALUE_DOUBTFUL},
        {"low power",
         [] {
             image made = module_images::cmis();
             made.a0[3] = 0x02;
             return made;
         },
         DOLM_RIC_VALUE_VALID, DOLM_RIC_VALUE_NOT_READY, DOLM_RIC_VALUE_VALID},
        {"copper",
         [] {
             image made = module_images::sfp();
             made.a0[2] = 0x22, made.a0[3] = 0;
             module_images::put_sum(made.a0, 0, 63);
             return made;
         },
         DOLM_RIC_VALUE_VALID, DOLM_RIC_VALUE_NO_LIGHT, DOLM_RIC_VALUE_NO_LIGHT},
    };
    for (const auto &its : cases) {
        record = {};
        take(its.make(), 100, record);
        EXPECT_EQ(record.module_value[DOLM_RIC_VOLTAGE].state, its.module_value) << its.what;
        EXPECT_EQ(record.lanes_state, its.lane_value) << its.what;
        EXPECT_EQ(record.lane_limits[DOLM_RIC_RX_POWER].state, its.limits) << its.what;
    }
    take(module_images::cmis(), 100, record);
    EXPECT_EQ(record.lane_count, 16u);
    EXPECT_EQ(record.lane[15].value[DOLM_RIC_TX_BIAS].value, 8.0);
    module_images::image one_lane = module_images::cmis();
    one_lane.a0[210] = 0xfe;    /* lanes that the module lacks */
    one_lane.a0[128 + 142] = 0; /* one bank */
    module_images::put_sum(one_lane.a0, 128, 222);
    module_images::put_page_sums(one_lane.a0);
    dolm_ric_details_record few = {};
    take(one_lane, 100, few);
    EXPECT_EQ(few.lane_count, 1u);
    lose_values(DOLM_RIC_VALUE_NO_ANSWER, record);
    EXPECT_EQ(record.lane[15].value[DOLM_RIC_TX_BIAS].state, uint32_t{DOLM_RIC_VALUE_NO_ANSWER});
    EXPECT_EQ(record.lane[15].value[DOLM_RIC_TX_BIAS].read_at, 100);
}
