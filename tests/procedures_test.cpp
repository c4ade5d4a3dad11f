/* SPDX-License-Identifier: Apache-2.0 */
/* The client's procedures on a scripted board: bytes, order of checks, library calls and traces. */
#include "testkit/fake_platform/server_fixture.h"

#include <cstring>

using fake_platform::ports;
using fake_platform::sent;

static constexpr uint32_t alice = 0x71, bob = 0x72, carol = 0x73, stranger = 0x99;
static constexpr uint32_t subscribe_info = TESK_SUBSCRIBE_SFP_INFO_REQ,
                          unsubscribe_info = TESK_UNSUBSCRIBE_SFP_INFO_REQ,
                          subscribe_status = TESK_SUBSCRIBE_PORT_STATUS_REQ,
                          unsubscribe_status = TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
                          get_counters = TESK_GET_PM_COUNTERS_REQ;

/* `digits` are hexadecimal; spaces group them for the reader. */
static void expect_bytes(const fake_platform::sent_signal &signal, size_t from, std::string digits)
{
    std::string found;
    char pair[3];
    std::erase(digits, ' ');
    for (size_t at = from; at < from + digits.size() / 2; found += pair, at++)
        snprintf(pair, sizeof(pair), "%02x", signal.bytes.at(at));
    EXPECT_EQ(found, digits);
}

static void copy(char *field, const char *text)
{
    memcpy(field, text, strlen(text));
}

/* A module whose texts fill their fields to the last byte. */
static fake_platform::port optical_port()
{
    fake_platform::port port;
    port.status = DOLM_RICRIPORT_STARTED | DOLM_RICRIPORT_MODINSERTED | DOLM_RICRIPORT_MODREADY;
    port.link_state = DOLM_RICRILINKSTATE_OPERATIONAL;
    port.speed = 0x0040;
    port.module.mode_type = 1;
    dolm_sfp_info &sfp = port.module.sfp;
    sfp.sfp_connector = DOLM_SFP_CONNECTOR_LC;
    sfp.sfp_eth_speed = DOLM_SFP_ETHSPEED_10GB;
    sfp.sfp_morvaine = DOLM_SFP_MORVAINE_MONI;
    copy(sfp.sfp_vendor_name, "ABCDEFGHIJKLMNOPQ");
    copy(sfp.sfp_vendor_oui, "xyz");
    copy(sfp.sfp_vendor_pn, "PN-1");
    copy(sfp.sfp_vendor_rev, "R1234");
    copy(sfp.sfp_vendor_sn, "SN-1");
    copy(sfp.sfp_date_code, "20260101WXYZ");
    copy(sfp.sfp_morvaine_rdh, "RDH 123456789AB");
    copy(sfp.sfp_morvaine_rdh_ext, "EXT456");
    port.module_status.status = 2;
    /* Low and high bound that warns, low and high one that alarms, value; the bounds of the voltage
       are beyond the signed range. */
    port.diag = {0,    1,          0x1f, -30000,     80000,   -40000, 90000, -5000, //
                 0,    0x80000000, 0,    0x90000000, 3300000,                       //
                 7000, 0,          0,    0,          6005,                          //
                 0,    400,        0,    500,        500,                           //
                 0,    600,        0,    700,        600,     {}};
    return port;
}

