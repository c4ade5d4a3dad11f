/* SPDX-License-Identifier: Apache-2.0 */
/* The reads of the hardware: levels, conversions, what is left when a call fails. */
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_portsub.h"
#include "testkit/fake_platform/server_fixture.h"

using fake_platform::ports;

using hardware = server_fixture;

TEST_F(hardware, a_level_is_graded_at_and_beyond_each_threshold)
{
    static const std::pair<uint32_t, uint32_t> grades[] = {
        {0, 3},  {10, 3}, {11, 1}, {20, 1}, {21, 0},         {79, 0},
        {80, 2}, {89, 2}, {90, 4}, {91, 4}, {0xffffffffu, 4}};
    for (const auto &[value, level] : grades) {
        dolm_ric_module_diag &diag = ports[1].diag;
        diag.diag_cap = DOLM_SFP_DIAGCAP_RXPOWER | DOLM_SFP_DIAGCAP_LASERTEMP;
        diag.rxpower_low_alarm = 10;
        diag.rxpower_low_warn = 20;
        diag.rxpower_high_warn = 80;
        diag.rxpower_high_alarm = 90;
        diag.rxpower = value;
        tesk_port_info info;
        get_port_info(1, &info);
        EXPECT_EQ(info.rx_power_fault_level, level) << value;
        EXPECT_EQ(info.tx_power_fault_level, uint32_t{TESK_FAULT_NOT_MEASURED});
        EXPECT_EQ(info.laser_temp_fault_level, uint32_t{TESK_FAULT_NOT_SUPPORTED});
        EXPECT_EQ(info.env_status, 0u);
    }
}

TEST_F(hardware, what_could_not_be_read_keeps_a_value_that_says_so)
{
    static const struct {
        const char *call;
        int32_t code;
        uint32_t conn, type, level, env;
        const char *last_line;
    } cases[] = {
        {"getlinkstatus", -3, 1, 3, 5, 5,
         "[1] dolm_ric_ri_getlinkstatus failed, for port 1 (dolm_ric_id 131073), err=no device "
         "(e.g. port ID is unknown)"},
        {"getmoduleinfo", -1, 2, 3, 5, 5,
         "[1] dolm_ric_ri_getmoduleinfo: -1 (invalid parameter(s))"},
        {"getmoduleinfo", -4, 2, 1, 0, 1, "getmodstatus 0x20001"},
        {"getmodulediag", -4, 2, 2, 5, 5,
         "[4] dolm_ric_ri_getmodulediag: -4 (not available (e.g. SFP EEPROM is not available))"},
        {"getmodstatus", -2, 2, 2, 0, 5,
         "[1] dolm_ric_ri_getmodstatus failed, for port 1 (dolm_ric_id 131073), err=no memory"},
    };
    ports[1].link_state = DOLM_RICRILINKSTATE_OPERATIONAL;
    ports[1].speed = 0x0004;
    ports[1].module.sfp.sfp_connector = DOLM_SFP_CONNECTOR_LC;
    ports[1].module_status.status = 2;
    ports[1].diag.diag_cap = DOLM_SFP_DIAGCAP_TXBIAS;
    ports[1].diag.txbias = 5;
    ports[1].diag.txbias_high_warn = ports[1].diag.txbias_high_alarm = 9;
    for (const auto &failure : cases) {
        tesk_port_info info;
        fake_platform::failing = {{failure.call, failure.code}};
        trace({1, 4});
        get_port_info(1, &info);
        EXPECT_EQ(info.conn_status, failure.conn);
        EXPECT_EQ(info.sfp_type, failure.type);
        EXPECT_EQ(info.link_speed, 0u) << "an unknown speed code";
        EXPECT_EQ(info.tx_bias_fault_level, failure.level);
        EXPECT_EQ(info.env_status, failure.env);
        EXPECT_EQ(fake_platform::take_log().back(), failure.last_line);
    }
}

TEST_F(hardware, a_code_without_a_row_of_its_own_may_hold_the_speed)
{
    static const struct {
        uint32_t code, link_speed, module_speed;
    } cases[] = {{0x0001, 12, 10},     {0x0002, 25, 100},        {0x1000, 100, 0},
                 {0x5453000a, 10, 10}, {0x54531f40, 8000, 8000}, {0x5453ffff, 65535, 65535},
                 {0x54530000, 0, 0},   {0x5452000a, 0, 0},       {0x5454000a, 0, 0},
                 {0xd453000a, 0, 0},   {0x0000000a, 0, 0}};
    ports[1].link_state = DOLM_RICRILINKSTATE_OPERATIONAL;
    ports[1].module.mode_type = DOLM_RIC_MODE_SFP;
    for (const auto &its : cases) {
        tesk_port_info port;
        tesk_sfp_info module = {};
        ports[1].speed = ports[1].module.sfp.sfp_eth_speed = its.code;
        get_port_info(1, &port);
        get_sfp_info(1, SFP_PRESENT_AND_READY, &module);
        EXPECT_EQ(port.link_speed, its.link_speed) << its.code;
        EXPECT_EQ(module.sfp_speed, its.module_speed) << its.code;
    }
}

