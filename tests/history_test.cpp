/* SPDX-License-Identifier: Apache-2.0 */
/* The history: its records as bytes, its limit, and its read-out by any mailbox. */
#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_history.h"
#include "testkit/fake_platform/client_fixture.h"

#include <chrono>

using fake_platform::sent;

using history_cache = client_fixture;

TEST_F(history_cache, the_history_rolls_over_at_thirty_and_any_mailbox_reads_it)
{
    send(stranger, TESK_SHELL_GET_PORT_STATUS_CACHE_REQ, {});
    EXPECT_EQ(sent.at(0).bytes.size(), 12u);
    subscriber(alice, 3, subscribe_status);
    for (uint32_t event = 0; event < 31; event++)
        handle_events({link_event(3, event % 2 == 0 ? 1 : 2)});
    struct {
        uint32_t request;
        size_t size;
    } const readings[] = {{TESK_SHELL_GET_PORT_STATUS_CACHE_REQ, 1452},
                          {TESK_SHELL_GET_ACTIONS_CACHE_REQ, 12 + 24 * 7},
                          {TESK_SHELL_GET_SFP_INFO_CACHE_REQ, 12}};
    fake_platform::sent.clear();
    trace({1, 4, 12, 17, 18});
    for (const auto &reading : readings) {
        fake_platform::deliver(stranger, reading.request, {0, 0, 0});
        tesk_handle_mailbox();
        EXPECT_EQ(sent.back().number, reading.request + 1);
        EXPECT_EQ(sent.back().bytes.size(), reading.size);
    }
    expect_log({"send 0x118 to 0x99", "send 0x11c to 0x99", "send 0x11a to 0x99"});
    /* The first of 31 records was dropped; the oldest one left is an up with level 20 and shell
       value 1; then a down. */
    const std::pair<size_t, uint32_t> expected[] = {{4, 30},
                                                    {8 + 4, 20},
                                                    {8 + 8, 1},
                                                    {8 + 48 + 8, 2},
                                                    {8 + 29 * 48 + 4, 100},
                                                    {8 + 12, TESK_FAULT_HIGH_ALARM}};
    for (const auto &[at, value] : expected)
        EXPECT_EQ(sent[0].host_word(at), value) << at;
    expect_bytes(sent[1], 8, "03000000 00000000 59040000 01000000");
    EXPECT_EQ(sent[1].host_word(8 + 24 + 12), 5u);
}

static int64_t now_us()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

/* The timestamp at offset `at` of a history is between `from` and now. */
static void expect_stamp(const fake_platform::sent_signal &cached, size_t at, int64_t from)
{
    const int64_t stamp = cached.host_word(at) * int64_t{1000000} + cached.host_word(at + 4);
    EXPECT_TRUE(stamp >= from && stamp <= now_us()) << stamp << ", " << from;
    EXPECT_LT(cached.host_word(at + 4), 1000000u);
}

TEST_F(history_cache, the_history_has_every_field_and_the_time)
{
    const int64_t from = now_us();
    const tesk_port_info info = {0x11, 1, 2, 3, 4, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 5, {}};
    tesk_history_add_port_state(&info, -0x10, port_down);
    auto cached = history(TESK_SHELL_GET_PORT_STATUS_CACHE_REQ);
    ASSERT_EQ(cached.bytes.size(), 60u);
    expect_bytes(cached, 0,
                 "18010000 01000000 11000000 f0ffffff 02000000 21000000 22000000 "
                 "23000000 24000000 25000000 26000000 27000000");
    expect_stamp(cached, 48, from);

    tesk_history_add_presence(0x12, sfp_present_not_ready);
    cached = history(TESK_SHELL_GET_SFP_INFO_CACHE_REQ);
    ASSERT_EQ(cached.bytes.size(), 28u);
    expect_bytes(cached, 0, "1a010000 01000000 12000000 01000000");
    expect_stamp(cached, 16, from);

    const uint32_t bobs = connect(bob), reference = connect(alice);
    for (uint32_t kind : {subscribe_status, subscribe_info}) {
        subscribe(alice, reference, 3, kind);
        send(alice, kind == subscribe_info ? unsubscribe_info : unsubscribe_status,
             {5, reference, 3});
    }
    EXPECT_EQ(bobs, 0u);
    cached = history(TESK_SHELL_GET_ACTIONS_CACHE_REQ);
    ASSERT_EQ(cached.bytes.size(), 12u + 24 * 6);
    expect_bytes(cached, 0, "1c010000 06000000");
    size_t at = 8;
    for (const char *action : {"01", "05", "02", "03", "06", "04"}) {
        expect_bytes(cached, at, std::string("03000000 01000000 59040000 ") + action + "000000");
        expect_stamp(cached, at + 16, from);
        at += 24;
    }
}

TEST_F(history_cache, the_values_of_the_history_are_mapped_and_a_refused_entry_changes_nothing)
{
    static const struct {
        uint32_t type, request;
        size_t from_end;             /* offset of the value from the end of the last record */
        std::vector<uint32_t> shown; /* shown for the values 0, 1, ... */
    } kinds[] = {
        {TESK_CACHE_PORT_STATUS, TESK_SHELL_GET_PORT_STATUS_CACHE_REQ, 44, {1, 2, 0, 0}},
        {TESK_CACHE_SFP_INFO, TESK_SHELL_GET_SFP_INFO_CACHE_REQ, 16, {0, 1, 2, 3, 4, 3}},
        {TESK_CACHE_ACTION, TESK_SHELL_GET_ACTIONS_CACHE_REQ, 16, {0, 1, 2, 3, 4, 5, 6, 0}}};
    tesk_cache_entry entry = {};
    for (const auto &[type, request, from_end, shown] : kinds)
        for (uint32_t value = 0; value < shown.size(); value++) {
            entry.type = type;
            (type == TESK_CACHE_PORT_STATUS ? entry.port_status.port_state
             : type == TESK_CACHE_SFP_INFO  ? entry.sfp_info.sfp_presence
                                            : entry.action.action) = value;
            EXPECT_EQ(tesk_cache_add(&entry), 0);
            const auto answer = history(request);
            EXPECT_EQ(answer.host_word(answer.bytes.size() - from_end), shown[value]) << value;
        }
    trace({1});
    EXPECT_EQ(tesk_cache_add(nullptr), 1);
    expect_log({"[1] Trying to add null value as cache entry"});
    tesk_cache_entry *entries = nullptr;
    uint32_t count = 77;
    for (uint32_t type : {0u, 4u}) {
        entry.type = type;
        EXPECT_EQ(tesk_cache_add(&entry), 1);
        EXPECT_EQ(tesk_cache_read(type, &count, &entries), 1);
        expect_log(log(2, "[1] Unknown cache entry type: " + std::to_string(type)));
    }
    EXPECT_TRUE(entries == nullptr && count == 77);
    EXPECT_EQ(history(TESK_SHELL_GET_ACTIONS_CACHE_REQ).host_word(4), 8u);
}
