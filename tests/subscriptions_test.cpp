/* SPDX-License-Identifier: Apache-2.0 */
/* Subscriptions over time: counts, indications, the two records of a port, and lost clients. */
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_portsub.h"
#include "testkit/fake_platform/client_fixture.h"

#include <algorithm>
#include <malloc.h>
#include <set>
#include <vector>

using fake_platform::ports;
using fake_platform::sent;

using subscriptions = client_fixture;

/* The linker redirects the server's calls of malloc_trim here. */
static int trims;

extern "C" int malloc_trim(size_t)
{
    return ++trims;
}

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

TEST_F(subscriptions, a_refusal_leaves_the_stored_procedure_ref_alone)
{
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    fake_platform::failing = {{"unsubslink", DOLM_RICERR_BUSY}, {"subsport", DOLM_RICERR_BUSY}};
    send(alice, unsubscribe_status, {8, reference, 3});
    send(alice, subscribe_info, {9, reference, 3});
    send(alice, subscribe_status, {10, reference, 3, 0});
    send(alice, unsubscribe_info, {11, reference, 3});
    handle_events({link_event(3, DOLM_RICRILINKSTATE_STOPPED)});
    EXPECT_EQ(sent.at(0).word(4), 5u);
}

TEST_F(subscriptions, an_event_without_a_record_of_its_kind_is_dropped_silently)
{
    ports[4] = optical_port();
    subscriber(alice, 3, subscribe_status);
    subscriber(bob, 4, subscribe_info);
    trace({1, 4, 12, 13});
    handle_events({port_event(3, DOLM_RICRIPORT_STARTED), link_event(4, 1), link_event(9, 1),
                   port_event(9, 0)});
    expect_log({});
    EXPECT_EQ(sent.size(), 0u);
    EXPECT_EQ(get_sfp_presence(3), sfp_present_and_ready);
    expect_log({"[12] Port status subscription contains sfp presence SFP_PRESENT_AND_READY"});
    EXPECT_EQ(get_sfp_presence(9), sfp_unknown);
    expect_log({});
    EXPECT_EQ(history(TESK_SHELL_GET_SFP_INFO_CACHE_REQ).host_word(4), 0u);
    EXPECT_EQ(history(TESK_SHELL_GET_PORT_STATUS_CACHE_REQ).host_word(4), 0u);
}

TEST_F(subscriptions, the_highest_port_and_an_odd_module_are_like_any_other)
{
    static const struct {
        uint8_t connector;
        uint32_t mode_type, type, is_optical;
        std::string text;
    } cases[] = {{DOLM_SFP_CONNECTOR_OTHER, 1, 3, 0, "Unknown"},
                 {DOLM_SFP_CONNECTOR_RJ45, 1, 1, 0, "Present Electrical"},
                 {DOLM_SFP_CONNECTOR_LC, 1, 2, 1, "Present Optical"},
                 {DOLM_SFP_CONNECTOR_LC, 0, 1, 0, "Present Electrical"}};
    const uint32_t reference = connect(alice);
    for (const auto &module : cases) {
        ports[65534] = optical_port();
        ports[65534].module.mode_type = module.mode_type;
        ports[65534].module.sfp.sfp_connector = module.connector;
        trace({18});
        subscribe(alice, reference, 65534, subscribe_info);
        EXPECT_EQ(sent.at(1).bytes.size(), 120u);
        EXPECT_EQ(sent[1].word(12), 65534u);
        EXPECT_EQ(sent[1].word(16), module.type);
        EXPECT_EQ(sent[1].word(20), module.is_optical);
        EXPECT_EQ(sent[1].text(45), module.mode_type == 1 ? "ABCDEFGHIJKLMNOP" : "");
        const auto lines = fake_platform::take_log();
        EXPECT_EQ(lines.at(0), "subsport 0x2fffe");
        EXPECT_TRUE(lines.at(4).ends_with("port_no: 65534, type: " + module.text)) << lines.at(4);
        send(alice, unsubscribe_info, {5, reference, 65534});
    }
    subscribe(alice, reference, 65534, subscribe_status);
    send(alice, get_counters, {5, reference, 65534});
    EXPECT_EQ(sent.at(0).number, TESK_GET_PM_COUNTERS_CFM);
    trace({18});
    ports[5] = optical_port();
    ports[5].status = DOLM_RICRIPORT_MODINSERTED;
    subscribe(alice, reference, 5, subscribe_info);
    EXPECT_EQ(sent.at(1).word(16), 0u) << "a module that is not ready";
    EXPECT_EQ(sent[1].text(45), "");
    ports[65534].link_state = DOLM_RICRILINKSTATE_STOPPED;
    handle_events({link_event(65534, 0)});
    const auto lines = fake_platform::take_log();
    EXPECT_TRUE(lines.at(lines.size() - 2)
                    .ends_with("65534, conn_status: NOT OPERATIONAL, link_speed: 0.0 Gbps"));
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
    EXPECT_EQ(sent.size(), 0u) << "a module that is not ready";
    handle_events({port_event(3, DOLM_RICRIPORT_MODREADY)});
    EXPECT_EQ(sent.size(), 5u);
}