class procedures : public server_fixture
{
  protected:
    void SetUp() override
    {
        server_fixture::SetUp();
        ports[3] = optical_port();
    }
    static void subscribe(uint32_t client, uint32_t reference, uint32_t port, uint32_t kind,
                          uint32_t procedure = 5)
    {
        if (kind == TESK_SUBSCRIBE_PORT_STATUS_REQ)
            send(client, kind, {procedure, reference, port, 0});
        else
            send(client, kind, {procedure, reference, port});
        ASSERT_EQ(sent.at(0).number, kind + 1);
    }
    static void expect_log(const log &expected, int line = __builtin_LINE())
    {
        EXPECT_EQ(fake_platform::take_log(), expected) << "line " << line;
    }
    /* The reference of a client that has just connected and subscribed. */
    static uint32_t subscriber(uint32_t client, uint32_t port, uint32_t kind)
    {
        const uint32_t reference = connect(client);
        subscribe(client, reference, port, kind);
        return reference;
    }
    /* Number and receiver of each signal that went out. */
    using numbers = std::vector<std::pair<uint32_t, uint32_t>>;
    static numbers told()
    {
        numbers pairs;
        for (const auto &signal : sent)
            pairs.emplace_back(signal.number, signal.receiver);
        return pairs;
    }
    static void lose(uint32_t client)
    {
        fake_platform::deliver_host(client, MBX_MONITOR_DEFAULT_NO, {});
        tesk_handle_mailbox();
    }
    static void expect_rejection(uint32_t number, uint32_t code, const std::string &text)
    {
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].number, number);
        const bool establishment = number == TESK_CONN_ESTABLISH_REJ;
        EXPECT_EQ(sent[0].bytes.size(), establishment ? 272u : 276u);
        EXPECT_EQ(sent[0].word(establishment ? 12 : 16), code);
        EXPECT_EQ(sent[0].text(establishment ? 16 : 20), text);
        EXPECT_EQ(sent[0].bytes.back(), 0);
    }
};

TEST_F(procedures, a_connection_is_given_the_servers_reference)
{
    trace({12, 17, 18});
    send(alice, TESK_CONN_ESTABLISH_REQ, {9, 7, 3, 7, 1, 9});
    ASSERT_EQ(sent.size(), 1u);
    expect_bytes(sent[0], 0, "0184640100000009 00000000 00000001");
    expect_log({"[17] Received TESK_CONN_ESTABLISH_REQ: sender: 0x71, connection_ref: 7, "
                "procedure_ref: 9, number_of_rev = 3",
                "[17] protocol_rev[0] = 7\n", "[17] protocol_rev[1] = 1\n",
                "[17] protocol_rev[2] = 9\n", "[12] Starting monitoring of client 0",
                "monitor 0x71",
                "[18] Sent signal TESK_CONN_ESTABLISH_CFM:connection_ref: 0 procedure_ref: "
                "9protocol_rev: 1 mbox: 0x71",
                "send 0x1648401 to 0x71"});
    EXPECT_EQ(connect(bob), 1u);
    send(alice, TESK_CONN_ESTABLISH_REQ, {3, 8, 1, 2});
    expect_rejection(TESK_CONN_ESTABLISH_REJ, 1, "client id 0 has already established connection");
    EXPECT_EQ(sent[0].word(8), 0u);
}

TEST_F(procedures, revisions_count_only_as_far_as_the_signal_reaches)
{
    static const std::vector<uint32_t> offers[] = {
        {1, 2, 0}, {1, 2, 1, 2}, {1, 2, 0xffffffff, 2, 3}, {1, 2, 0x40000001}};
    for (const auto &offer : offers) {
        send(alice, TESK_CONN_ESTABLISH_REQ, offer);
        expect_rejection(TESK_CONN_ESTABLISH_REJ, 1, "only supported protocol revision: 1");
    }
    trace({17});
    send(alice, TESK_CONN_ESTABLISH_REQ, {1, 2, 0xffffffff, 2, 1});
    EXPECT_EQ(sent[0].number, TESK_CONN_ESTABLISH_CFM);
    EXPECT_EQ(fake_platform::take_log().size(), 5u);
}

TEST_F(procedures, a_signal_shorter_than_its_layout_reaches_no_handler)
{
    static const std::pair<uint32_t, size_t> smallest[] = {
        {TESK_CONN_ESTABLISH_REQ, 16}, {TESK_GET_CAPABILITIES_REQ, 12},
        {subscribe_info, 16},          {get_counters, 16},
        {unsubscribe_info, 16},        {subscribe_status, 20},
        {unsubscribe_status, 16},      {TESK_PORT_STATUS_FILTER_TICK, 12}};
    trace({1, 12, 17});
    for (const auto &[number, size] : smallest) {
        char text[80];
        snprintf(text, sizeof(text), "[1] Received message 0x%08x is too short: %zu bytes", number,
                 size - 4);
        send(alice, number, std::vector<uint32_t>(size / 4 - 2, 0));
        expect_log({text});
    }
    for (uint32_t number : {0x1648402u, 0x1648405u, 0x118u, 0u}) {
        char text[80];
        snprintf(text, sizeof(text), "[1] Received unknown message 0x%08x", number);
        send(alice, number, {});
        expect_log({text});
    }
}

