/* SPDX-License-Identifier: Apache-2.0 */
/* Links of the Linux board without a kernel: netlink messages, and the events that reports
   cause. */
#include "platform/dolm_ric/linux/error_counters.h"
#include "platform/dolm_ric/linux/fall_looks.h"
#include "platform/dolm_ric/linux/kernel_notes.h"
#include "platform/dolm_ric/linux/link_table.h"
#include "platform/dolm_ric/linux/record_updates.h"
#include "platform/linux_interfaces/link_report.h"
#include "platform/linux_interfaces/netlink.h"

#include <gtest/gtest.h>
#include <linux/devlink.h>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <sstream>
#include <sys/socket.h>

using namespace linux_board;
using std::chrono::milliseconds;

static constexpr unsigned up_flags = IFF_UP | IFF_LOWER_UP | IFF_RUNNING;

namespace
{

/* Events as text: s(topped), d(own), u(p); i and the index when a port gets another interface. */
struct recorder final : link_listener {
    void link_changed(uint32_t, const link_values &now) override
    {
        events += "sdu"[now.state];
        lanes = now.lanes;
    }
    void link_known(uint32_t, const link_values &now) override
    {
        known = now.state;
    }
    void link_fell(uint32_t, uint32_t count) override
    {
        falls += count;
    }
    void interface_leaves(uint32_t, board::departure how) override
    {
        departures += "-rm?"[static_cast<size_t>(how)];
    }
    void interface_changed(uint32_t, const link_report *now) override
    {
        events += "i" + std::to_string(now == nullptr ? 0 : now->index);
    }
    std::string take()
    {
        return std::exchange(events, {});
    }
    std::string events, departures;
    uint32_t known = 0, lanes = 0;
    uint64_t falls = 0;
};

struct link_table_test : testing::Test {
    void SetUp() override
    {
        table.add(4, [](const link_report &report) { return report.name == "eth0"; });
    }
    /* The events that one report causes. */
    std::string take(const link_report &report,
                     link_table::origin from = link_table::origin::notice)
    {
        now += milliseconds(1000);
        table.take(report, from, now);
        return events.take();
    }
    static link_report report(uint32_t state, uint32_t falls, uint32_t rises, int32_t index = 7)
    {
        link_report made;
        made.index = index;
        made.name = "eth0";
        made.started = state != 0;
        made.has_carrier = made.operational = state == 2;
        made.falls = falls;
        made.rises = rises;
        return made;
    }

    link_table::time_point now{std::chrono::hours(1)};
    recorder events;
    link_table table{events};
};

} // namespace

static netlink::message message_of(netlink::request &question, std::vector<uint8_t> &storage)
{
    const netlink::byte_view bytes = question.finish(9);
    storage.assign(bytes.begin(), bytes.end());
    netlink::byte_view rest = storage;
    return netlink::take_message(rest).value();
}

TEST(netlink_test, messages_and_attributes_end_where_a_length_is_wrong)
{
    netlink::request question(RTM_NEWLINK, 0, ifinfomsg{});
    question.put(IFLA_CARRIER_DOWN_COUNT, uint32_t{5});
    question.put_text(IFLA_IFNAME, "eth0");
    const netlink::byte_view whole = question.finish(3);
    for (size_t cut = 0; cut < whole.size(); cut++) {
        netlink::byte_view part = whole.first(cut);
        EXPECT_FALSE(netlink::take_message(part)) << cut;
        EXPECT_TRUE(part.empty());
    }
    const netlink::byte_view attributes =
        netlink::without_header(whole.subspan(sizeof(nlmsghdr)), sizeof(ifinfomsg));
    for (const uint16_t length : std::array<uint16_t, 3>{0, 3, 200}) {
        std::vector<uint8_t> bad(attributes.begin(), attributes.end());
        memcpy(&bad[8], &length, sizeof(length)); /* length of the second attribute */
        EXPECT_EQ(4u, netlink::find_attribute(bad, IFLA_CARRIER_DOWN_COUNT).size());
        EXPECT_TRUE(netlink::find_attribute(bad, IFLA_IFNAME).empty()) << length;
    }
    EXPECT_EQ("eth0", netlink::read_text(netlink::find_attribute(attributes, IFLA_IFNAME)));
}