TEST_F(subscriptions, two_records_that_differ_make_the_server_read_the_hardware)
{
    ports[3].status = DOLM_RICRIPORT_STARTED;
    subscriber(alice, 3, subscribe_status); /* records that the port has no module */
    ports[3] = optical_port();              /* no event: no client has the SFP info subscription */
    trace({1});
    subscriber(bob, 3, subscribe_info);
    EXPECT_EQ(sent.at(1).word(16), uint32_t{TESK_SFP_OPTICAL});
    EXPECT_EQ(fake_platform::take_log().at(3),
              "[1] get_sfp_presence: failed to get sfp presence for port 3. Missmatch in presence "
              "for port subscription(SFP_NOT_PRESENT) and sfp subscription(SFP_PRESENT_AND_READY)");
    handle_events({port_event(3, DOLM_RICRIPORT_MODREADY)});
    EXPECT_EQ(sent.size(), 2u) << "an event that only one record didn't hold is a change";
}

TEST_F(subscriptions, an_event_and_a_read_decode_an_unknown_port_differently)
{
    for (uint32_t status = 0; status < 16; status++) {
        const bool is_ready = (status & DOLM_RICRIPORT_MODREADY) != 0;
        const uint32_t by_event = is_ready                              ? 2
                                  : status & DOLM_RICRIPORT_MODINSERTED ? 1
                                  : status & DOLM_RICRIPORT_STARTED     ? 0
                                                                        : 3;
        for (const auto &[port, read] :
             {std::pair{status, is_ready ? 8u : 2u}, {100 + status, status}}) {
            ports[port] = optical_port();
            ports[port].status = read;
            subscriber(200 + port, port, subscribe_info);
        }
        EXPECT_EQ(sent.at(1).word(16), is_ready ? 2u : 0u);
        handle_events({port_event(status, status)});
        EXPECT_EQ(sent.size(), by_event == 1 ? 0u : 1u);
        const auto cached = history(TESK_SHELL_GET_SFP_INFO_CACHE_REQ);
        ASSERT_EQ(cached.bytes.size(), 28 + 16 * status);
        EXPECT_EQ(cached.host_word(12 + 16 * status), by_event);
    }
}