TEST_F(procedures, only_the_own_mailbox_can_stop_the_server)
{
    trace({1, 4, 12, 17});
    EXPECT_EQ(send(stranger, TESK_EXIT_SIGNAL, {}), 0);
    expect_log({});
    EXPECT_EQ(send(fake_platform::own_mailbox, TESK_EXIT_SIGNAL, {}), 1);
}

TEST_F(procedures, a_request_that_matches_no_client_is_only_traced)
{
    static const struct {
        uint32_t number;
        const char *text;
    } requests[] = {
        {TESK_GET_CAPABILITIES_REQ, "[12] sender_id: 153  procedure_ref: 5 connection_ref: 0 "
                                    "Unknown client - silently throwing away request"},
        {subscribe_info, "[1] Unknown sender, ignoring TESK_SUBSCRIBE_SFP_INFO_REQ"},
        {unsubscribe_info, "[1] Unknown sender, ignoring TESK_UNSUBSCRIBE_SFP_INFO_REQ"},
        {get_counters, "[17] Unknown sender, ignoring TESK_GET_PM_COUNTERS_REQ"},
        {subscribe_status, "[12] Unknown sender/client, ignoring TESK_SUBSCRIBE_PORT_STATUS_REQ"},
        {unsubscribe_status, "[1] Unknown sender, ignoring TESK_UNSUBSCRIBE_PORT_STATUS_REQ"},
    };
    connect(alice);
    for (const auto &request : requests) {
        trace({1, 4, 12, 17});
        send(stranger, request.number, {5, 0, 3, 0});
        EXPECT_EQ(sent.size(), 0u);
        const auto lines = fake_platform::take_log();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[1], request.text);
        /* The client's own reference, where the server's is asked for. */
        send(alice, request.number, {5, 1000 + alice, 3, 0});
        EXPECT_EQ(sent.size(), 0u);
    }
}

TEST_F(procedures, capabilities_are_the_same_forty_bytes)
{
    const uint32_t reference = connect(alice);
    send(alice, TESK_GET_CAPABILITIES_REQ, {77, reference});
    EXPECT_EQ(sent.at(0).bytes.size(), 40u);
    expect_bytes(sent.at(0), 0,
                 "04846401 0000004d 00000459 00000003 0000000100000008 0000000200000008 "
                 "0000000300000008");
}

TEST_F(procedures, a_module_is_told_as_120_bytes)
{
    ports[0x1234] = optical_port();
    const uint32_t reference = connect(alice);
    trace({12, 17, 18});
    send(alice, subscribe_info, {0x0a0b0c0d, reference, 0x1234});
    EXPECT_EQ(told(), (numbers{{TESK_SUBSCRIBE_SFP_INFO_CFM, alice}, {TESK_SFP_INFO_IND, alice}}));
    expect_bytes(sent[0], 0, "07846401 0a0b0c0d 00000459 00001234");
    expect_bytes(sent[1], 0,
                 "09846401 0a0b0c0d 00000459 00001234 00000002 00000001 "
                 "5244482031323334353637383941 00 4558543435 00 "
                 "4142434445464748494a4b4c4d4e4f50 00 504e2d31 00000000000000000000000000 "
                 "5231323334 00 3230323630313031575859 00 534e2d31 "
                 "00000000000000000000000000 0000 00000064");
    const auto lines = fake_platform::take_log();
    ASSERT_EQ(lines.size(), 18u);
    EXPECT_EQ(lines[0], "[17] Received TESK_SUBSCRIBE_SFP_INFO_REQ: sender: 0x71, procedure_ref: "
                        "168496141, connection_ref: 0, port: 4660");
    EXPECT_EQ(lines[1], "subsport 0x21234");
    EXPECT_EQ(lines[2],
              "[12] subscribe_sfp_info(): dolm_ric_ri_subsport resulted with 0 and port_status 11");
    EXPECT_EQ(lines[3], "[12] Successfully subscribed for sfp info on port 4660 with sfp_presence "
                        "SFP_PRESENT_AND_READY");
    EXPECT_EQ(lines[4], "[12] SFP info subscription contains sfp presence SFP_PRESENT_AND_READY");
    EXPECT_EQ(lines[5], "getmoduleinfo 0x21234");
    EXPECT_EQ(lines[12], "[12] sfp_vendor_oui = xyz, sfp_vendor_pn = PN-1, sfp_vendor_rev = "
                         "R1234sfp_vendor_sn = SN-1, sfp_date_code = 20260101WXYZ, "
                         "sfp_morvaine = 1");
    EXPECT_EQ(lines[16], "[18] Sent signal TESK_SFP_INFO_IND:procedure_ref: 168496141, "
                         "connection_ref: 1113, mbox: 0x71, port_no: 4660, type: Present Optical");
}