TEST(link_report_test, a_link_is_operational_only_while_carrier_and_kernel_say_so)
{
    static const std::tuple<unsigned, bool, bool> rows[] = {
        {up_flags, true, true},
        {IFF_UP | IFF_LOWER_UP, true, false},
        {IFF_UP | IFF_RUNNING, true, false},
        {IFF_LOWER_UP | IFF_RUNNING, false, false},
        {0, false, false}};
    for (const auto &[flags, started, operational] : rows) {
        ifinfomsg info = {};
        info.ifi_index = 3;
        info.ifi_flags = flags;
        netlink::request made(RTM_NEWLINK, 0, info);
        std::vector<uint8_t> storage;
        const auto parsed = parse_link(message_of(made, storage));
        ASSERT_TRUE(parsed);
        EXPECT_EQ(started, parsed->started) << flags;
        EXPECT_EQ(operational, parsed->operational) << flags;
    }
}

TEST(link_report_test, names_counters_and_place_are_read_and_a_bridges_copy_is_not)
{
    ifinfomsg info = {};
    info.ifi_index = 3;
    for (const unsigned char family : std::array<unsigned char, 2>{AF_UNSPEC, AF_BRIDGE}) {
        info.ifi_family = family;
        netlink::request made(RTM_DELLINK, 0, info);
        made.put_text(IFLA_IFNAME, "eth0");
        made.put_text(IFLA_PARENT_DEV_NAME, "0000:03:00.0");
        made.put_text(IFLA_PHYS_PORT_NAME, "p1s2");
        const size_t names = made.begin_nest(IFLA_PROP_LIST);
        made.put_text(IFLA_ALT_IFNAME, "uplink");
        made.put_text(IFLA_ALT_IFNAME, "enp3s0");
        made.end_nest(names);
        made.put(IFLA_CARRIER_UP_COUNT, UINT32_MAX);
        made.put(IFLA_CARRIER_DOWN_COUNT, uint32_t{8});
        made.put(IFLA_NEW_NETNSID, int32_t{0});
        std::vector<uint8_t> storage;
        const auto parsed = parse_link(message_of(made, storage));
        ASSERT_EQ(family == AF_UNSPEC, parsed.has_value());
        if (!parsed)
            continue;
        EXPECT_TRUE(parsed->deleted && parsed->moved);
        EXPECT_EQ("eth0 0000:03:00.0 p1s2",
                  parsed->name + " " + parsed->parent + " " + parsed->port_name);
        EXPECT_EQ((std::vector<std::string>{"uplink", "enp3s0"}), parsed->alternative_names);
        EXPECT_EQ(UINT32_MAX, parsed->rises);
        EXPECT_EQ(8u, parsed->falls);
    }
}

TEST(link_transitions_test, falls_become_events_up_to_the_cap_and_end_in_the_true_state)
{
    const auto events = [](uint32_t before, uint32_t falls, uint32_t after) {
        std::string states;
        for (const uint32_t state : link_transitions(before, falls, after))
            states += "sdu"[state];
        return states;
    };
    static const std::tuple<uint32_t, uint32_t, uint32_t, const char *> rows[] = {
        {2, 0, 2, ""},   {2, 0, 1, "d"},   {1, 0, 2, "u"},   {2, 1, 2, "du"}, {2, 1, 1, "d"},
        {1, 1, 1, "ud"}, {1, 1, 2, "udu"}, {2, 2, 1, "dud"}, {2, 1, 0, "s"},  {2, 2, 0, "dus"},
        {2, 0, 0, "s"},  {0, 0, 2, "u"},   {0, 0, 1, ""},    {1, 0, 0, ""}};
    for (const auto &[before, falls, after, expected] : rows)
        EXPECT_EQ(expected, events(before, falls, after)) << before << falls << after;
    EXPECT_EQ("dududududu", events(2, 5, 2));
    EXPECT_EQ("dududududu", events(2, 6, 2));
    EXPECT_EQ("ududududud", events(1, 200000, 1));
    EXPECT_EQ("dudududud", events(2, UINT32_MAX, 1));
}

