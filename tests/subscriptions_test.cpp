/* SPDX-License-Identifier: Apache-2.0 */
/* Subscriptions over time: counts, indications, the filter, lost clients and the history. */
#include "testkit/fake_platform/client_fixture.h"

using fake_platform::ports;
using fake_platform::sent;

using subscriptions = client_fixture;

TEST_F(subscriptions, the_hardware_sees_one_subscription_however_many_clients_hold_it)
{
    const uint32_t first = subscriber(alice, 3, subscribe_status);
    trace({});
    const uint32_t second = subscriber(bob, 3, subscribe_status);
    expect_log({"monitor 0x72", "send 0x1648401 to 0x72", "send 0x1648411 to 0x72",
                "getlinkstatus 0x20003", "getmoduleinfo 0x20003", "getmodulediag 0x20003",
                "getmodstatus 0x20003", "send 0x1648413 to 0x72"});
    send(alice, unsubscribe_status, {8, first, 3});
    expect_log({"send 0x1648415 to 0x71"});
    handle_events({link_event(3, DOLM_RICRILINKSTATE_STOPPED)});
    EXPECT_EQ(sent_numbers(), (numbers{{TESK_PORT_STATUS_IND, bob}}));
    fake_platform::take_log();
    send(bob, unsubscribe_status, {8, second, 3});
    expect_log({"unsubslink 0x20003", "send 0x1648415 to 0x72"});
    handle_events({link_event(3, DOLM_RICRILINKSTATE_OPERATIONAL)});
    expect_log({});
}

TEST_F(subscriptions, a_refused_last_unsubscribe_keeps_the_record_and_gives_it_a_live_bucket)
{
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    handle_events({link_event(3, DOLM_RICRILINKSTATE_STOPPED)});
    EXPECT_EQ(leaky_bucket_find(1)->level, 20);
    fake_platform::failing["unsubslink"] = DOLM_RICERR_INTERNAL;
    trace({1, 13});
    send(alice, unsubscribe_status, {8, reference, 3});
    expect_log({"[13] Bucket(1) removed from the list", "unsubslink 0x20003",
                "[1] dolm_ric_ri_unsubslink: port 3(dolm_ric_id 131075), -11 (internal error)",
                "[1] dolm_unsubslink: port3, 1 (unknown ric error code)",
                "[13] Bucket(1) inserted to the list", "send 0x1648416 to 0x71"});
    handle_events({link_event(3, DOLM_RICRILINKSTATE_OPERATIONAL)});
    EXPECT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].word(4), 5u) << "a refusal leaves the stored procedure_ref alone";
}

TEST_F(subscriptions, the_filter_holds_back_and_tells_the_summary)
{
    static const struct {
        char event; /* u p, d own, t ick */
        int32_t level;
        bool is_sent, armed;
    } steps[] = {
        {'d', 20, true, true},   {'u', 20, true, false}, {'d', 40, true, false},
        {'u', 40, true, false},  {'d', 60, true, false}, {'u', 60, false, false},
        {'d', 80, false, false}, {'t', 70, false, true}, {'t', 60, false, true},
        {'t', 50, false, true},  {'t', 40, true, true},  {'t', 30, false, true},
        {'t', 20, false, true},  {'t', 10, false, true}, {'t', 0, false, false},
        {'t', 0, false, false},  {'d', 0, false, false}, /* a repeated state */
        {'u', 0, true, false},
    };
    subscriber(alice, 3, subscribe_status);
    for (const auto &step : steps) {
        fake_platform::ticks.clear();
        if (step.event == 't')
            tick(1, 3);
        else
            handle_events({link_event(3, step.event == 'u' ? 2 : 1)});
        EXPECT_EQ(leaky_bucket_find(1)->level, step.level);
        EXPECT_EQ(sent.size(), step.is_sent ? 1u : 0u);
        EXPECT_EQ(fake_platform::ticks.size(), step.armed ? 1u : 0u);
    }
}