TEST_F(hardware, a_module_is_read_only_where_one_may_be)
{
    static const struct {
        uint32_t presence;
        int32_t code;
        uint32_t mode, result, type;
        size_t lines;
    } cases[] = {
        {SFP_NOT_PRESENT, 0, 1, SFP_NOT_PRESENT, 0, 0},
        {SFP_PRESENT_NOT_READY, 0, 1, SFP_NOT_PRESENT, 0, 0},
        {UNSUPPORTED_PORT, 0, 1, SFP_NOT_PRESENT, 0, 0},
        {SFP_UNKNOWN, 0, 1, SFP_PRESENT_AND_READY, 3, 1},
        {SFP_PRESENT_AND_READY, 0, 2, SFP_PRESENT_AND_READY, 1, 2},
        {SFP_PRESENT_AND_READY, -3, 1, UNSUPPORTED_PORT, 0, 1},
        {SFP_PRESENT_AND_READY, -4, 1, SFP_NOT_PRESENT, 0, 1},
        {SFP_UNKNOWN, -8, 1, SFP_UNKNOWN, 0, 2},
    };
    for (const auto &read : cases) {
        tesk_sfp_info info = {};
        ports[1].module.mode_type = read.mode;
        ports[1].module.sfp.sfp_connector = DOLM_SFP_CONNECTOR_OTHER;
        fake_platform::failing = {{"getmoduleinfo", read.code}};
        trace({1, 4});
        EXPECT_EQ(get_sfp_info(1, read.presence, &info), read.result);
        EXPECT_EQ(info.type, read.type);
        EXPECT_EQ(fake_platform::take_log().size(), read.lines);
    }
}

TEST_F(hardware, only_an_optical_module_without_identity_of_its_own_is_renamed)
{
    static const struct {
        uint8_t connector, morvaine;
        const char *rdh;
    } cases[] = {{DOLM_SFP_CONNECTOR_LC, 0, "Non-Morvaine"},
                 {DOLM_SFP_CONNECTOR_LC, 1, "RDH"},
                 {DOLM_SFP_CONNECTOR_RJ45, 0, "RDH"},
                 {DOLM_SFP_CONNECTOR_OTHER, 0, "RDH"}};
    for (const auto &module : cases) {
        tesk_sfp_info info = {};
        ports[1].module.mode_type = 1;
        ports[1].module.sfp.sfp_connector = module.connector;
        ports[1].module.sfp.sfp_morvaine = module.morvaine;
        memcpy(ports[1].module.sfp.sfp_morvaine_rdh, "RDH", 4);
        get_sfp_info(1, SFP_PRESENT_AND_READY, &info);
        EXPECT_STREQ(info.sfp_morvaine_rdh, module.rdh);
    }
}

TEST_F(hardware, a_presence_that_cannot_be_read_does_not_stop_a_port_status_subscription)
{
    ports[1] = {};
    fake_platform::failing["getportstatus"] = DOLM_RICERR_BUSY;
    trace({1, 12});
    EXPECT_EQ(tesk_portsub_add_port_status(1), 0);
    EXPECT_EQ(fake_platform::take_log(),
              (log{"subslink 0x20001",
                   "[12] subscribe_port_status(): dolm_ric_ri_subslink resulted with 0 and "
                   "link_status 1",
                   "getportstatus 0x20001",
                   "[12] get_dolm_sfp_presence(): dolm_ric_ri_getportstatus resulted with -8 and "
                   "port_status 0",
                   "[1] dolm_ric_ri_getportstatus: port 1(dolm_ric_id 131073), -8 (resource busy)",
                   "[1] Failed to get sfp data on port 1 with result SFP_UNKNOWN",
                   "[12] Successfully subscribed for port status on port 1 with sfp_presence "
                   "SFP_UNKNOWN"}));
    fake_platform::failing.clear();
    /* A good answer of the next read goes into the record that holds nothing usable. */
    EXPECT_EQ(tesk_portsub_add_sfp_info(1), 0);
    EXPECT_TRUE(tesk_portsub_update_sfp_presence(1, SFP_NOT_PRESENT));
    EXPECT_FALSE(tesk_portsub_update_sfp_presence(1, SFP_NOT_PRESENT));
    trace({4});
    EXPECT_FALSE(tesk_portsub_update_port_state(2, PORTSTATE_UP));
    EXPECT_EQ(fake_platform::take_log().back(),
              "[4] Warning: failed to find port 2 for port_state update");
    EXPECT_EQ(get_sfp_presence(1), SFP_NOT_PRESENT);
}

TEST_F(hardware, the_event_thread_survives_a_wait_that_fails_and_events_that_mean_nothing)
{
    ports[1] = {};
    EXPECT_EQ(tesk_portsub_add_sfp_info(1), 0);
    dolm_ric_event other = {};
    other.type = 2;
    for (int32_t code : {DOLM_RICERR_SHUTDOWN, DOLM_RICERR_INTERNAL})
        fake_platform::fail_wait(code);
    handle_events({other, port_event(1, DOLM_RICRIPORT_MODREADY)});
    EXPECT_EQ(get_sfp_presence(1), SFP_PRESENT_AND_READY);
}
