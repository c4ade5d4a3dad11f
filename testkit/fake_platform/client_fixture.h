/* SPDX-License-Identifier: Apache-2.0 */
/* client_fixture - clients of a server on the fake platform, whose port 3 has an optical module. */
#pragma once

#include "testkit/fake_platform/server_fixture.h"

#include <algorithm>
#include <cstring>

inline constexpr uint32_t alice = 0x71, bob = 0x72, carol = 0x73, stranger = 0x99;
inline constexpr uint32_t subscribe_info = TESK_SUBSCRIBE_SFP_INFO_REQ,
                          unsubscribe_info = TESK_UNSUBSCRIBE_SFP_INFO_REQ,
                          subscribe_status = TESK_SUBSCRIBE_PORT_STATUS_REQ,
                          unsubscribe_status = TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
                          get_counters = TESK_GET_PM_COUNTERS_REQ;

/* `digits` are hexadecimal; spaces group them for readability. */
inline void expect_bytes(const fake_platform::sent_signal &signal, size_t from, std::string digits)
{
    std::string found;
    char pair[3];
    std::erase(digits, ' ');
    for (size_t at = from; at < from + digits.size() / 2; found += pair, at++)
        snprintf(pair, sizeof(pair), "%02x", signal.bytes.at(at));
    EXPECT_EQ(found, digits);
}

inline void copy_text(char *field, const char *text)
{
    std::copy_n(text, strlen(text), field);
}

/* A module whose texts fill their fields to the last byte. */
inline fake_platform::port optical_port()
{
    fake_platform::port port;
    port.status = DOLM_RICRIPORT_STARTED | DOLM_RICRIPORT_MODINSERTED | DOLM_RICRIPORT_MODREADY;
    port.link_state = DOLM_RICRILINKSTATE_OPERATIONAL;
    port.speed = 0x0040;
    port.module.mode_type = 1;
    dolm_sfp_info &sfp = port.module.sfp;
    sfp.sfp_connector = DOLM_SFP_CONNECTOR_LC;
    sfp.sfp_eth_speed = DOLM_SFP_ETHSPEED_10GB;
    sfp.sfp_eth_compliance = 0x044;
    sfp.sfp_nom_bitrate = 103;
    sfp.sfp_morvaine = DOLM_SFP_MORVAINE_MONI;
    copy_text(sfp.sfp_vendor_name, "ABCDEFGHIJKLMNOPQ");
    copy_text(sfp.sfp_vendor_oui, "xyz");
    copy_text(sfp.sfp_vendor_pn, "PN-1");
    copy_text(sfp.sfp_vendor_rev, "R1234");
    copy_text(sfp.sfp_vendor_sn, "SN-1");
    copy_text(sfp.sfp_date_code, "20260101WXYZ");
    copy_text(sfp.sfp_morvaine_rdh, "RDH 123456789AB");
    copy_text(sfp.sfp_morvaine_rdh_ext, "EXT456");
    port.module_status.status = 2;
    /* Low and high warning limit, low and high alarm limit, value; the limits of the voltage are
       beyond the signed range. */
    port.diag = {0,    1,          0x1f, -30000,     80000,   -40000, 90000, -5000, //
                 0,    0x80000000, 0,    0x90000000, 3300000,                       //
                 7000, 8000,       6000, 9000,       6005,                          //
                 100,  400,        50,   500,        500,                           //
                 110,  600,        60,   700,        600,     {}};
    return port;
}

class client_fixture : public server_fixture
{
  protected:
    void SetUp() override
    {
        server_fixture::SetUp();
        fake_platform::ports[3] = optical_port();
    }
    static void subscribe(uint32_t client, uint32_t reference, uint32_t port, uint32_t kind,
                          uint32_t procedure = 5)
    {
        if (kind == TESK_SUBSCRIBE_PORT_STATUS_REQ)
            send(client, kind, {procedure, reference, port, 0});
        else
            send(client, kind, {procedure, reference, port});
        ASSERT_EQ(fake_platform::sent.at(0).number, kind + 1);
    }
    static void expect_log(const log &expected, int line = __builtin_LINE())
    {
        EXPECT_EQ(fake_platform::take_log(), expected) << "line " << line;
    }
    /* Connects and subscribes a client; returns its reference. */
    static uint32_t subscriber(uint32_t client, uint32_t port, uint32_t kind)
    {
        const uint32_t reference = connect(client);
        subscribe(client, reference, port, kind);
        return reference;
    }
    /* Number and receiver of each signal that was sent. */
    using numbers = std::vector<std::pair<uint32_t, uint32_t>>;
    static numbers sent_numbers()
    {
        numbers pairs;
        for (const auto &signal : fake_platform::sent)
            pairs.emplace_back(signal.number, signal.receiver);
        return pairs;
    }
    /* The answer to a request for a history. */
    static fake_platform::sent_signal history(uint32_t request)
    {
        send(stranger, request, {});
        return fake_platform::sent.at(0);
    }
    static void lose(uint32_t client)
    {
        fake_platform::deliver_host(client, MBX_MONITOR_DEFAULT_NO, {});
        tesk_handle_mailbox();
    }
    static void expect_rejection(uint32_t number, uint32_t code, const std::string &text)
    {
        ASSERT_EQ(fake_platform::sent.size(), 1u);
        EXPECT_EQ(fake_platform::sent[0].number, number);
        const bool establishment = number == TESK_CONN_ESTABLISH_REJ;
        EXPECT_EQ(fake_platform::sent[0].bytes.size(), establishment ? 272u : 276u);
        EXPECT_EQ(fake_platform::sent[0].word(establishment ? 12 : 16), code);
        EXPECT_EQ(fake_platform::sent[0].text(establishment ? 16 : 20), text);
        EXPECT_EQ(fake_platform::sent[0].bytes.back(), 0);
    }
};