TEST_F(subscriptions, a_tick_that_outlives_its_bucket_meets_the_next_one_with_its_id)
{
    ports[9] = optical_port();
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    handle_events({link_event(3, 1)});
    send(alice, unsubscribe_status, {8, reference, 3});
    fake_platform::ticks.clear();
    tick(1, 3);
    EXPECT_TRUE(fake_platform::ticks.empty());
    subscribe(alice, reference, 9, subscribe_status);
    tick(1, 3);
    EXPECT_EQ(leaky_bucket_find(1)->level, 0);
    EXPECT_TRUE(fake_platform::ticks.empty());
    for (uint32_t state : {1u, 2u, 1u, 2u, 1u})
        handle_events({link_event(9, state)});
    tick(1, 3);
    fake_platform::take_log();
    tick(1, 3);
    EXPECT_EQ(fake_platform::take_log().at(0), "getlinkstatus 0x20003")
        << "the port that it carries";
}

TEST_F(subscriptions, events_queued_together_are_handled_newest_first)
{
    subscriber(alice, 3, subscribe_status);
    handle_events({link_event(3, 1), link_event(3, 2)});
    EXPECT_EQ(sent.size(), 1u) << "the up repeats the baseline, the down is news";
    handle_events({link_event(3, 2), link_event(3, 1)});
    EXPECT_EQ(sent.size(), 1u) << "the down repeats, the older up stays stored";
}

TEST_F(subscriptions, indications_go_out_newest_client_first_and_module_before_port)
{
    for (uint32_t client : {alice, bob, carol}) {
        const uint32_t reference = connect(client);
        subscribe(client, reference, 3, subscribe_info);
        if (client != bob)
            subscribe(client, reference, 3, subscribe_status, 40 + client);
    }
    ports[3].status = DOLM_RICRIPORT_STARTED;
    handle_events({port_event(3, DOLM_RICRIPORT_STARTED)});
    EXPECT_EQ(sent_numbers(), (numbers{{TESK_SFP_INFO_IND, carol},
                                       {TESK_SFP_INFO_IND, bob},
                                       {TESK_SFP_INFO_IND, alice},
                                       {TESK_PORT_STATUS_IND, carol},
                                       {TESK_PORT_STATUS_IND, alice}}));
    EXPECT_EQ(sent[0].word(4), 40 + carol) << "the latest procedure_ref of either kind";
    EXPECT_EQ(sent[0].word(16), uint32_t{TESK_SFP_NOT_PRESENT});
    handle_events({port_event(3, DOLM_RICRIPORT_STARTED)});
    EXPECT_EQ(sent.size(), 0u) << "a repeated presence";
    handle_events({port_event(3, DOLM_RICRIPORT_STARTED | DOLM_RICRIPORT_MODINSERTED)});
    EXPECT_EQ(sent.size(), 0u) << "a module on its way";
    handle_events({port_event(3, DOLM_RICRIPORT_MODREADY)});
    EXPECT_EQ(sent.size(), 5u);
}

TEST_F(subscriptions, two_records_that_disagree_make_the_server_ask_the_hardware)
{
    ports[3].status = DOLM_RICRIPORT_STARTED;
    subscriber(alice, 3, subscribe_status); /* records that there is no module */
    ports[3] = optical_port(); /* told to nobody, as nobody holds the port's SFP info */
    trace({1});
    subscriber(bob, 3, subscribe_info);
    EXPECT_EQ(sent.at(1).word(16), uint32_t{TESK_SFP_OPTICAL});
    EXPECT_EQ(fake_platform::take_log().at(3),
              "[1] get_sfp_presence: failed to get sfp presence for port 3. Missmatch in presence "
              "for port subscription(SFP_NOT_PRESENT) and sfp subscription(SFP_PRESENT_AND_READY)");
    handle_events({port_event(3, DOLM_RICRIPORT_MODREADY)});
    EXPECT_EQ(sent.size(), 2u) << "an event that only one record didn't hold is a change";
}