TEST_F(procedures, a_port_is_told_as_96_bytes)
{
    const uint32_t reference = connect(alice);
    trace({12, 18});
    subscribe(alice, reference, 3, subscribe_status, 6);
    expect_bytes(sent.at(1), 0,
                 "13846401 00000006 00000459 00000003 00000002 00000002 00000065 00000005 "
                 "00000004 00000002 00000001 00000000 00000000 00000006 00000006 00000001" +
                     std::string(64, '0'));
    expect_log({"subslink 0x20003",
                "[12] subscribe_port_status(): dolm_ric_ri_subslink resulted with 0 and "
                "link_status 2",
                "getportstatus 0x20003",
                "[12] get_dolm_sfp_presence(): dolm_ric_ri_getportstatus resulted with 0 and "
                "port_status 11",
                "[12] Successfully subscribed for port status on port 3 with sfp_presence "
                "SFP_PRESENT_AND_READY",
                "[18] Sent signal TESK_SUBSCRIBE_PORT_STATUS_CFM:procedure_ref: 6, "
                "connection_ref: 1113, mbox: 0x71, port_no: 3",
                "send 0x1648411 to 0x71", "getlinkstatus 0x20003",
                "[12] get_port_info(): port_no=3, conn_status=2", "[12] Link speed -> 64",
                "getmoduleinfo 0x20003", "[12] get_port_info(): port_no=3, sfp_type=2",
                "getmodulediag 0x20003", "getmodstatus 0x20003",
                "[12] get_port_info(): port_no=3, fault levels - vcc_fault_level=0, "
                "tec_fault_level=6, temp_fault_level=0, tx_bias_fault_level=1, "
                "tx_power_fault_level=4, rx_power_fault_level=2, laser_temp_fault_level=6, "
                "env_status=1",
                "[12] port_state change for port 3: new_state(PORTSTATE_UP) "
                "prev_state(PORTSTATE_UNKNOWN)",
                "[18] Sent signal TESK_PORT_STATUS_IND:procedure_ref: 6, connection_ref: 1113, "
                "mbox: 0x71, port_no: 3, conn_status: OPERATIONAL, link_speed: 10.1 Gbps",
                "send 0x1648413 to 0x71"});
}

