/* SPDX-License-Identifier: Apache-2.0 */
/* The requests of clients: bytes, the order of the checks, library calls and traces. */
#include "testkit/fake_platform/client_fixture.h"

#include <array>
#include <optional>

using fake_platform::ports;
using fake_platform::sent;

using procedures = client_fixture;

using texts = std::vector<std::string>;

static void append(texts &to, const texts &more)
{
    to.insert(to.end(), more.begin(), more.end());
}

/* The identity of optical_port; the text of the revision differs between two procedures. */
static texts identity_traces(const std::string &revision)
{
    return {"[12] Values for sfp_connector: DOLM_SFP_CONNECTOR_UNSPEC = 0x0, "
            "DOLM_SFP_CONNECTOR_LC = 0x1, DOLM_SFP_CONNECTOR_RJ45 = 0x2, "
            "DOLM_SFP_CONNECTOR_OTHER = 0xff",
            "[12] Values for sfp_eth_speed: DOLM_SFP_ETHSPEED_UNSPEC = 0x0, "
            "DOLM_SFP_ETHSPEED_1000MB = 0x1, DOLM_SFP_ETHSPEED_10GB = 0x2",
            "[12] Values for sfp_eth_compliance: DOLM_SFP_ETHCOMP_UNSPEC = 0x000, "
            "DOLM_SFP_ETHCOMP_10GBASE_ER = 0x001, DOLM_SFP_ETHCOMP_10GBASE_LRM = 0x002, "
            "DOLM_SFP_ETHCOMP_10GBASE_LR = 0x004, DOLM_SFP_ETHCOMP_10GBASE_SR = 0x008, "
            "DOLM_SFP_ETHCOMP_1000BASE_T = 0x010, DOLM_SFP_ETHCOMP_1000BASE_CX = 0x020, "
            "DOLM_SFP_ETHCOMP_1000BASE_LX = 0x040, DOLM_SFP_ETHCOMP_1000BASE_SX = 0x080, "
            "DOLM_SFP_ETHCOMP_1000BASE_BX = 0x100, DOLM_SFP_ETHCOMP_1000BASE_ZX = 0x200",
            "[12] Values for sfp_morvaine: DOLM_SFP_MORVAINE_NONE = 0x0, "
            "DOLM_SFP_MORVAINE_MONI = 0x1",
            "[12] Values for sfp_type: DOLM_SFP_TYPE_UNKNOWN = 0x0, DOLM_SFP_TYPE_OPTICAL = 0x1, "
            "DOLM_SFP_TYPE_BASET = 0x2, DOLM_SFP_TYPE_DAC_PASSIVE = 0x3, "
            "DOLM_SFP_TYPE_DAC_ACTIVE = 0x4",
            "[12] sfp->sfp_connector = 1, sfp_eth_speed = 2, sfp_eth_compliance = 68, "
            "sfp_nom_bitrate = 103, sfp_vendor_name = ABCDEFGHIJKLMNOPQ",
            "[12] sfp_vendor_oui = xyz, sfp_vendor_pn = PN-1, sfp_vendor_rev = " + revision +
                "sfp_vendor_sn = SN-1, sfp_date_code = 20260101WXYZ, sfp_morvaine = 1",
            "[12] sfp_morvaine_rdh = RDH 123456789AB"};
}

static std::string heading(uint32_t number, uint32_t receiver)
{
    char text[40];
    snprintf(text, sizeof(text), "0x%x to 0x%x: ", number, receiver);
    return text;
}

class signal_traces : public client_fixture
{
  protected:
    /* Traces of received signals are in host order, as are those of sent signals, which the fake
       platform compares with the signal. */
    static void expect(uint32_t number, const std::vector<uint32_t> &words, const texts &expected)
    {
        send(alice, number, words);
        const auto records = fake_platform::take_traces();
        texts found;
        for (const auto &[group, file, line, text, signal] : records)
            found.push_back(heading(signal.number, signal.receiver) + text);
        EXPECT_EQ(found, expected);
        for (size_t word = 0; word < words.size(); word++)
            EXPECT_EQ(records.at(0).signal.host_word(4 + 4 * word), words[word]) << word;
    }
};

