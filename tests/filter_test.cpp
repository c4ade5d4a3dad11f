/* SPDX-License-Identifier: Apache-2.0 */
/* Port state changes: the filter, its ticks and its traces, and the effects of a link event. */
#include "tesk_server/tesk_subscribe_port_status.h"
#include "tesk_server/tesk_types.h"
#include "testkit/fake_platform/client_fixture.h"

using fake_platform::ports;
using fake_platform::sent;
using fake_platform::ticks;

struct filter : client_fixture {
    /* Five changes to down, after which the level is 60 and changes are not reported. */
    static void reach_level(uint32_t port)
    {
        for (uint32_t state : {1u, 2u, 1u, 2u, 1u})
            handle_events({link_event(port, state)});
    }
};

TEST_F(filter, a_refused_last_unsubscribe_keeps_the_filter_as_it_is)
{
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    reach_level(3);
    ticks.clear();
    fake_platform::failing["unsubslink"] = DOLM_RICERR_INTERNAL;
    trace({1, 4, 12, 13});
    send(alice, unsubscribe_status, {8, reference, 3});
    expect_log({"[13] Bucket(1) removed from the list", "unsubslink 0x20003",
                "[1] dolm_ric_ri_unsubslink: port 3(dolm_ric_id 131075), -11 (internal error)",
                "[1] dolm_unsubslink: port3, 1 (unknown ric error code)",
                "[13] Bucket(1) inserted to the list", "send 0x1648416 to 0x71"});
    EXPECT_EQ(leaky_bucket_find(1)->level, 60);
    EXPECT_TRUE(ticks.empty()) << "the tick of the bucket is still outstanding";
    handle_events({link_event(3, DOLM_RICRILINKSTATE_OPERATIONAL)});
    EXPECT_EQ(sent.size(), 0u) << "held back";
    /* A lost client whose subscription can't be ended: the subscription keeps its filter. */
    lose(alice);
    tick(1, 3);
    EXPECT_EQ(leaky_bucket_find(1)->level, 50);
    subscriber(bob, 3, subscribe_status);
    tick(1, 3);
    EXPECT_EQ(sent_numbers(), (numbers{{TESK_PORT_STATUS_IND, bob}}));
    EXPECT_EQ(ticks.size(), 2u);
    fake_platform::failing.clear();
    handle_events({link_event(3, DOLM_RICRILINKSTATE_STOPPED)});
    EXPECT_EQ(leaky_bucket_find(1)->level, 60);
}

TEST_F(filter, the_filter_holds_changes_back_and_reports_the_status_at_its_end)
{
    static const struct {
        char event; /* 'u' up, 'd' down, 't' tick */
        int32_t level;
        bool is_sent, armed;
    } steps[] = {{'d', 20, true, true},    {'u', 20, true, false},
                 {'d', 40, true, false},   {'u', 40, true, false},
                 {'d', 60, true, false},   {'u', 60, false, false},
                 {'d', 80, false, false},  {'u', 80, false, false},
                 {'d', 100, false, false}, {'u', 100, false, false},
                 {'d', 100, false, false}, /* full */
                 {'t', 90, false, true},   {'t', 80, false, true},
                 {'t', 70, false, true},   {'t', 60, false, true},
                 {'t', 50, false, true},   {'t', 40, true, true},
                 {'t', 30, false, true},   {'t', 20, false, true},
                 {'t', 10, false, true},   {'t', 0, false, false},
                 {'t', 0, false, false},   {'d', 0, false, false}, /* a repeated state */
                 {'u', 0, true, false}};
    subscriber(alice, 3, subscribe_status);
    for (const auto &step : steps) {
        ticks.clear();
        if (step.event == 't')
            tick(1, 3);
        else
            handle_events({link_event(3, step.event == 'u' ? 2 : 1)});
        EXPECT_EQ(leaky_bucket_find(1)->level, step.level);
        EXPECT_EQ(sent.size(), step.is_sent ? 1u : 0u);
        EXPECT_EQ(ticks.size(), step.armed ? 1u : 0u);
        for (const auto &[bucket, port, interval] : ticks)
            EXPECT_TRUE(bucket == 1 && port == 3 && interval == 10);
    }
    /* The history contains suppressed changes and the repeated state, too. */
    static const std::pair<uint32_t, uint32_t> levels_and_states[] = {
        {20, 2}, {20, 1},  {40, 2},  {40, 1},  {60, 2}, {60, 1}, {80, 2},
        {80, 1}, {100, 2}, {100, 1}, {100, 2}, {0, 2},  {0, 1}};
    const auto cached = history(TESK_SHELL_GET_PORT_STATUS_CACHE_REQ);
    ASSERT_EQ(cached.host_word(4), std::size(levels_and_states));
    for (size_t at = 8; const auto &[level, state] : levels_and_states) {
        EXPECT_EQ(cached.host_word(at + 4), level) << at;
        EXPECT_EQ(cached.host_word(at + 8), state) << at;
        at += 48;
    }
}