TEST_F(subscriptions, the_two_decodings_of_a_port_differ_where_nothing_is_known)
{
    for (uint32_t status = 0; status < 16; status++) {
        const uint32_t other = status & DOLM_RICRIPORT_MODREADY ? 8 : 2;
        uint32_t by_event = status & DOLM_RICRIPORT_MODREADY      ? 2
                            : status & DOLM_RICRIPORT_MODINSERTED ? 1
                            : status & DOLM_RICRIPORT_STARTED     ? 0
                                                                  : 3;
        ports[status] = optical_port();
        ports[status].status = other;
        subscriber(200 + status, status, subscribe_info);
        handle_events({port_event(status, status)});
        EXPECT_EQ(sent.size(), by_event == 1 ? 0u : 1u);
        EXPECT_EQ(send(stranger, TESK_SHELL_GET_SFP_INFO_CACHE_REQ, {1, 2}), 0);
        const size_t last = 8 + 16 * status;
        EXPECT_EQ(sent.at(0).bytes.size(), last + 20);
        EXPECT_EQ(sent[0].host_word(last + 4), by_event);

        ports[100 + status] = optical_port();
        ports[100 + status].status = status;
        subscriber(100 + status, 100 + status, subscribe_info);
        const bool read = (status & DOLM_RICRIPORT_MODREADY) != 0;
        EXPECT_EQ(sent.at(1).word(16), read ? 2u : 0u);
    }
}

TEST_F(subscriptions, a_lost_client_gives_its_ports_back_in_the_order_of_its_list)
{
    for (uint32_t port : {1u, 2u, 3u, 4u})
        ports[port] = optical_port();
    const uint32_t reference = subscriber(alice, 1, subscribe_status);
    subscribe(alice, reference, 2, subscribe_info);
    subscribe(alice, reference, 3, subscribe_status);
    subscribe(alice, reference, 1, subscribe_info);
    subscriber(bob, 3, subscribe_status);
    send(alice, unsubscribe_info, {8, reference, 2}); /* the last takes its place */
    subscribe(alice, reference, 4, subscribe_status);
    fake_platform::failing["unsubsport"] = DOLM_RICERR_NODEV;
    trace({1, 4, 12, 17});
    lose(alice);
    expect_log({"[17] Received MBX_MONITOR_DEFAULT_NO: sender: 0x71",
                "[4] ABN: client lost - remove its' data ", "unsubslink 0x20001",
                "[12] unsubscribe_port_status(): successfully unsubscribed from port 1",
                "unsubsport 0x20001",
                "[4] ABN: dolm_ric_ri_unsubsport: port 1(dolm_ric_id 131073), -3 (no device "
                "(e.g. port ID is unknown))",
                "[1] dolm_unsubsport: port1, 1 (unknown ric error code)",
                "[12] Error while unsubscribing client: 0 on port 1 for SFP_INFO subscription",
                "unsubslink 0x20004",
                "[12] unsubscribe_port_status(): successfully unsubscribed from port 4",
                "[12] Removing clients data: 0"});
    lose(alice);
    EXPECT_EQ(fake_platform::take_log().size(), 2u) << "nobody any more";
    EXPECT_EQ(connect(alice), 2u);
    send(alice, subscribe_status, {1, reference, 3, 0});
    EXPECT_EQ(sent.size(), 0u) << "the old reference is gone";
}

TEST_F(subscriptions, the_history_rolls_over_at_thirty_and_any_mailbox_reads_it)
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
    for (const auto &reading : readings) {
        fake_platform::deliver(stranger, reading.request, {0, 0, 0});
        tesk_handle_mailbox();
        EXPECT_EQ(sent.back().number, reading.request + 1);
        EXPECT_EQ(sent.back().bytes.size(), reading.size);
    }
    /* The first of 31 is gone; the oldest left is an up, level 20, shell value 1; then a down. */
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