TEST_F(procedures, refusals_come_in_the_order_of_the_checks)
{
    ports[65534] = optical_port();
    const uint32_t reference = subscriber(alice, 3, subscribe_info);
    subscribe(alice, reference, 3, subscribe_status);
    static const struct {
        uint32_t request, port, code;
        const char *text;
    } cases[] = {
        {subscribe_info, 65535, 2, "invalid port"},
        {subscribe_info, 3, 1, "already subscribed"},
        {subscribe_info, 4, 1, "invalid port"},
        {subscribe_status, 0xffffffff, 2, "invalid port"},
        {subscribe_status, 3, 1, "already subscribed"},
        {subscribe_status, 4, 1, "invalid port"},
        {unsubscribe_info, 65535, 1, "client is not subscribed"},
        {unsubscribe_status, 4, 1, "client is not subscribed"},
        {get_counters, 65535, 2, "invalid port"},
        {get_counters, 4, 1, "no device (e.g. port ID is unknown)"},
    };
    for (const auto &refused : cases) {
        SCOPED_TRACE(refused.request);
        send(alice, refused.request, {8, reference, refused.port, 0});
        expect_rejection(refused.request + 2, refused.code, refused.text);
        expect_bytes(sent[0], 4, "0000000800000459");
        EXPECT_EQ(sent[0].word(12), refused.port);
    }
    fake_platform::failing["unsubsport"] = fake_platform::failing["unsubslink"] = DOLM_RICERR_BUSY;
    for (uint32_t request : {unsubscribe_info, unsubscribe_status}) {
        send(alice, request, {8, reference, 3});
        expect_rejection(request + 2, 1, "failed to unsubscribe");
        EXPECT_EQ(fake_platform::sent[0].word(8), 1000 + alice);
    }
    fake_platform::failing.clear();
    for (uint32_t request : {unsubscribe_info, unsubscribe_status}) {
        send(alice, request, {8, reference, 3});
        EXPECT_EQ(sent.at(0).number, request + 1);
    }
}

TEST_F(procedures, a_port_unknown_to_the_read_gives_its_count_back_before_the_rejection)
{
    const uint32_t first = subscriber(alice, 3, subscribe_info);
    const uint32_t second = connect(bob);
    fake_platform::failing["getmoduleinfo"] = DOLM_RICERR_NODEV;
    trace({});
    send(bob, subscribe_info, {8, second, 3});
    expect_rejection(TESK_SUBSCRIBE_SFP_INFO_REJ, 2, "invalid port");
    expect_log({"getmoduleinfo 0x20003", "send 0x1648408 to 0x72"});
    send(alice, unsubscribe_info, {8, first, 3});
    expect_log({"unsubsport 0x20003", "send 0x164840e to 0x71"});
    send(bob, subscribe_info, {8, second, 3});
    expect_log({"subsport 0x20003", "getmoduleinfo 0x20003", "unsubsport 0x20003",
                "send 0x1648408 to 0x72"});
}

TEST_F(procedures, the_hardware_sees_one_subscription_however_many_clients_hold_it)
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
    EXPECT_EQ(told(), (numbers{{TESK_PORT_STATUS_IND, bob}}));
    fake_platform::take_log();
    send(bob, unsubscribe_status, {8, second, 3});
    expect_log({"unsubslink 0x20003", "send 0x1648415 to 0x72"});
    handle_events({link_event(3, DOLM_RICRILINKSTATE_OPERATIONAL)});
    expect_log({});
}

TEST_F(procedures, a_refused_last_unsubscribe_keeps_the_record_and_gives_it_a_live_bucket)
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

TEST_F(procedures, the_filter_holds_back_and_tells_the_summary)
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

TEST_F(procedures, a_tick_that_outlives_its_bucket_meets_the_next_one_with_its_id)
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

TEST_F(procedures, events_queued_together_are_handled_newest_first)
{
    subscriber(alice, 3, subscribe_status);
    handle_events({link_event(3, 1), link_event(3, 2)});
    EXPECT_EQ(sent.size(), 1u) << "the up repeats the baseline, the down is news";
    handle_events({link_event(3, 2), link_event(3, 1)});
    EXPECT_EQ(sent.size(), 1u) << "the down repeats, the older up stays stored";
}

