/* SPDX-License-Identifier: Apache-2.0 */
/* The poller of the Linux board's modules, with modules and a clock of the test's own. */

#include "platform/dolm_ric/linux/decode/module_details.h"
#include "platform/dolm_ric/linux/module_files.h"
#include "platform/dolm_ric/linux/module_poller.h"
#include "platform/dolm_ric/linux/reader_client.h"
#include "platform/dolm_ric/linux/record_updates.h"
#include "platform/dolm_ric/linux/worker.h"
#include "platform/linux_interfaces/driver_logs.h"
#include "testkit/modules/module_images.h"
#include "testkit/processes/processes.h"
#include "util/local_socket.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace linux_board;
using std::chrono::milliseconds;
using std::chrono::seconds;
using time_point = module_poller::time_point;
using module_images::module_with_serial;

static constexpr int32_t index_of_port_0 = 100;

/* How far the test's clock is ahead of the system's. */
static seconds ahead{0};

extern "C" int clock_gettime(clockid_t clock, timespec *now)
{
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec += ahead.count();
    return result;
}

namespace
{

struct cage {
    std::optional<module_images::image> module = {};
    int error = 0;    /* errno of every reading */
    int a2_error = 0; /* errno of every reading at 0x51 */
    uint8_t page = 0, bank = 0;
    uint32_t page_errors_left = 0; /* so many readings of that page fail with EIO */
    int errors_left = 0;           /* so many readings fail with ENXIO */
    int garbled_left = 0;          /* so many readings return other bytes */
    milliseconds cost{0};          /* duration of a reading */
    int32_t moved = 0;             /* added to the index of the interface */
    uint32_t readings = 0;
};

struct cages final : module_access {
    void read(std::span<piece> pieces) override
    {
        EXPECT_LE(pieces.size(), most_pieces);
        packets++;
        requests += pieces.size();
        std::set<uint32_t> failing;
        for (piece &wanted : pieces) {
            if (failing.contains(wanted.port))
                wanted.error = ECANCELED;
            else
                read(ports[wanted.port], wanted);
            if (wanted.error != 0)
                failing.insert(wanted.port);
        }
    }
    void read(cage &from, piece &wanted)
    {
        const memory_range &range = wanted.range;
        EXPECT_TRUE(range.length >= 1 && range.length <= 32);
        EXPECT_TRUE(range.offset >= 128 || range.offset + range.length <= 128);
        now += from.cost;
        from.readings++;
        wanted.interface = index_of_port_0 + static_cast<int32_t>(wanted.port) + from.moved;
        wanted.error = from.error;
        if (wanted.error == 0 && range.address == diagnostics_address)
            wanted.error = from.a2_error;
        if (from.page_errors_left > 0 && range.page == from.page && range.bank == from.bank)
            from.page_errors_left--, wanted.error = EIO;
        if (wanted.error == 0 && from.errors_left > 0)
            from.errors_left--, wanted.error = ENXIO;
        const auto bytes = from.module ? from.module->at(range) : std::span<const uint8_t>();
        if (wanted.error == 0 && bytes.empty())
            wanted.error = ENXIO;
        if (wanted.error != 0)
            return;
        std::copy(bytes.begin(), bytes.end(), wanted.bytes.begin());
        if (from.garbled_left > 0)
            from.garbled_left--, wanted.bytes.fill(0xff);
    }
    std::map<uint32_t, cage> ports;
    time_point now{std::chrono::hours(1)};
    size_t packets = 0, requests = 0;
};

struct linux_modules_test : testing::Test, module_listener {
    linux_modules_test()
    {
        begin_anew();
    }
    void begin_anew()
    {
        modules = cages();
        record = {};
        read_at.clear();
        accesses.clear();
        poller.emplace(modules, *this, [this] { return modules.now; });
    }
    void add(uint32_t port, bool needs_reader = true)
    {
        poller->add(port, needs_reader);
        poller->set_interface(port, index_of_port_0 + static_cast<int32_t>(port));
    }
    /* Makes the readings that are due in that time. */
    void pass(module_poller::duration time)
    {
        const time_point end = modules.now + time;
        for (time_point due; (due = poller->next_due()) <= end;) {
            modules.now = std::max(modules.now, due);
            poller->step();
            for (const auto &[port, at] : read_at)
                oldest = std::max(oldest, modules.now - at);
        }
        modules.now = std::max(modules.now, end);
    }
    /* The reports in that time: a(bsent), n(ot ready), r(eady) with the serial number. */
    std::string news_in(module_poller::duration time)
    {
        news.clear();
        pass(time);
        return news;
    }
    std::string begin_with(const module_images::image &module)
    {
        modules.ports[0].module = module;
        add(0);
        return news_in(seconds(3));
    }