TEST_F(signal_traces, have_its_number_receiver_and_text)
{
    ports[3].module_status.status = 3;
    trace({17, 18});
    expect(TESK_CONN_ESTABLISH_REQ, {9, 1113, 2, 7, 1},
           {"0x1648400 to 0x0: Received TESK_CONN_ESTABLISH_REQ: sender: 0x71, connection_ref: "
            "1113, procedure_ref: 9, number_of_rev = 2",
            "0x1648400 to 0x0: protocol_rev[0] = 7\n", "0x1648400 to 0x0: protocol_rev[1] = 1\n",
            "0x1648401 to 0x71: Sent signal TESK_CONN_ESTABLISH_CFM:connection_ref: 0 "
            "procedure_ref: 9protocol_rev: 1 mbox: 0x71"});
    expect(TESK_CONN_ESTABLISH_REQ, {0xffffffff, 8, 0},
           {"0x1648400 to 0x0: Received TESK_CONN_ESTABLISH_REQ: sender: 0x71, connection_ref: 8, "
            "procedure_ref: 4294967295, number_of_rev = 0",
            "0x1648402 to 0x71: Sent signal TESK_CONN_ESTABLISH_REJ:connection_ref: 0 "
            "procedure_ref: -1 error_code: 1, error_description: client id 0 has already "
            "established connection, mbox: 0x71"});
    expect(TESK_GET_CAPABILITIES_REQ, {77, 0},
           {"0x1648403 to 0x0: Received TESK_GET_CAPABILITIES_REQ: sender: 0x71, procedure_ref: "
            "77, connection_ref: 0",
            "0x1648404 to 0x71: Sent signal TESK_GET_CAPABILITIES_CFM:connection_ref: 1113 "
            "procedure_ref: 77 number_of_capabilities: 3 sender id: 0x71"});
    expect(get_counters, {7, 0, 3},
           {"0x164840a to 0x0: Received TESK_GET_PM_COUNTERS_REQ:sender:0x71, procedure_ref: 7, "
            "connection_ref: 0, port: 3",
            "0x164840b to 0x71: Sent signal TESK_GET_PM_COUNTERS_CFM: procedure_ref: 7, "
            "connection_ref: 1113, mbox: 0x71, port_no: 3, pm_sfp_type: 2, "
            "has_pm_loss_of_frame_count: 0, pm_loss_of_frame_count: 0, "
            "has_pm_loss_of_signal_count: 1, pm_loss_of_signal_count: 3, "
            "has_pm_bit_error_count: 0, ber_level10_8: 0, ber_level10_7: 0, ber_level10_6: 0, "
            "ber_level10_5: 0, ber_level10_4: 0, ber_level10_3: 0has_pm_sfp_tx_power: 1, "
            "pm_sfp_tx_power: 500, has_pm_sfp_rx_power: 1, pm_sfp_rx_power: 600, "
            "has_pm_sfp_temperature: 1, pm_sfp_temperature: 4294967247, has_pm_sfp_voltage: 1, "
            "pm_sfp_voltage: 33000, has_pm_sfp_tx_bias: 1, pm_sfp_tx_bias: 601"});
    expect(get_counters, {8, 0, 4},
           {"0x164840a to 0x0: Received TESK_GET_PM_COUNTERS_REQ:sender:0x71, procedure_ref: 8, "
            "connection_ref: 0, port: 4",
            "0x164840c to 0x71: Sent signal TESK_GET_PM_COUNTERS_REJ:procedure_ref: 8, "
            "connection_ref: 1113, error_code: 1, error_description: no device (e.g. port ID is "
            "unknown), mbox: 0x71, port_no: 4"});
    expect(MBX_MONITOR_DEFAULT_NO, {},
           {"0x1901001 to 0x0: Received MBX_MONITOR_DEFAULT_NO: sender: 0x71"});
}