TEST_F(link_table_test, falls_are_counted_by_the_counters_and_not_by_the_messages)
{
    EXPECT_EQ("i7u", take(report(2, 10, 11)));
    EXPECT_EQ("", take(report(2, 10, 11)));
    EXPECT_EQ("dudu", take(report(2, 12, 13)));
    EXPECT_EQ("", take(report(1, 11, 12))) << "an older notice";
    EXPECT_EQ("d", take(report(1, 13, 13)));
    EXPECT_EQ("udu", take(report(2, 14, 15), link_table::origin::answer));
    EXPECT_EQ(4u, events.falls);
}

TEST_F(link_table_test, counters_wrap)
{
    take(report(2, UINT32_MAX, UINT32_MAX));
    EXPECT_EQ("dudu", take(report(2, 1, 1)));
    EXPECT_EQ("", take(report(1, UINT32_MAX, 1))) << "an older notice";
}

TEST_F(link_table_test, an_administrator_who_stops_and_starts_a_port_makes_one_fall)
{
    link_report stopping = report(0, 3, 4);
    link_report again = report(0, 6, 7);
    stopping.has_carrier = again.has_carrier = true;
    const std::pair<link_report, const char *> steps[] = {
        {report(2, 3, 4), "i7u"}, {stopping, "s"},         {report(0, 4, 4), ""},
        {report(1, 4, 4), ""},    {report(2, 4, 5), "u"},  {report(0, 5, 5), "s"},
        {report(2, 5, 6), "u"},   {report(2, 6, 7), "du"}, {again, "s"},
        {report(2, 7, 8), "u"}};
    for (const auto &[step, expected] : steps)
        EXPECT_EQ(expected, take(step));
}

TEST_F(link_table_test, a_port_follows_its_interface_and_takes_another_only_when_that_is_gone)
{
    EXPECT_EQ("i7u", take(report(2, 0, 1)));
    link_report renamed = report(2, 0, 1);
    renamed.name = "wan";
    EXPECT_EQ("i7", take(renamed));
    EXPECT_EQ("", take(report(1, 0, 0, 8))) << "another interface got the old name";
    EXPECT_EQ(7, table.index_of(4));

    renamed.deleted = true;
    EXPECT_EQ("di0", take(renamed));
    link_report elsewhere = report(2, 50, 51, 9);
    elsewhere.parent = "0000:05:00.0";
    EXPECT_EQ("", take(elsewhere)) << "the name has moved to another device";
    renamed = report(2, 70, 71, 10);
    renamed.name = "wan";
    EXPECT_EQ("i10u", take(renamed)) << "it is back with its last name, and counters begin anew";
    table.forget(10, now);
    EXPECT_EQ("di0", events.take());
    EXPECT_EQ("i8", take(report(1, 0, 0, 8)));
    EXPECT_EQ("", take(renamed));
}

TEST_F(link_table_test, a_port_that_an_interface_fits_comes_before_one_that_it_was_called_like)
{
    table.add(3, [](const link_report &report) { return report.name == "eth1"; });
    link_report renamed = report(2, 0, 1, 5);
    for (const char *name : {"eth1", "eth0"}) {
        renamed.name = name;
        take(renamed);
    }
    table.forget(5, now);
    take(report(2, 0, 1));
    EXPECT_EQ(7, table.index_of(4));
}

TEST_F(link_table_test, a_vanishing_interface_is_one_fall_and_so_is_another_speed)
{
    take(report(2, 0, 1));
    table.take_speed(7, {100, 4}, now);
    EXPECT_EQ("", events.take()) << "the rise was announced without it";
    table.take_speed(7, {400, 4}, now);
    EXPECT_EQ("du", events.take());
    now += 3 * link_table::settle_time;
    table.announce_settled(now);
    EXPECT_EQ("u", events.take());
    table.take_speed(7, {400, 0}, now);
    EXPECT_EQ("", events.take());
    EXPECT_FALSE(table.is_speed_wanted(7, now));
    EXPECT_TRUE(table.is_speed_wanted(7, now + std::chrono::hours(1))) << "it may be another";
    link_report leaving = report(0, 1, 1);
    EXPECT_EQ("s", take(leaving));
    EXPECT_EQ(4u, events.lanes) << "not known any more";
    leaving.deleted = true;
    EXPECT_EQ("i0", take(leaving)) << "stopped and down are one state for clients";
    EXPECT_EQ(1u, events.known);
    EXPECT_FALSE(table.next_settling());
    take(report(2, 1, 1));
    leaving.moved = true;
    take(leaving);
    take(report(2, 1, 1));
    take(leaving, link_table::origin::late_notice);
    take(report(2, 1, 1));
    table.begin_dump();
    table.end_dump(now);
    EXPECT_EQ("rm??", events.departures) << "removed, moved, late, not there in a dump";
}