    void module_cost(uint32_t, const reading_cost &cost) override
    {
        take_cost(cost, record);
    }
    void module_sampled(uint32_t, const module_memory &memory,
                        const module_contents &contents) override
    {
        take_module(memory, contents, {}, record);
    }
    void reading_doubted(uint32_t, const module_memory &memory,
                         const module_contents &contents) override
    {
        take_flags(memory, contents, record);
    }
    void reading_dropped(uint32_t) override
    {
        dropped++;
    }
    void module_read(uint32_t port, const module_contents &contents, time_point at) override
    {
        serials[port] = contents.identity.sfp_vendor_sn;
        values[port] = contents.temperature.lanes.empty() ? 0 : contents.temperature.lanes[0].value;
        read_at[port] = at;
    }
    void module_doubted(uint32_t, const std::vector<const char *> &reasons) override
    {
        doubts.insert(doubts.end(), reasons.begin(), reasons.end());
    }
    void module_presence_changed(uint32_t port, module_presence now) override
    {
        news += "anr"[static_cast<int>(now)];
        if (now == module_presence::ready)
            news += serials[port].substr(0, 4);
    }
    void module_access_changed(int error) override
    {
        accesses.push_back(error);
    }

    cages modules;
    std::optional<module_poller> poller;
    dolm_ric_details_record record = {};
    std::string news;
    std::map<uint32_t, std::string> serials;
    std::map<uint32_t, double> values;
    std::map<uint32_t, time_point> read_at;
    std::vector<std::string> doubts;
    module_poller::duration oldest{0};
    std::vector<int> accesses;
    uint32_t dropped = 0;
};

} // namespace

TEST_F(linux_modules_test, a_module_comes_is_replaced_between_two_looks_and_goes)
{
    modules.ports[0] = {};
    add(0);
    EXPECT_EQ("", news_in(seconds(5)));
    EXPECT_TRUE(poller->is_first_look_over());
    modules.ports[0].module = module_with_serial("0001");
    EXPECT_EQ("n", news_in(milliseconds(1200))) << "found within a second, and given time";
    EXPECT_EQ("r0001", news_in(milliseconds(200)));
    EXPECT_EQ("", news_in(seconds(20)));
    modules.ports[0].module = module_with_serial("0002");
    EXPECT_EQ("ar0002r0002", news_in(seconds(2))) << "and once more, when it has settled";
    modules.ports[0].module.reset();
    EXPECT_EQ("a", news_in(milliseconds(1200)));
}

TEST_F(linux_modules_test, a_disturbed_reading_is_no_news)
{
    ASSERT_EQ("nr0001r0001", begin_with(module_with_serial("0001")));
    for (const auto &[garbled, errors] : {std::pair(1, 0), {3, 0}, {0, 1}}) {
        modules.ports[0].garbled_left = garbled;
        modules.ports[0].errors_left = errors;
        EXPECT_EQ("", news_in(seconds(3))) << garbled << errors;
        EXPECT_EQ(0, modules.ports[0].garbled_left + modules.ports[0].errors_left);
    }
}