TEST_F(filter, the_filter_traces_its_decisions)
{
    subscriber(alice, 3, subscribe_status);
    reach_level(3);
    trace({1, 12, 13});
    handle_events({link_event(3, 1)});
    auto lines = fake_platform::take_log();
    EXPECT_EQ(lines.at(0),
              "[12] DOLM port state event received. Port 3, port_state: PORTSTATE_DOWN");
    EXPECT_EQ(lines.at(lines.size() - 2), "[12] port_state change for port 3: "
                                          "new_state(PORTSTATE_DOWN) prev_state(PORTSTATE_DOWN)");
    EXPECT_EQ(lines.back(), "[12] Port 3 port_state not changed, no need to handle");
    handle_events({link_event(3, 2)});
    lines = fake_platform::take_log();
    EXPECT_EQ(lines.at(0), "[12] DOLM port state event received. Port 3, port_state: PORTSTATE_UP");
    EXPECT_EQ(lines.back(), "[13] Leaky bucket level reached, indication not send");
    handle_events({link_event(3, 1)});
    lines = fake_platform::take_log();
    EXPECT_EQ(lines.at(lines.size() - 2), "[13] Bucket(1) level-> 80");
    trace({1, 4, 13});
    tick(1, 3);
    expect_log({"[13] Bucket(1) level-> 70", "tick in 10 for bucket 1 port 3"});
    /* A presence change is reported whatever the level, and does not change it. */
    subscriber(bob, 3, subscribe_info);
    handle_events({port_event(3, DOLM_RICRIPORT_STARTED)});
    EXPECT_EQ(sent_numbers(), (numbers{{TESK_SFP_INFO_IND, bob}, {TESK_PORT_STATUS_IND, alice}}));
    EXPECT_EQ(leaky_bucket_find(1)->level, 70);
    EXPECT_EQ(history(TESK_SHELL_GET_PORT_STATUS_CACHE_REQ).host_word(4), 8u);
}