TEST_F(link_table_test, without_counters_the_speed_is_asked_for_after_each_fall)
{
    take(report(2, 0, 0));
    table.take_speed(7, {100, 4}, now);
    EXPECT_FALSE(table.is_speed_wanted(7, now));
    for (const uint32_t state : {1U, 2U})
        table.take(report(state, 0, 0), link_table::origin::notice, now);
    EXPECT_TRUE(table.is_speed_wanted(7, now));
}

TEST(kernel_notes_test, a_note_counts_for_its_interface_and_time)
{
    kernel_notes notes;
    const auto changed = [](uint8_t command, int32_t index) {
        netlink::request made = netlink::generic_request(1, command);
        const size_t header = made.begin_nest(ETHTOOL_A_LINKMODES_HEADER);
        made.put(ETHTOOL_A_HEADER_DEV_INDEX, index);
        made.end_nest(header);
        const netlink::byte_view bytes = made.finish(1);
        return std::vector<uint8_t>(bytes.begin(), bytes.end());
    };
    notes.take_setting(changed(ETHTOOL_MSG_FEC_NTF, 7), 100);
    notes.take_setting(changed(ETHTOOL_MSG_COALESCE_NTF, 8), 100);
    notes.take_setting(std::vector<uint8_t>(11, 0xff), 100);
    EXPECT_EQ(true, notes.were_settings_changed(7, 50, 150));
    EXPECT_EQ(std::nullopt, notes.were_settings_changed(7, 50, 90)) << "it may hide an earlier one";
    EXPECT_EQ(std::nullopt, notes.were_settings_changed(7, 101, 150)) << "nobody follows them here";
    EXPECT_EQ(std::nullopt, notes.were_settings_changed(8, 50, 150)) << "no setting of the link";
    for (const std::string_view text :
         {"unbind@/devices/pci0000:00/0000:03:00.1", "change@/devices/pci0000:00/0000:03:00.0",
          "remove@/devices/pci0000:00/0000:03:00.0", "remove@/devices/pci0000:00/0000:03:00.1",
          "@"})
        notes.take_uevent({reinterpret_cast<const uint8_t *>(text.data()), text.size()}, 100);
    EXPECT_EQ(true, notes.was_unbound("0000:03:00.1", 50, 150));
    EXPECT_EQ(std::nullopt, notes.was_unbound("0000:03:00.0", 50, 150));
    EXPECT_EQ(true, notes.was_removed("0000:03:00.1", 50, 150));
    EXPECT_EQ(std::nullopt, notes.was_removed("0000:03:00.0", 50, 150)) << "it had no driver";
    netlink::request failed = netlink::generic_request(1, DEVLINK_CMD_HEALTH_REPORTER_RECOVER);
    failed.put_text(DEVLINK_ATTR_DEV_NAME, "0000:03:00.1");
    const size_t reporter = failed.begin_nest(DEVLINK_ATTR_HEALTH_REPORTER);
    failed.put_text(DEVLINK_ATTR_HEALTH_REPORTER_NAME, "fw\x1b[2J");
    failed.put(DEVLINK_ATTR_HEALTH_REPORTER_STATE, uint8_t{1});
    failed.end_nest(reporter);
    notes.take_health(failed.finish(1), 100);
    EXPECT_EQ("fw?[2J", notes.error_reported("0000:03:00.1", 50, 150));
    EXPECT_EQ(std::nullopt, notes.error_reported("0000:03:00.1", 101, 150));
    notes.start();
    EXPECT_EQ(false, notes.were_settings_changed(8, 50, 150));
    notes.lose(120);
    EXPECT_EQ(std::nullopt, notes.were_settings_changed(8, 50, 150));
    EXPECT_EQ(false, notes.were_settings_changed(8, 130, 150));
}