TEST_F(linux_modules_test, an_error_in_an_empty_cage_is_no_broken_port)
{
    for (const int error : {EIO, EINVAL, EBUSY, ETIMEDOUT, EOPNOTSUPP})
        for (const bool logs_failures : {false, true}) {
            begin_anew();
            modules.ports[0].error = error;
            add(0);
            poller->expect_logging(0, logs_failures);
            pass(seconds(1000));
            EXPECT_EQ(logs_failures, modules.ports[0].readings == 1) << error;
            EXPECT_TRUE(record.cost.reads > 0 && record.cost.failures == 0) << error;
            modules.ports[0] = {.module = module_with_serial("0001")};
            if (logs_failures)
                poller->look_now(0);
            EXPECT_EQ("nr0001", news_in(milliseconds(2500))) << error;
            pass(seconds(10));
            for (const auto &[time, told] : {std::pair(1500, ""), {4500, ""}, {6500, "a"}}) {
                modules.ports[0].error = error == EOPNOTSUPP || error == EBUSY ? EIO : error;
                EXPECT_EQ(told, news_in(milliseconds(time))) << error;
                modules.ports[0].error = 0;
                EXPECT_EQ(*told ? "nr0001" : "",
                          news_in(logs_failures ? seconds(11) : seconds(2)).substr(0, 6));
            }
        }
}

TEST_F(linux_modules_test, a_value_that_jumps_is_read_again_before_it_is_seen)
{
    const module_images::image module = module_with_serial("0001");
    module_images::image hot = module, dark = module;
    hot.a2[96] ^= 0x40; /* 64 degrees more */
    module_images::put16(dark.a2, 104, 50);
    for (const module_images::image &jumped : {hot, dark}) {
        begin_anew();
        begin_with(module);
        const time_point last = read_at[0];
        record = {};
        modules.ports[0].module = jumped;
        modules.ports[0].module->a2[112] |= 0x40; /* low alarm of the temperature */
        poller->diagnostics_wanted(0);
        poller->step();
        EXPECT_EQ(last, read_at[0]);
        const auto &flags = record.module_value[DOLM_RIC_TEMPERATURE].flag;
        EXPECT_EQ(flags[DOLM_RIC_FLAG_LOW_ALARM].count, 1u) << "reading has cleared it";
        modules.ports[0].module = module;
        pass(milliseconds(100));
        EXPECT_EQ(1u, std::exchange(dropped, 0u));
        EXPECT_NEAR(25719, values[0], 1);
        modules.ports[0].module = jumped;
        pass(seconds(5));
        EXPECT_EQ(0u, dropped);
        EXPECT_LE(modules.now - read_at[0], seconds(5)) << "a true one is taken";
    }
}

TEST_F(linux_modules_test, details_keep_values_over_a_failure_and_tell_why_a_module_is_refused)
{
    begin_with(module_with_serial("0001"));
    const dolm_ric_details_value &bias = record.lane[0].value[DOLM_RIC_TX_BIAS];
    const int64_t last = bias.read_at;
    modules.ports[0].a2_error = EIO;
    pass(seconds(2));
    EXPECT_TRUE(bias.state == DOLM_RIC_VALUE_VALID && bias.read_at == last);
    modules.ports[0].a2_error = 0;
    pass(seconds(6));
    EXPECT_GT(bias.read_at, last);
    begin_anew();
    record = {};
    module_images::image wrong = module_with_serial("0001");
    wrong.a0[63]++;
    EXPECT_EQ("n", begin_with(wrong));
    set_presence(false, DOLM_RIC_VALUE_NO_ANSWER, 1, record);
    EXPECT_EQ(record.module_value[DOLM_RIC_VOLTAGE].state, uint32_t{DOLM_RIC_VALUE_WRONG_CHECKSUM});
    EXPECT_TRUE(record.doubt_count == 1 && record.identity.state == DOLM_RIC_VALUE_WRONG_CHECKSUM);
}