TEST_F(procedures, indications_go_out_newest_client_first_and_module_before_port)
{
    for (uint32_t client : {alice, bob, carol}) {
        const uint32_t reference = connect(client);
        subscribe(client, reference, 3, subscribe_info);
        if (client != bob)
            subscribe(client, reference, 3, subscribe_status, 40 + client);
    }
    ports[3].status = DOLM_RICRIPORT_STARTED;
    handle_events({port_event(3, DOLM_RICRIPORT_STARTED)});
    EXPECT_EQ(told(), (numbers{{TESK_SFP_INFO_IND, carol},
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

TEST_F(procedures, two_records_that_disagree_make_the_server_ask_the_hardware)
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

TEST_F(procedures, the_two_decodings_of_a_port_differ_where_nothing_is_known)
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

TEST_F(procedures, a_lost_client_gives_its_ports_back_in_the_order_of_its_list)
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

TEST_F(procedures, measured_values_come_in_the_units_of_the_protocol)
{
    static const struct {
        int32_t temperature;
        uint32_t voltage, bias, status, cap;
        const char *values; /* from has_pm_loss_of_signal_count on, without the ber words */
    } cases[] = {
        {-40000, 3300000, 6004, 2, 0x1f,
         "0000000000000000 00000001000001f4 0000000100000258 00000001fffffe71 "
         "00000001000080e8 0000000100000258"},
        {25050, 4294967295u, 6005, 3, 0x1f,
         "0000000100000003 00000001000001f4 0000000100000258 00000001000000fb "
         "0000000100000000 0000000100000259"},
        {-149, 49, 4, 1, 0x07,
         "0000000100000001 0000000000000000 0000000000000000 0000000100000000 "
         "0000000100000000 0000000100000000"},
        {-150, 50, 5, 0, 0x61,
         "0000000000000000 0000000000000000 0000000000000000 00000001ffffffff "
         "0000000000000000 0000000000000000"},
    };
    const uint32_t reference = connect(alice);
    for (const auto &value : cases) {
        ports[3] = optical_port();
        ports[3].diag.temperature = value.temperature;
        ports[3].diag.voltage = value.voltage;
        ports[3].diag.txbias = value.bias;
        ports[3].diag.diag_cap = value.cap;
        ports[3].module_status.status = value.status;
        send(alice, get_counters, {1, reference, 3});
        ASSERT_EQ(sent.at(0).bytes.size(), 104u);
        expect_bytes(sent[0], 12, "00000003 00000002 0000000000000000");
        expect_bytes(sent[0], 28, std::string(value.values).insert(17, std::string(56, '0')));
    }
}

TEST_F(procedures, a_snapshot_fails_where_the_hardware_does_and_not_where_it_has_nothing_to_say)
{
    static const struct {
        const char *call;
        int32_t code;
        const char *trace, *text; /* a null text: confirmed, without values */
    } cases[] = {
        {"getmoduleinfo", -6, "[4] dolm_ric_ri_getmoduleinfo: -6 (unsupported operation)",
         "unsupported operation"},
        {"getmoduleinfo", -5, "[1] dolm_ric_ri_getmoduleinfo: -5 (unknown ric error code)",
         "unknown ric error code"},
        {"getmodstatus", -8,
         "[4] dolm_ric_ri_getmodstatus: port 3 (dolm_ric_id 131075), -8 (resource busy)",
         "resource busy"},
        {"getmodulediag", -3,
         "[4] dolm_ric_ri_getmodulediag: -3 (no device (e.g. port ID is unknown))",
         "no device (e.g. port ID is unknown)"},
        {"getmodulediag", -10, "[1] dolm_ric_ri_getmodulediag: -10 (interface shutdown)",
         "interface shutdown"},
        {"getmodulediag", -6, "[4] dolm_ric_ri_getmodulediag: -6 (unsupported operation)", nullptr},
    };
    const uint32_t reference = connect(alice);
    for (const auto &failure : cases) {
        fake_platform::failing = {{failure.call, failure.code}};
        trace({1, 4});
        send(alice, get_counters, {1, reference, 3});
        const auto lines = fake_platform::take_log();
        EXPECT_EQ(lines.at(lines.size() - 2), failure.trace);
        if (failure.text != nullptr)
            expect_rejection(TESK_GET_PM_COUNTERS_REJ, 1, failure.text);
        else
            expect_bytes(sent.at(0), 64, std::string(80, '0'));
    }
    fake_platform::failing.clear();
    ports[3].diag.mode_type = 2;
    trace({4});
    send(alice, get_counters, {1, reference, 3});
    EXPECT_EQ(fake_platform::take_log().at(3),
              "[4] moddiag: unknown SFP module on port 3(dolm_ric_id 131075)");
    expect_bytes(sent.at(0), 64, std::string(80, '0'));
}

TEST_F(procedures, the_history_rolls_over_at_thirty_and_any_mailbox_reads_it)
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