TEST(fall_looks_test, a_drivers_state_has_its_name)
{
    const auto state_of = [](uint8_t state, std::optional<uint8_t> substate) {
        netlink::request made = netlink::generic_request(1, ETHTOOL_MSG_LINKSTATE_GET);
        made.put(ETHTOOL_A_LINKSTATE_EXT_STATE, state);
        if (substate)
            made.put(ETHTOOL_A_LINKSTATE_EXT_SUBSTATE, *substate);
        std::vector<uint8_t> storage;
        causes::facts seen;
        take_link_state(netlink::generic_attributes(message_of(made, storage)), seen);
        const std::string fault = !seen.remote_fault ? "" : *seen.remote_fault ? " fault" : " none";
        return seen.extended_state.value_or("nothing") + fault;
    };
    EXPECT_EQ("Autoneg", state_of(ETHTOOL_LINK_EXT_STATE_AUTONEG, 1));
    EXPECT_EQ("Link training failure fault", state_of(ETHTOOL_LINK_EXT_STATE_LINK_TRAINING_FAILURE,
                                                      ETHTOOL_LINK_EXT_SUBSTATE_LT_REMOTE_FAULT));
    EXPECT_EQ("Link training failure none",
              state_of(ETHTOOL_LINK_EXT_STATE_LINK_TRAINING_FAILURE, 1));
    EXPECT_EQ("Module", state_of(ETHTOOL_LINK_EXT_STATE_MODULE, {}));
    EXPECT_EQ("nothing", state_of(200, {}));
}

TEST(error_counters_test, counters_are_taken_from_each_answer)
{
    error_sample made;
    std::vector<uint8_t> storage;
    netlink::request fec = netlink::generic_request(1, ETHTOOL_MSG_FEC_GET_REPLY);
    size_t nest = fec.begin_nest(ETHTOOL_A_FEC_STATS);
    fec.put(ETHTOOL_A_FEC_STAT_CORRECTED, uint64_t{70});
    fec.begin_nest(ETHTOOL_A_FEC_STAT_UNCORR); /* empty: the driver doesn't count them */
    fec.end_nest(nest);
    take_fec_counts(netlink::generic_attributes(message_of(fec, storage)), made);
    netlink::request line = netlink::generic_request(1, ETHTOOL_MSG_STATS_GET_REPLY);
    const auto put = [&](uint32_t group, std::initializer_list<uint16_t> numbers) {
        const size_t outer = line.begin_nest(ETHTOOL_A_STATS_GRP);
        line.put(ETHTOOL_A_STATS_GRP_ID, group);
        for (const uint16_t number : numbers) {
            const size_t inner = line.begin_nest(ETHTOOL_A_STATS_GRP_STAT);
            line.put(number, uint64_t{number} + 3);
            line.end_nest(inner);
        }
        line.end_nest(outer);
    };
    put(ETHTOOL_STATS_ETH_PHY, {ETHTOOL_A_STATS_ETH_PHY_5_SYM_ERR});
    put(ETHTOOL_STATS_ETH_MAC, {ETHTOOL_A_STATS_ETH_MAC_5_RX_PKT, ETHTOOL_A_STATS_ETH_MAC_6_FCS_ERR,
                                ETHTOOL_A_STATS_ETH_MAC_7_ALIGN_ERR});
    take_line_counts(netlink::generic_attributes(message_of(line, storage)), made);
    netlink::request quality = netlink::generic_request(1, ETHTOOL_MSG_LINKSTATE_GET_REPLY);
    quality.put(ETHTOOL_A_LINKSTATE_SQI, uint32_t{2});
    error_sample part;
    take_quality(netlink::generic_attributes(message_of(quality, storage)), part);
    made.add(part);
    EXPECT_EQ(made.quality, 2U);
    constexpr uint64_t none = error_sample::not_counted;
    EXPECT_EQ(made.count, (decltype(made.count){70, none, none, 3, 7 + 8}));
}

/* A link of 10 Gbit/s with RS-FEC that fell in second 1000, by its samples of corrected bits and of
   uncorrectable blocks. */