TEST_F(linux_modules_test, what_a_page_gave_before_it_failed_counts_for_15_s)
{
    module_images::image module = module_images::cmis_with_vdm();
    module.a0[128 + 158] = 0x02; /* the module reports LOS */
    module_images::put_page_sums(module.a0);
    module.a0[0x10 * 128 + 130] = 1; /* the host has switched lane 0 off */
    module_images::put16(module.lanes[0], 154, 0);
    begin_with(module);
    pass(seconds(20));
    const dolm_ric_details_lane &first = record.lane[0], &other = record.lane[8];
    const dolm_ric_details_value &dark = first.value[DOLM_RIC_TX_POWER];
    record.lane[8].value[DOLM_RIC_TX_BIAS].flag[0].count = 7;
    const struct {
        uint8_t page, bank;
        const uint32_t &value, &condition;
        const int64_t &read_at;
    } cases[] = {{0x11, 0, dark.state, first.signal[DOLM_RIC_RX_LOS].state, dark.read_at},
                 {0x11, 1, other.value[DOLM_RIC_TX_BIAS].state, other.signal[DOLM_RIC_RX_LOS].state,
                  other.value[DOLM_RIC_TX_BIAS].read_at},
                 {0x10, 0, first.signal[DOLM_RIC_TX_OFF].state, first.signal[DOLM_RIC_TX_OFF].state,
                  record.published_at},
                 {0x24, 0, record.vdm[0].state, record.vdm[1].state, record.vdm[0].read_at}};
    for (const auto &its : cases)
        for (const bool is_once : {true, false}) {
            SCOPED_TRACE(its.page + its.bank);
            modules.ports[0].page = its.page, modules.ports[0].bank = its.bank;
            modules.ports[0].page_errors_left = is_once ? 1 : 1000;
            const int64_t last = its.read_at;
            for (int time = 0; time < 160; time++) {
                pass(milliseconds(100));
                ASSERT_TRUE(record.lane_count == 16 && record.vdm_count == 2);
                ASSERT_EQ(record.vdm[0].raised & DOLM_RIC_VDM_FLAGS_UNKNOWN, 0u);
                ASSERT_NE(dark.grade, uint32_t{DOLM_RIC_GRADE_LOW_ALARM});
                ASSERT_TRUE(!is_once || its.value == DOLM_RIC_VALUE_VALID);
            }
            const uint32_t end = is_once ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_NO_ANSWER;
            EXPECT_EQ(its.value, end);
            EXPECT_EQ(its.condition, end);
            EXPECT_TRUE(is_once || its.read_at == 0 || its.read_at - last < 5'000'000'000);
            modules.ports[0].page_errors_left = 0;
            pass(seconds(20));
            EXPECT_EQ(its.value, uint32_t{DOLM_RIC_VALUE_VALID});
        }
    EXPECT_EQ(other.value[DOLM_RIC_TX_BIAS].flag[0].count, 7u);
}

TEST_F(linux_modules_test, ports_whose_readings_cost_much_are_read_less_often)
{
    for (uint32_t port = 0; port < 6; port++) {
        modules.ports[port].module = module_with_serial("0001");
        modules.ports[port].cost = milliseconds(port < 5 ? 2 : 0);
        add(port);
    }
    pass(std::chrono::minutes(2));
    const auto all = [this] {
        uint32_t readings = 0;
        for (uint32_t port = 0; port < 5; port++)
            readings += modules.ports[port].readings;
        return readings;
    };
    const uint32_t before = all(), cheap = modules.ports[5].readings;
    oldest = {};
    pass(std::chrono::minutes(5));
    EXPECT_LE((all() - before) * milliseconds(2), seconds(300) / 90) << "a hundredth of the time";
    EXPECT_GE(modules.ports[5].readings - cheap, 280u);
    EXPECT_LT(oldest, seconds(15));
}

TEST_F(linux_modules_test, a_module_that_the_kernel_keeps_for_itself_is_left_alone)
{
    begin_with(module_with_serial("0001"));
    modules.ports[0].error = EBUSY;
    modules.ports[0].readings = 0;
    EXPECT_EQ("", news_in(seconds(12)));
    EXPECT_EQ("n", news_in(seconds(600)));
    EXPECT_LE(modules.ports[0].readings, 612u / 2 + 5);
    modules.ports[0].error = 0;
    EXPECT_EQ("r0001", news_in(seconds(3)));
}

/* Another tool may have changed bytes that are read only once, such as the version of the inactive
   firmware. */
TEST_F(linux_modules_test, a_leased_module_is_kept_and_then_read_as_a_whole)
{
    for (const int error : {module_is_leased, EBUSY}) {
        begin_anew();
        begin_with(module_images::cmis());
        modules.ports[0].error = error;
        poller->identify_again(0);
        EXPECT_EQ("", news_in(seconds(12)));
        EXPECT_EQ("n", news_in(seconds(600)));
        modules.ports[0].module->a0[256] = 7;
        modules.ports[0].error = 0;
        EXPECT_EQ('r', news_in(seconds(3)).front());
        EXPECT_STREQ("7.0", record.identity.inactive_firmware);
        EXPECT_TRUE(accesses.empty());
    }
}

TEST_F(linux_modules_test, drivers_that_log_each_failure_are_known)
{
    const testkit::directory place;
    std::filesystem::create_directory_symlink("../../../bus/pci/drivers", place.path + "/driver");
    EXPECT_FALSE(logs_failed_readings(".", place.path));
    std::filesystem::remove(place.path + "/driver");
    std::filesystem::create_directory_symlink("../../drivers/i40e", place.path + "/driver");
    EXPECT_TRUE(logs_failed_readings(".", place.path));
    EXPECT_FALSE(logs_failed_readings("", place.path));
}

TEST_F(linux_modules_test, what_can_not_be_read_once_or_is_blank_is_tried_again)
{
    for (const int error : {ENOTCONN, ETIMEDOUT, EBUSY, EIO, ENXIO, 0}) {
        begin_anew();
        values.clear();
        module_images::image module = module_with_serial("0001"), blank = module;
        std::fill_n(&blank.a2[96], 8, uint8_t{0});
        modules.ports[0].a2_error = error;
        begin_with(error == 0 ? blank : module);
        EXPECT_EQ(0, values[0]) << error;
        modules.ports[0] = {.module = module};
        pass(seconds(5));
        EXPECT_NEAR(25719, values[0], 1) << error;
        const time_point last = read_at[0];
        modules.ports[0] = {.module = error == 0 ? blank : module, .a2_error = error};
        news.clear();
        for (int request = 0; request < 100; request++) {
            poller->diagnostics_wanted(0);
            pass(milliseconds(100));
        }
        EXPECT_EQ("", news) << error;
        EXPECT_LE(read_at[0], last + seconds(5)) << "and so gets too old";
        EXPECT_NEAR(25719, values[0], 1) << error;
        modules.ports[0] = {.module = module};
        pass(seconds(5));
        EXPECT_LE(modules.now - read_at[0], seconds(5)) << error;
        modules.ports[0] = {.module = module_with_serial("0002")};
        std::fill_n(&modules.ports[0].module->a2[96], 8, uint8_t{0});
        pass(seconds(30));
        EXPECT_EQ(0, values[0]) << "those of the former module";
    }
}

TEST_F(linux_modules_test, a_garbled_memory_is_present_but_not_ready_and_seldom_read)
{
    module_images::image garbled = module_with_serial("0001");
    garbled.a0[70] ^= 1;
    EXPECT_EQ("n", begin_with(garbled));
    EXPECT_TRUE(poller->is_first_look_over());
    EXPECT_EQ("", news_in(seconds(120)));
    EXPECT_TRUE(read_at.empty());
    EXPECT_EQ(std::vector<std::string>{"a checksum of the identity is wrong"}, doubts);
    modules.ports[0].module.reset();
    EXPECT_EQ("a", news_in(seconds(61)));
    modules.ports[0].module = garbled;
    EXPECT_EQ("n", news_in(seconds(120)));
    EXPECT_EQ(2u, doubts.size()) << "one for each module";
    modules.ports[0].readings = 0;
    pass(seconds(600));
    EXPECT_LT(modules.ports[0].readings, 600u + 10u * 9u) << "a look a second, an attempt a minute";
    modules.ports[0].module = module_with_serial("0001");
    EXPECT_EQ("r0001", news_in(seconds(61)));
    begin_anew();
    modules.ports[0].module = garbled;
    add(0);
    poller->trust_sums(0, true);
    EXPECT_EQ("nr0011", news_in(seconds(1)).substr(0, 6)) << "its owner trusts it";
}

TEST_F(linux_modules_test, a_module_that_turns_into_nonsense_is_reported_after_a_second)
{
    ASSERT_EQ("nr0001r0001", begin_with(module_with_serial("0001")));
    modules.ports[0].module->a0[70] ^= 1;
    EXPECT_EQ("", news_in(milliseconds(900)));
    EXPECT_EQ("ann", news_in(seconds(3)));
}

TEST_F(linux_modules_test, values_of_another_module_are_not_taken)
{
    begin_with(module_with_serial("0001"));
    pass(seconds(4));
    const double before = values[0];
    module_images::image other = module_with_serial("0002");
    module_images::put16(other.a2, 96, 90 * 256);
    other.a0[0] = 0; /* the other module isn't ready yet, either */
    modules.ports[0].module = other;
    pass(milliseconds(1000));
    poller->diagnostics_wanted(0);
    pass(seconds(10));
    EXPECT_EQ(before, values[0]);
    EXPECT_EQ("0001", serials[0].substr(0, 4));
}

TEST_F(linux_modules_test, values_are_read_in_time_on_demand_and_after_a_link_change)
{
    begin_with(module_with_serial("0001"));
    oldest = {};
    pass(seconds(60));
    EXPECT_LE(oldest, seconds(5));
    const time_point last = read_at[0];
    modules.now = last + milliseconds(900);
    poller->diagnostics_wanted(0);
    pass(milliseconds(0));
    EXPECT_EQ(last, read_at[0]) << "young enough";
    modules.now = last + milliseconds(1100);
    poller->diagnostics_wanted(0);
    pass(milliseconds(0));
    EXPECT_EQ(modules.now, read_at[0]);
    const time_point change = modules.now;
    poller->link_changed(0);
    pass(seconds(1));
    EXPECT_GT(read_at[0], change);
}

TEST_F(linux_modules_test, optional_ranges_may_be_refused)
{
    module_images::image bare = module_with_serial("0001");
    bare.a2.clear();
    begin_with(bare);
    EXPECT_EQ("0001", serials[0].substr(0, 4));
    EXPECT_EQ("", news_in(seconds(30)));
}

TEST_F(linux_modules_test, without_a_reader_things_stay_for_a_while_and_come_back)
{
    begin_with(module_with_serial("0001"));
    EXPECT_TRUE(accesses.empty());
    modules.ports[0].error = ENOTCONN;
    modules.ports[0].readings = 0;
    EXPECT_EQ("", news_in(seconds(14)));
    EXPECT_LE(modules.ports[0].readings, 16u) << "asked for once a second";
    EXPECT_EQ("n", news_in(seconds(10)));
    modules.ports[0].error = 0;
    EXPECT_EQ("r0001", news_in(seconds(5)));
    EXPECT_EQ((std::vector<int>{ENOTCONN, 0}), accesses);
    EXPECT_LE(modules.now - read_at[0], seconds(5));
}

TEST_F(linux_modules_test, a_missing_right_or_reader_is_reported_once_and_touches_no_other_module)
{
    for (const auto &[error, needs_reader] : {std::pair(EPERM, true), {ENOTCONN, false}}) {
        begin_anew();
        modules.ports[0].module = modules.ports[1].module = module_with_serial("0001");
        modules.ports[0].error = error;
        add(0);
        add(1, needs_reader);
        EXPECT_EQ("nr0001r0001", news_in(seconds(60)));
        EXPECT_TRUE(poller->is_first_look_over());
        EXPECT_LE(modules.now - read_at[1], seconds(5));
        EXPECT_EQ(std::vector<int>{error}, accesses);
        modules.ports[0].error = 0;
        EXPECT_EQ("nr0001r0001", news_in(seconds(60)));
        EXPECT_EQ((std::vector<int>{error, 0}), accesses);
    }
}

TEST_F(linux_modules_test, hints_make_looks_sooner_but_not_without_end)
{
    begin_with(module_with_serial("0001"));
    modules.ports[0].readings = 0;
    for (int hint = 0; hint < 1000; hint++) {
        poller->hint();
        pass(milliseconds(1));
    }
    EXPECT_GE(modules.ports[0].readings, 4u);
    EXPECT_LE(modules.ports[0].readings, 10u);
}

TEST_F(linux_modules_test, bytes_of_another_interface_are_not_taken)
{
    modules.ports[0].module = module_with_serial("0001");
    modules.ports[0].moved = 1;
    add(0);
    EXPECT_EQ("", news_in(seconds(30)));
    poller->set_interface(0, index_of_port_0 + 1);
    EXPECT_EQ("nr0001", news_in(milliseconds(0)));
    poller->set_interface(0, 0);
    EXPECT_EQ("nr0001a", news) << "no interface, no module";
    modules.ports[0].readings = 0;
    pass(seconds(30));
    EXPECT_EQ(0u, modules.ports[0].readings);
}

TEST_F(linux_modules_test, a_file_that_is_no_memory_of_a_module_is_an_error)
{
    const testkit::directory place;
    const std::string path = place.path + "/module";
    module_files files;
    files.add(0, path);
    const auto error_at = [&](uint8_t address, uint8_t offset) {
        piece wanted = {.port = 0, .range = {address, 0, 0, offset, 2}};
        files.read({&wanted, 1});
        return wanted.error;
    };
    const auto write = [&](size_t size, char first) {
        std::filesystem::remove_all(path);
        std::ofstream(path) << std::string(size, first);
    };
    EXPECT_EQ(ENXIO, error_at(0x50, 0)) << "no file";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    testing::internal::CaptureStderr();
    EXPECT_EQ(EIO, error_at(0x50, 0));
    EXPECT_EQ(EIO, error_at(0x50, 1));
    write(largest_module_file + 1, 3);
    EXPECT_EQ(EIO, error_at(0x50, 0));
    EXPECT_EQ("libdolm_ric: port 0: " + path +
                  ": not a regular file\nlibdolm_ric: port 0: " + path + ": larger than 64 KiB\n",
              testing::internal::GetCapturedStderr());
    write(largest_module_file, 3);
    EXPECT_EQ(0, error_at(0x51, 254));
    write(512, 0x11);
    EXPECT_EQ(0, error_at(0x50, 254));
    EXPECT_EQ(ENXIO, error_at(0x51, 0)) << "a QSFP module has one address";
    write(257, 3);
    EXPECT_EQ(ENXIO, error_at(0x51, 0)) << "the file ends in the middle";
}

TEST_F(linux_modules_test, a_reader_that_answers_badly_or_not_is_left)
{
    const testkit::directory place;
    const std::string path = place.path + "/reader";
    const util::descriptor listener = util::listen_at(path, SOCK_SEQPACKET, 0600, getegid(), 1);
    ASSERT_TRUE(listener.is_open());
    const timeval patience = {5, 0}; /* timeout of accept, if nobody connects */
    setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    worker stopped;
    reader_client client(path, stopped.stop_fd());
    const auto ask = [&](size_t answer_size) {
        std::thread reader([&] {
            const int peer = accept(listener.get(), nullptr, nullptr);
            reader_request asked[2] = {};
            EXPECT_EQ(ssize_t{sizeof(asked[0])}, recv(peer, asked, sizeof(asked), 0));
            constexpr reader_answer no_configuration = {};
            send(peer, &no_configuration, sizeof(no_configuration), MSG_NOSIGNAL);
            EXPECT_EQ(ssize_t{sizeof(asked)}, recv(peer, asked, sizeof(asked), 0));
            reader_answer answers[2] = {{EIO, 5, {}}, {0, asked[1].port, {7, asked[1].offset}}};
            send(peer, answers, answer_size, MSG_NOSIGNAL);
            close(peer);
        });
        piece pieces[2] = {{.port = 1, .range = {0x50, 0, 0, 0, 2}},
                           {.port = 300, .range = {0x50, 0, 0, 96, 2}}};
        client.read(pieces);
        reader.join();
        return std::to_string(pieces[0].error) + " " + std::to_string(pieces[1].error) + " " +
               std::to_string(pieces[1].interface) + " " + std::to_string(pieces[1].bytes[1]);
    };
    EXPECT_EQ("5 0 300 96", ask(2 * sizeof(reader_answer)));
    piece hung_up = {.port = 1, .range = {0x50, 0, 0, 0, 2}};
    client.read({&hung_up, 1});
    EXPECT_EQ(ENOTCONN, hung_up.error);
    EXPECT_EQ("107 107 0 0", ask(sizeof(reader_answer))) << "half an answer is none";
    client.read({&hung_up, 1});
    EXPECT_EQ(ENOTCONN, hung_up.error);
    pollfd waiting = {listener.get(), POLLIN, 0};
    EXPECT_EQ(0, poll(&waiting, 1, 0)) << "no third try at once";
    for (const seconds pause : {seconds(60), seconds(60), seconds(2)}) {
        ahead += pause; /* the last pause is the shortest: an answer ends the longer ones */
        EXPECT_EQ("5 0 300 96", ask(2 * sizeof(reader_answer)));
        client.read({&hung_up, 1});
    }
    ahead = {};
}

TEST_F(linux_modules_test, a_reader_with_another_configuration_is_told_to_end)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
    worker stopped;
    reader_client client("fd:" + std::to_string(ends[0]), stopped.stop_fd());
    client.expect(5);
    constexpr reader_answer answer = {.error = 0, .interface = 0, .bytes = {4}};
    for (int i = 0; i < 2; i++)
        send(ends[1], &answer, sizeof(answer), 0);
    piece wanted = {.port = 1, .range = {0x50, 0, 0, 0, 2}};
    client.read({&wanted, 1});
    EXPECT_EQ(ESTALE, wanted.error) << "as the bytes of another interface: nothing is known anew";
    for (const uint8_t question : {READER_CONFIGURATION, READER_END}) {
        reader_request asked = {};
        EXPECT_EQ(ssize_t{sizeof(asked)}, recv(ends[1], &asked, sizeof(asked), 0));
        EXPECT_EQ(question, asked.offset);
    }
    close(ends[1]);
}