TEST_F(signal_traces, of_subscriptions_are_alike)
{
    static const struct {
        std::string of;
        uint32_t request, port;
        std::string refusal, indication; /* at most one of them is set */
    } steps[] = {
        {"SUBSCRIBE_SFP_INFO", 0x1648406, 3, "", ", type: Present Optical"},
        {"SUBSCRIBE_SFP_INFO", 0x1648406, 65535, "2, error_description: invalid port", ""},
        {"UNSUBSCRIBE_SFP_INFO", 0x164840d, 3, "", ""},
        {"UNSUBSCRIBE_SFP_INFO", 0x164840d, 3, "1, error_description: client is not subscribed",
         ""},
        {"SUBSCRIBE_PORT_STATUS", 0x1648410, 3, "",
         ", conn_status: OPERATIONAL, link_speed: 10.1 Gbps"},
        {"SUBSCRIBE_PORT_STATUS", 0x1648410, 3, "1, error_description: already subscribed", ""},
        {"UNSUBSCRIBE_PORT_STATUS", 0x1648414, 3, "", ""},
        {"UNSUBSCRIBE_PORT_STATUS", 0x1648414, 3, "1, error_description: client is not subscribed",
         ""}};
    connect(alice);
    trace({17, 18});
    for (uint32_t procedure = 5; const auto &[of, request, port, refusal, indication] : steps) {
        const std::string where = std::to_string(port),
                          reference = "procedure_ref: " + std::to_string(++procedure),
                          about = ":" + reference + ", connection_ref: 1113, ",
                          to = "mbox: 0x71, port_no: " + where;
        texts expected = {heading(request, 0) + "Received TESK_" + of + "_REQ: sender: 0x71, " +
                          reference + ", connection_ref: 0, port: " + where};
        if (refusal.empty())
            expected.push_back(heading(request + 1, alice) + "Sent signal TESK_" + of + "_CFM" +
                               about + to);
        else
            expected.push_back(heading(request + 2, alice) + "Sent signal TESK_" + of + "_REJ" +
                               about + "error_code: " + refusal + ", " + to);
        if (!indication.empty())
            expected.push_back(heading(request + 3, alice) + "Sent signal TESK_" + of.substr(10) +
                               "_IND" + about + to + indication);
        std::vector<uint32_t> words = {procedure, 0, port};
        if (request == subscribe_status)
            words.push_back(0x01020304);
        expect(request, words, expected);
    }
}

TEST_F(procedures, a_connection_gets_the_servers_reference)
{
    trace({12});
    send(alice, TESK_CONN_ESTABLISH_REQ, {9, 7, 3, 7, 1, 9});
    ASSERT_EQ(sent.size(), 1u);
    expect_bytes(sent[0], 0, "0184640100000009 00000000 00000001");
    EXPECT_EQ(sent[0].bytes.size(), 16u);
    expect_log({"[12] Starting monitoring of client 0", "monitor 0x71", "send 0x1648401 to 0x71"});
    EXPECT_EQ(connect(bob), 1u);
    /* A second connection of a client is rejected first, whatever else is wrong. */
    send(alice, TESK_CONN_ESTABLISH_REQ, {3, 8, 1, 2});
    expect_rejection(TESK_CONN_ESTABLISH_REJ, 1, "client id 0 has already established connection");
    expect_bytes(sent[0], 4, "00000003 00000000");
}

TEST_F(procedures, revisions_count_only_as_far_as_the_signal_reaches)
{
    static const std::vector<uint32_t> offers[] = {
        {1, 2, 0}, {1, 2, 1, 2, 1}, {1, 2, 0xffffffff, 2, 3}, {1, 2, 0x40000001}};
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
        {unsubscribe_status, "[1] Unknown sender, ignoring TESK_UNSUBSCRIBE_PORT_STATUS_REQ"}};
    connect(alice);
    for (const auto &request : requests) {
        trace({1, 4, 12, 17});
        send(stranger, request.number, {5, 0, 3, 0});
        EXPECT_EQ(sent.size(), 0u);
        const auto lines = fake_platform::take_log();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[1], request.text);
        /* The client's own reference instead of the server's. */
        send(alice, request.number, {5, 1000 + alice, 3, 0});
        EXPECT_EQ(sent.size(), 0u);
    }
}

TEST_F(procedures, capabilities_are_the_same_forty_bytes)
{
    const uint32_t reference = subscriber(alice, 3, subscribe_status);
    send(alice, TESK_GET_CAPABILITIES_REQ, {77, reference});
    EXPECT_EQ(sent.at(0).bytes.size(), 40u);
    expect_bytes(sent.at(0), 0,
                 "04846401 0000004d 00000459 00000003 0000000100000008 0000000200000008 "
                 "0000000300000008");
    send(alice, get_counters, {78, reference, 3});
    handle_events({link_event(3, DOLM_RICRILINKSTATE_STOPPED)});
    EXPECT_EQ(sent.at(0).word(4), 5u) << "neither request changes the stored reference";
}