TEST(error_counters_test, a_minute_is_told_only_as_far_as_it_is_known)
{
    struct sample {
        int64_t second;
        uint64_t bits, blocks;
    };
    const struct {
        const char *name;
        int64_t up_since;
        std::vector<sample> samples;
        std::string told; /* blocks, seconds, error ratio; as text */
    } minutes[] = {
        {"errors rose before",
         500,
         {{930, 0, 9}, {950, 0, 9}, {970, 40'000'000, 9}, {990, 80'000'000, 12}},
         "3 40 0.0002"},
        {"what the fall adds is none", 500, {{950, 0, 9}, {990, 0, 9}, {1000, 5, 500}}, "- 40 0"},
        {"none came until the fall", 500, {{950, 0, 9}, {990, 0, 9}, {1000, 0, 9}}, "0 40 0"},
        {"nor one that was told late", 500, {{950, 0, 9}, {999, 0, 500}, {1000, 0, 500}}, "- - -"},
        {"it began anew", 500, {{950, 50, 9}, {970, 10, 1}, {990, 60, 10}}, "- 40 -"},
        {"it has just risen", 975, {{950, 0, 0}, {976, 0, 400}, {990, 0, 401}}, "- - -"},
        {"nobody has looked for long", 500, {{945, 0, 0}, {965, 0, 400}}, "- - -"},
        {"never", 500, {}, "- - -"},
        {"nobody knows since when it was up", 0, {{950, 0, 9}, {990, 0, 12}}, "- - -"},
    };
    for (const auto &its : minutes) {
        std::vector<error_sample> samples;
        for (const sample &one : its.samples) {
            error_sample made;
            made.at = one.second * 1'000'000'000;
            made.count[count_corrected_bits] = one.bits;
            made.count[count_uncorrectable] = one.blocks;
            samples.push_back(made);
        }
        causes::facts seen;
        seen.fec_before = "RS";
        seen.speed_before = 10000;
        add_counts_before(samples, its.up_since * 1'000'000'000, 1000'000'000'000, seen);
        const auto text = [](const causes::number &value) {
            std::ostringstream made;
            value ? made << *value : made << "-";
            return made.str();
        };
        EXPECT_EQ(text(seen.uncorrectable_in_minute) + " " + text(seen.counted_for_s) + " " +
                      text(seen.errors_before),
                  its.told)
            << its.name;
    }
}

TEST_F(link_table_test, a_number_keeps_its_interface_whatever_the_configuration_says)
{
    const auto change = [&](const char *name, bool is_same = false) {
        return table.change(
            4, [name](const link_report &report) { return report.name == name; }, is_same);
    };
    EXPECT_TRUE(change("any")) << "it had none yet";
    EXPECT_TRUE(change("eth0"));
    take(report(2, 0, 1));
    EXPECT_FALSE(change("eth1"));
    link_report renamed = report(2, 0, 1);
    renamed.name = "wan";
    take(renamed);
    EXPECT_TRUE(change("eth0", true)) << "the line is as before, though the name isn't";
    table.take_out(4, now);
    EXPECT_EQ("di0", events.take());
    EXPECT_EQ("", take(renamed)) << "out is out";
    EXPECT_FALSE(change("eth1"));
    EXPECT_TRUE(change("wan"));
    EXPECT_EQ("i7u", take(renamed));
}

TEST_F(link_table_test, what_a_dump_lacks_is_gone_and_an_index_may_be_used_again)
{
    take(report(2, 5, 6));
    table.take_speed(7, {100, 4}, now);
    table.take(report(2, 1, 6), link_table::origin::answer, now);
    EXPECT_EQ("du", events.take());
    EXPECT_TRUE(table.is_speed_wanted(7, now)) << "that was the former interface's";
    EXPECT_EQ("", take(report(2, 1, 6)));
    table.begin_dump();
    table.end_dump(now);
    EXPECT_EQ("di0", events.take());
    EXPECT_EQ(0, table.index_of(4));
}

TEST_F(link_table_test, a_burst_is_announced_once_more_when_it_has_settled)
{
    take(report(2, 0, 1));
    EXPECT_FALSE(table.next_settling()) << "one event alone";
    EXPECT_EQ("du", take(report(2, 1, 2)));
    ASSERT_TRUE(table.next_settling());
    table.announce_settled(now + link_table::settle_time - milliseconds(1));
    EXPECT_EQ("", events.take());
    table.take(report(1, 2, 2), link_table::origin::notice, now += milliseconds(100));
    EXPECT_EQ("d", events.take());
    EXPECT_EQ(now + link_table::settle_time, *table.next_settling()) << "the last event counts";
    table.announce_settled(now + link_table::settle_time);
    EXPECT_EQ("d", events.take());
    EXPECT_FALSE(table.next_settling());
}