TEST_F(linux_modules_test, ports_that_are_due_at_different_times_share_packets)
{
    for (uint32_t port = 0; port < 512; port++) {
        modules.ports[port].module = module_with_serial("0001");
        add(port);
        pass(milliseconds(3));
    }
    pass(seconds(10));
    modules.packets = modules.requests = 0;
    pass(seconds(10));
    EXPECT_GE(modules.requests, 12 * modules.packets);
    EXPECT_LE(oldest, seconds(5));
}

TEST_F(linux_modules_test, half_of_512_ports_may_fail_and_the_others_stay_fresh)
{
    struct row {
        int error;
        milliseconds cost;
        seconds discovery;
    };
    using ms = milliseconds;
    for (const row &bad : {row{EIO, ms(0), seconds(5)},
                           {EIO, ms(20), seconds(20)},
                           {ETIMEDOUT, ms(300), seconds(180)},
                           {ENXIO, ms(200), seconds(120)}}) {
        begin_anew();
        for (uint32_t port = 0; port < 512; port++) {
            modules.ports[port].module = module_with_serial("0001");
            if (port % 2 == 0)
                modules.ports[port].error = bad.error, modules.ports[port].cost = bad.cost;
            add(port);
        }
        pass(bad.discovery);
        EXPECT_EQ(256u, read_at.size()) << bad.error << " " << bad.cost.count();
        oldest = {};
        pass(seconds(30));
        EXPECT_LE(oldest, seconds(5) + bad.cost) << bad.error << " " << bad.cost.count();
    }
}