TEST_F(procedures, a_module_is_reported_in_120_bytes)
{
    ports[0x1234] = optical_port();
    const uint32_t reference = connect(alice);
    trace({12});
    send(alice, subscribe_info, {0x0a0b0c0d, reference, 0x1234});
    EXPECT_EQ(sent_numbers(),
              (numbers{{TESK_SUBSCRIBE_SFP_INFO_CFM, alice}, {TESK_SFP_INFO_IND, alice}}));
    expect_bytes(sent[0], 0, "07846401 0a0b0c0d 00000459 00001234");
    expect_bytes(sent[1], 0,
                 "09846401 0a0b0c0d 00000459 00001234 00000002 00000001 "
                 "5244482031323334353637383941 00 4558543435 00 "
                 "4142434445464748494a4b4c4d4e4f50 00 504e2d31 00000000000000000000000000 "
                 "5231323334 00 3230323630313031575859 00 534e2d31 "
                 "00000000000000000000000000 0000 00000064");
    log expected = {"subsport 0x21234",
                    "[12] subscribe_sfp_info(): dolm_ric_ri_subsport resulted with 0 and "
                    "port_status 11",
                    "[12] Successfully subscribed for sfp info on port 4660 with sfp_presence "
                    "SFP_PRESENT_AND_READY",
                    "[12] SFP info subscription contains sfp presence SFP_PRESENT_AND_READY",
                    "getmoduleinfo 0x21234"};
    append(expected, identity_traces("R1234"));
    append(expected, {"send 0x1648407 to 0x71", "send 0x1648409 to 0x71"});
    expect_log(expected);
}

TEST_F(procedures, a_port_is_reported_in_96_bytes)
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
    } cases[] = {{subscribe_info, 65535, 2, "invalid port"},
                 {subscribe_info, 3, 1, "already subscribed"},
                 {subscribe_info, 4, 1, "invalid port"},
                 {subscribe_status, 0xffffffff, 2, "invalid port"},
                 {subscribe_status, 3, 1, "already subscribed"},
                 {subscribe_status, 4, 1, "invalid port"},
                 {unsubscribe_info, 65535, 1, "client is not subscribed"},
                 {unsubscribe_status, 4, 1, "client is not subscribed"},
                 {get_counters, 65535, 2, "invalid port"},
                 {get_counters, 4, 1, "no device (e.g. port ID is unknown)"}};
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
    trace({});
    for (uint32_t request : {unsubscribe_info, unsubscribe_status}) {
        send(alice, request, {8, reference, 3});
        EXPECT_EQ(sent.at(0).number, request + 1);
    }
    expect_log({"unsubsport 0x20003", "send 0x164840e to 0x71", "unsubslink 0x20003",
                "send 0x1648415 to 0x71"});
}

TEST_F(procedures, a_port_unknown_to_the_read_is_uncounted_before_the_rejection)
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