TEST_F(subscriptions, a_lost_client_is_unsubscribed_in_the_order_of_its_array)
{
    for (uint32_t port : {1u, 2u, 3u, 4u})
        ports[port] = optical_port();
    const uint32_t reference = subscriber(alice, 1, subscribe_status);
    subscribe(alice, reference, 2, subscribe_info);
    subscribe(alice, reference, 3, subscribe_status);
    subscribe(alice, reference, 1, subscribe_info);
    subscriber(bob, 3, subscribe_status);
    send(alice, unsubscribe_info, {8, reference, 2}); /* the last subscription takes its place */
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
    EXPECT_EQ(fake_platform::take_log().size(), 2u) << "the client is unknown now";
    EXPECT_EQ(connect(alice), 2u);
    send(alice, subscribe_status, {1, reference, 3, 0});
    EXPECT_EQ(sent.size(), 0u) << "the old reference is gone";
}

TEST_F(subscriptions, clients_leave_the_list_from_any_place)
{
    for (uint32_t lost : {bob, alice, carol}) {
        for (uint32_t client : {alice, bob, carol})
            subscriber(client, 3, subscribe_info);
        lose(lost);
        numbers expected;
        for (uint32_t client : {carol, bob, alice})
            if (client != lost)
                expected.emplace_back(TESK_SFP_INFO_IND, client);
        handle_events({port_event(3, DOLM_RICRIPORT_STARTED)});
        EXPECT_EQ(sent_numbers(), expected);
        for (const auto &[number, client] : expected)
            lose(client);
        EXPECT_EQ(tesk_client_first(), nullptr);
        EXPECT_EQ(tesk_portsub_find_sfp_info(3), -1);
    }
    trace({4});
    tesk_client_remove(nullptr);
    expect_log({"[4] ABN: Trying to remove a NULL client!"});
    /* The end stops monitoring the remaining clients, newest first; then ids start again from 0. */
    EXPECT_EQ(connect(alice), 9u);
    EXPECT_EQ(connect(bob), 10u);
    trace({});
    tesk_server_shutdown();
    expect_log({"unmonitor 11", "unmonitor 10", "tmo_service_stop", "dolm_ric_shutdown",
                "mbx_delete_mailbox", "mbx_exit"});
    start({});
    EXPECT_EQ(connect(carol), 0u);
}

/* Many clients, so that some share a chain of the registry's index. */
TEST_F(subscriptions, a_client_is_found_by_its_mailbox_among_many)
{
    static constexpr uint32_t many = 5000;
    std::vector<tesk_client *> clients;
    for (uint32_t mbox = 0; mbox < many; mbox++)
        clients.push_back(tesk_client_add(mbox * 3, mbox));
    for (uint32_t mbox = 0; mbox < many; mbox += 2)
        tesk_client_remove(std::exchange(clients[mbox], nullptr));
    for (uint32_t mbox = 0; mbox < many; mbox++) {
        ASSERT_EQ(tesk_client_find_by_sender(mbox * 3), clients[mbox]);
        ASSERT_EQ(tesk_client_find_by_sender(mbox * 3 + 1), nullptr);
        ASSERT_EQ(tesk_client_find(mbox, mbox * 3), clients[mbox]);
        ASSERT_EQ(tesk_client_find(mbox + 1, mbox * 3), nullptr);
    }
}

/* The array of a port with 1,000 subscribers takes 16,000 bytes. */
TEST_F(subscriptions, memory_of_a_crowd_goes_back_when_it_has_left)
{
    std::vector<tesk_client *> crowd;
    for (uint32_t mbox = 1000; mbox < 2000; mbox++)
        crowd.push_back(tesk_client_add(mbox, mbox));
    for (tesk_client *client : crowd)
        for (uint32_t port = 0; port < 9; port++)
            tesk_client_add_subscription(client, port, 1);
    const int trims_before = trims;
    while (crowd.size() > 1) {
        tesk_client_remove(crowd.back());
        crowd.pop_back();
    }
    EXPECT_EQ(trims, trims_before + 1);
    auto *left = const_cast<tesk_subscriber *>(tesk_client_subscribers(0, 1).data());
    EXPECT_LT(malloc_usable_size(left), 100U);
    tesk_client_remove(crowd[0]);
}