TEST_F(filter, a_link_that_changed_unseen_is_new_to_a_second_subscriber_only)
{
    subscriber(alice, 3, subscribe_status);
    ports[3].link_state = DOLM_RICRILINKSTATE_NOOPERATION;
    trace({12});
    subscriber(bob, 3, subscribe_status);
    EXPECT_EQ(sent_numbers(),
              (numbers{{TESK_SUBSCRIBE_PORT_STATUS_CFM, bob}, {TESK_PORT_STATUS_IND, bob}}));
    EXPECT_EQ(sent.at(1).word(16), 1u);
    EXPECT_EQ(sent.at(1).word(24), 0u);
    const auto lines = fake_platform::take_log();
    EXPECT_EQ(lines.at(lines.size() - 2), "[12] port_state change for port 3: "
                                          "new_state(PORTSTATE_DOWN) prev_state(PORTSTATE_UP)");
    handle_events({link_event(3, DOLM_RICRILINKSTATE_NOOPERATION)});
    EXPECT_EQ(sent.size(), 0u);
    EXPECT_EQ(leaky_bucket_find(1)->level, 0);
    handle_events({link_event(3, DOLM_RICRILINKSTATE_OPERATIONAL)});
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(filter, an_event_that_means_nothing_is_traced_and_freed)
{
    static const std::pair<tesk_hw_event, const char *> cases[] = {
        {{tesk_hw_event_port_state, 3, port_unknown, nullptr},
         "[1] Unknown port state(PORTSTATE_UNKNOWN) in dolm event, port 3"},
        {{tesk_hw_event_port_state, 3, 7, nullptr},
         "[1] Unknown port state(UNSUPPORTED_STATE) in dolm event, port 3"},
        {{2, 3, 0, nullptr}, "[1] Unknown event: 2"},
        {{tesk_hw_event_sfp, 3, sfp_present_and_ready, nullptr},
         "[12] No need to handle this SFP event, no change for port 3"}};
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    subscribe(alice, reference, 3, subscribe_info);
    trace({1, 4, 12});
    for (const auto &[meaningless, traced] : cases) {
        auto *event = static_cast<tesk_hw_event *>(malloc(sizeof(tesk_hw_event)));
        *event = meaningless;
        tesk_event_queue_put(event);
        sent.clear();
        tesk_handle_queued_events();
        expect_log({traced});
        EXPECT_EQ(sent.size(), 0u);
    }
    /* After the check that follows the state is stored, and nothing else happens. */
    tesk_handle_port_state_change(3, port_unknown);
    EXPECT_EQ(fake_platform::take_log().back(), "[1] Unknown port state");
    trace({1, 12});
    tesk_handle_port_state_change(4, port_down);
    EXPECT_EQ(fake_platform::take_log().back(), "[1] Failed to found bucket for port 4");
    EXPECT_TRUE(sent.empty() && ticks.empty());
    EXPECT_EQ(tesk_handle_epoll_event({.events = EPOLLIN, .data = {.u32 = 2}}), 0);
    expect_log({"[1] Unknown event: 2"});
    EXPECT_EQ(tesk_handle_epoll_event({.events = EPOLLERR | EPOLLHUP, .data = {.u32 = 1}}), 0);
    EXPECT_EQ(tesk_handle_epoll_event({.events = EPOLLERR, .data = {.u32 = 0}}), 0);
    expect_log({});
    EXPECT_EQ(history(TESK_SHELL_GET_PORT_STATUS_CACHE_REQ).host_word(4), 0u);
}

TEST_F(filter, a_tick_that_outlives_its_bucket_acts_on_the_next_one_with_its_id)
{
    ports[9] = optical_port();
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    handle_events({link_event(3, 1)});
    send(alice, unsubscribe_status, {8, reference, 3});
    ticks.clear();
    tick(1, 3);
    EXPECT_TRUE(ticks.empty());
    subscribe(alice, reference, 9, subscribe_status);
    tick(1, 3);
    EXPECT_EQ(leaky_bucket_find(1)->level, 0);
    EXPECT_TRUE(ticks.empty());
    reach_level(9);
    tick(1, 3);
    fake_platform::take_log();
    tick(1, 3);
    EXPECT_EQ(fake_platform::take_log().at(0), "getlinkstatus 0x20003")
        << "the port that it carries";
}

TEST_F(filter, events_queued_together_are_handled_newest_first)
{
    subscriber(alice, 3, subscribe_status);
    handle_events({link_event(3, 1), link_event(3, 2)});
    EXPECT_EQ(sent.size(), 1u) << "the up repeats the baseline, the down is news";
    handle_events({link_event(3, 2), link_event(3, 1)});
    EXPECT_EQ(sent.size(), 1u) << "the down repeats, the older up stays stored";
}

TEST_F(filter, a_bucket_keeps_its_level_within_limits_and_returns_its_state)
{
    static constexpr auto below = leaky_bucket_below_level, reached = leaky_bucket_level_reached,
                          emptied = leaky_bucket_emptied;
    static const std::tuple<int32_t, int32_t, leaky_bucket_state> steps[] = {
        {20, 20, below},    {29, 49, below},    {1, 50, reached},
        {50, 100, reached}, {20, 100, reached}, {-60, 40, below},
        {-40, 0, below},    {-10, 0, emptied},  {-1, 0, emptied}};
    ASSERT_EQ(leaky_bucket_add(100, 50), 1);
    for (const auto &[delta, level, state] : steps) {
        EXPECT_EQ(leaky_bucket_update(1, delta), state);
        EXPECT_EQ(leaky_bucket_find(1)->level, level);
    }
    ASSERT_EQ(leaky_bucket_add(30, 30), 2);
    EXPECT_EQ(leaky_bucket_update(2, 29), below);
    EXPECT_EQ(leaky_bucket_update(2, 1), reached);
    EXPECT_EQ(leaky_bucket_get_state(2), reached);

    trace({1});
    std::vector<std::string> expected;
    for (const auto &[size, level] : {std::pair{0, 50}, {0, -1}, {100, 0}, {49, 50}}) {
        EXPECT_EQ(leaky_bucket_add(size, level), -1);
        expected.push_back("[1] Invalid params for adding new leaky bucket: bucket_size = " +
                           std::to_string(size) + ", filter_level = " + std::to_string(level));
    }
    EXPECT_EQ(leaky_bucket_update(7, 20), leaky_bucket_not_found);
    EXPECT_EQ(leaky_bucket_get_state(7), leaky_bucket_not_found);
    leaky_bucket_remove(7);
    for (const char *act : {"update leaky bucket", "get leaky bucket state", "remove leaky bucket"})
        expected.push_back("[1] Cannot " + std::string(act) + ": id 7 not found");
    expect_log(expected);
}