TEST_F(link_table_test, a_storm_is_announced_as_five_falls_and_then_as_one_each_settle_time)
{
    const auto settle = [&] {
        table.announce_settled(now += link_table::settle_time);
        return events.take();
    };
    const auto storm = [&](uint32_t state, uint32_t falls) {
        table.take(report(state, falls, falls + 1), link_table::origin::answer, now);
        return events.take();
    };
    take(report(2, 0, 1));
    EXPECT_EQ("dudu", take(report(2, 2, 3)));
    EXPECT_EQ("dududu", storm(2, 9));
    EXPECT_EQ("", storm(2, 100));
    EXPECT_EQ("", storm(1, 201));
    EXPECT_EQ(1u, events.known) << "a read gets the state that is held back";
    EXPECT_EQ("d", settle());
    EXPECT_EQ("", storm(1, 300));
    EXPECT_EQ("", storm(0, 300));
    table.take_speed(7, {1, 1}, now);
    EXPECT_EQ(0u, events.known);
    EXPECT_EQ("us", settle());
    EXPECT_EQ("s", settle()) << "it is over";
    EXPECT_FALSE(table.next_settling());
    EXPECT_EQ("udududu", take(report(2, 303, 304)));
    EXPECT_EQ("dudu", storm(2, 400));
    EXPECT_EQ("", storm(1, 401));
    table.forget(7, now);
    EXPECT_EQ("di0", events.take());
    EXPECT_EQ("d", settle());
    EXPECT_EQ(401u, events.falls);
}

TEST(record_updates_test, a_record_follows_its_link_and_counts_what_readings_cost)
{
    dolm_ric_details_record record = {};
    const dolm_ric_details_link &link = record.link;
    take_link_report(link_table_test::report(2, 0, 1), 0, 0, 10, record);
    take_link_speed({100, 4, 10000, true, false}, 10, record);
    take_link_fec(DOLM_RIC_FEC_RS, record);
    EXPECT_EQ(link.fec, uint32_t{DOLM_RIC_FEC_RS});
    EXPECT_TRUE(link.changed_at == 0 && link.speed == 10000 && link.duplex == DOLM_RIC_DUPLEX_FULL);
    take_link_report(link_table_test::report(1, 2, 2), 2, 1, 30, record);
    EXPECT_TRUE(link.changed_at == 30 && link.speed == 0 && link.duplex == DOLM_RIC_DUPLEX_UNKNOWN);
    EXPECT_EQ(link.fec, uint32_t{DOLM_RIC_FEC_UNKNOWN});
    lose_interface(40, record);
    EXPECT_TRUE(link.falls == 2 && link.rises == 1 && link.changed_at == 40 && link.state == 0);

    std::vector<piece> pieces(11, piece{.port = 0, .range = {0x50, 0, 0, 0, 8}});
    for (int i = 1; i < 10; i++)
        pieces[static_cast<size_t>(i)].error = i;
    pieces[10].error = ECANCELED;
    const dolm_ric_details_cost &cost = record.cost;
    for (const auto &[error, has_module, failures] : {std::tuple(ENODEV, false, 0u),
                                                      {EINVAL, false, 0u},
                                                      {EBUSY, true, 0u},
                                                      {EPERM, false, 1u}}) {
        piece one = {.port = 0, .range = {0x50, 0, 0, 0, 8}};
        one.error = error;
        record.cost = {};
        take_cost({{&one, 1}, std::chrono::nanoseconds(1), {}, false, has_module}, record);
        EXPECT_TRUE(cost.reads == 1 && cost.failures == failures) << error;
    }
    record.cost = {};
    take_cost({pieces, std::chrono::nanoseconds(100), std::chrono::seconds(4), true, true}, record);
    EXPECT_TRUE(cost.reads == 10 && cost.bytes == 8 && cost.failures == 9 &&
                cost.longest_read == 10 && cost.last_sweep == 100 && cost.period == 4'000'000'000);
    EXPECT_TRUE(cost.error[0].error == 1 && cost.error[0].count == 1 &&
                cost.error[DOLM_RIC_DETAILS_ERRORS - 1].error == -1 &&
                cost.error[DOLM_RIC_DETAILS_ERRORS - 1].count == 2);
}