TEST_F(procedures, measured_values_come_in_the_units_of_the_protocol)
{
    static constexpr std::nullopt_t none = std::nullopt;
    static const struct {
        int32_t temperature;
        uint32_t voltage, bias, status, cap;
        /* Loss of signal, powers (transmit, receive), temperature, voltage, bias. */
        std::array<std::optional<int>, 6> values;
    } cases[] = {{-40000, 3300000, 6004, 2, 0x1f, {{none, 500, 600, -399, 33000, 600}}},
                 {25050, 4294967295u, 6005, 3, 0x1f, {{3, 500, 600, 251, 0, 601}}},
                 {-149, 49, 4, 1, 0x07, {{1, none, none, 0, 0, 0}}},
                 {0, 0, 0, 0, 0x08, {{none, 500, none, none, none, none}}},
                 {0, 0, 0, 0, 0x10, {{none, none, 600, none, none, none}}},
                 {0, 3300000, 0, 0, 0x02, {{none, none, none, none, 33000, none}}},
                 {0, 0, 6005, 0, 0x04, {{none, none, none, none, none, 601}}},
                 {-150, 50, 5, 0, 0x61, {{none, none, none, -1, none, none}}}};
    const uint32_t reference = connect(alice);
    trace({12});
    send(alice, get_counters, {1, reference, 3});
    log expected = {
        "getmoduleinfo 0x20003",
        "getmodstatus 0x20003",
        "getmodulediag 0x20003",
        "[12] diag_cap: 31. Values for diag_cap: DOLM_SFP_DIAGCAP_TEMP = 0x01, "
        "DOLM_SFP_DIAGCAP_VOLTAGE = 0x02, DOLM_SFP_DIAGCAP_TXBIAS = 0x04, "
        "DOLM_SFP_DIAGCAP_TXPOWERv0x08, DOLM_SFP_DIAGCAP_RXPOWER = 0x10, "
        "DOLM_SFP_DIAGCAP_LASERTEMP = 0x20, DOLM_SFP_DIAGCAP_TECCURRENT = 0x40",
        "[12] temperature_low_warn = -299[* 0.1 C], temperature_high_warn = 800[* 0.1 C], "
        "temperature_low_alarm = -399[* 0.1 C], temperature_high_alarm = 900[* 0.1 C], "
        "temperature = -49[* 0.1 C]",
        "[12] voltage_low_warn = 0[* 0.0001 V], voltage_high_warn = 21474836[* 0.0001 V], "
        "voltage_low_alarm = 0[* 0.0001 V], voltage_high_alarm = 24159191[* 0.0001 V], voltage = "
        "33000[* 0.0001 V]",
        "[12] txbias_low_warn = 700[* 0.01 mA], txbias_high_warn = 800[* 0.01 mA], "
        "txbias_low_alarm = 600[* 0.01 mA], txbias_high_alarm = 900[* 0.01 mA], txbias = 601[* "
        "0.01 mA]",
        "[12] txpower_low_warn = 100[uW], txpower_high_warn = 400[uW], txpower_low_alarm = 50[uW], "
        "txpower_high_alarm = 500[uW], txpower = 500[uW]",
        "[12] rxpower_low_warn = 110[uW], rxpower_high_warn = 600[uW], rxpower_low_alarm = 60[uW], "
        "rxpower_high_alarm = 700[uW], rxpower = 600[uW]"};
    append(expected, identity_traces("R1234, "));
    append(expected, {"send 0x164840b to 0x71"});
    expect_log(expected);
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
        std::string expected_bytes;
        for (const auto &field : value.values) {
            char has_and_value[17];
            snprintf(has_and_value, sizeof(has_and_value), "%08x%08x", field.has_value(),
                     field.value_or(0));
            expected_bytes += has_and_value;
        }
        expect_bytes(sent[0], 28, expected_bytes.insert(16, std::string(56, '0')));
    }
}

TEST_F(procedures, a_read_fails_with_the_hardware_but_not_for_missing_diagnostics)
{
    static const struct {
        std::string group, call;
        int32_t code;
        std::string text;
        bool is_rejected; /* or confirmed without values */
    } cases[] = {
        {"[4]", "moduleinfo", -6, "unsupported operation", true},
        {"[1]", "moduleinfo", -5, "unknown ric error code", true},
        {"[4]", "modstatus", -8, "resource busy", true},
        {"[4]", "modulediag", -3, "no device (e.g. port ID is unknown)", true},
        {"[1]", "modulediag", -10, "interface shutdown", true},
        {"[4]", "moduleinfo", -4, "not available (e.g. SFP EEPROM is not available)", true},
        {"[4]", "modstatus", -4, "not available (e.g. SFP EEPROM is not available)", true},
        {"[4]", "modulediag", -6, "unsupported operation", false},
        {"[4]", "modulediag", -4, "not available (e.g. SFP EEPROM is not available)", false}};
    const uint32_t reference = connect(alice);
    for (const auto &[group, call, code, text, is_rejected] : cases) {
        fake_platform::failing = {{"get" + call, code}};
        trace({1, 4});
        send(alice, get_counters, {1, reference, 3});
        const auto lines = fake_platform::take_log();
        EXPECT_EQ(lines.at(lines.size() - 2),
                  group + " dolm_ric_ri_get" + call +
                      (call == "modstatus" ? ": port 3 (dolm_ric_id 131075), " : ": ") +
                      std::to_string(code) + " (" + text + ")");
        if (is_rejected) {
            expect_rejection(TESK_GET_PM_COUNTERS_REJ, 1, text);
            continue;
        }
        EXPECT_EQ(sent.at(0).number, TESK_GET_PM_COUNTERS_CFM);
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