/* When an element is removed, another subscription's element moves, and its index is updated. */
TEST_F(subscriptions, an_unsubscription_ends_the_one_subscription_that_it_names)
{
    static constexpr uint32_t count = 5;
    const uint32_t reference = connect(alice);
    std::set<uint32_t> left;
    for (uint32_t port = 0; port < count; port++) {
        ports[port] = optical_port();
        subscribe(alice, reference, port, subscribe_info);
        subscribe(alice, reference, port, subscribe_status);
        left.insert(port);
    }
    for (uint32_t port : {1u, 4u, 0u, 3u, 2u}) {
        send(alice, unsubscribe_info, {9, reference, port});
        left.erase(port);
        for (uint32_t other = 0; other < count; other++) {
            EXPECT_EQ(tesk_portsub_find_sfp_info(other) != -1, left.contains(other));
            EXPECT_NE(tesk_portsub_find_port_status(other), -1);
        }
        /* Every other port still sends its events, with the reference of the unsubscription. */
        for (uint32_t other : left) {
            handle_events({port_event(other, DOLM_RICRIPORT_STARTED)});
            EXPECT_EQ(sent.size(), 2u);
            EXPECT_EQ(sent.at(0).word(12), other);
            EXPECT_EQ(sent.at(0).word(4), 9u);
            handle_events({port_event(other, DOLM_RICRIPORT_MODREADY)});
        }
    }
    lose(alice);
    for (uint32_t port = 0; port < count; port++)
        EXPECT_EQ(tesk_portsub_find_port_status(port), -1);
}

TEST_F(subscriptions, an_unknown_presence_is_resolved_by_the_next_port_status_subscription)
{
    const uint32_t reference = subscriber(alice, 3, subscribe_info);
    handle_events({port_event(3, 0)});
    trace({1, 12});
    subscribe(alice, reference, 3, subscribe_status);
    const auto lines = fake_platform::take_log();
    EXPECT_EQ(lines.at(2), "[12] SFP info subscription contains sfp presence SFP_UNKNOWN");
    EXPECT_EQ(lines.at(3), "getportstatus 0x20003");
    EXPECT_EQ(lines.at(5), "[12] Updated sfp info presence from SFP_UNKNOWN to "
                           "SFP_PRESENT_AND_READY");
    EXPECT_EQ(get_sfp_presence(3), sfp_present_and_ready);
}

TEST_F(subscriptions, the_records_of_a_port_agree_after_an_event)
{
    ports[3].status = DOLM_RICRIPORT_STARTED;
    fake_platform::failing["getportstatus"] = DOLM_RICERR_BUSY;
    subscriber(alice, 3, subscribe_status); /* the record has no presence yet */
    fake_platform::failing.clear();
    trace({1, 12});
    subscriber(bob, 3, subscribe_info);
    handle_events({port_event(3, DOLM_RICRIPORT_MODINSERTED)});
    auto lines = fake_platform::take_log();
    lines.erase(lines.begin(), lines.end() - 2);
    const std::string to = " to SFP_PRESENT_NOT_READY";
    EXPECT_EQ(lines, (log{"[12] Updated port status sfp presence from SFP_UNKNOWN" + to,
                          "[12] Updated sfp info presence from SFP_NOT_PRESENT" + to}));
    EXPECT_EQ(sent.size(), 0u);
    handle_events({port_event(3, 0)});
    lines = fake_platform::take_log();
    EXPECT_EQ(lines.at(2), "[12] Handling sfp presence change on port 3, presence 3");
    EXPECT_EQ(std::ranges::count(lines, "[12] Handling port status sfp presence change on port 3"),
              1);
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent.at(0).word(16), 2u) << "an unknown presence is resolved by a read";
    EXPECT_EQ(get_sfp_presence(3), sfp_unknown);
    expect_log({"[12] Port status subscription contains sfp presence SFP_UNKNOWN",
                "[12] SFP info subscription contains sfp presence SFP_UNKNOWN"});
}
