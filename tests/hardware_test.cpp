/* SPDX-License-Identifier: Apache-2.0 */
/* The reads of the hardware: levels, conversions, and the record after a failed call. */
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_portsub.h"
#include "testkit/fake_platform/server_fixture.h"

#include <array>
#include <atomic>
#include <chrono>
#include <utility>

using fake_platform::ports;

using hardware = server_fixture;

static constexpr uint32_t highest = 0xffffffffu;

/* Each measurement has its own bit, its own thresholds and its own level. */
TEST_F(hardware, a_measurement_whose_bit_is_set_is_graded_at_and_beyond_each_threshold)
{
    using info_word = uint32_t tesk_port_info::*;
    /* In the order of the bits, and of the five words of each measurement in the diagnostics. */
    static constexpr info_word levels[] = {
        &tesk_port_info::temp_fault_level, &tesk_port_info::vcc_fault_level,
        &tesk_port_info::tx_bias_fault_level, &tesk_port_info::tx_power_fault_level,
        &tesk_port_info::rx_power_fault_level};
    static constexpr uint32_t all = 0x1f, temp = 0x01, rest = 0x1e;
    static constexpr int32_t half = INT32_MIN;
    static const struct {
        int32_t low_warn, high_warn, low_alarm, high_alarm, value;
        uint32_t level, bits;
    } cases[] = {{20, 80, 10, 90, 0, 3, all},    {20, 80, 10, 90, 10, 3, all},
                 {20, 80, 10, 90, 11, 1, all},   {20, 80, 10, 90, 20, 1, all},
                 {20, 80, 10, 90, 21, 0, all},   {20, 80, 10, 90, 79, 0, all},
                 {20, 80, 10, 90, 80, 2, all},   {20, 80, 10, 90, 89, 2, all},
                 {20, 80, 10, 90, 90, 4, all},   {20, 80, 10, 90, 91, 4, all},
                 {0, 0, 0, 0, 0, 3, all},        {0, 0, 0, 0, 5, 4, all},
                 {20, 80, 10, 90, -1, 4, rest},  {20, -1, 10, -1, half, 0, rest},
                 {-30, 80, -40, 90, -5, 0, temp}};
    dolm_ric_module_diag &diag = ports[1].diag;
    for (const auto &grade : cases)
        for (size_t index = 0; index < std::size(levels); index++) {
            if ((grade.bits >> index & 1) == 0)
                continue;
            diag = {};
            diag.diag_cap = 1u << index | DOLM_SFP_DIAGCAP_LASERTEMP | DOLM_SFP_DIAGCAP_TECCURRENT;
            memcpy(&diag.temperature_low_warn + 5 * index, &grade, 5 * sizeof(uint32_t));
            tesk_port_info info;
            get_port_info(1, &info);
            for (info_word level : levels)
                EXPECT_EQ(info.*level,
                          level == levels[index] ? grade.level : uint32_t{TESK_FAULT_NOT_MEASURED});
            EXPECT_EQ(info.reserved_fault_level, uint32_t{TESK_FAULT_NOT_MEASURED});
            EXPECT_EQ(info.laser_temp_fault_level, uint32_t{TESK_FAULT_NOT_SUPPORTED});
            EXPECT_EQ(info.tec_fault_level, uint32_t{TESK_FAULT_NOT_SUPPORTED});
        }
}

TEST_F(hardware, each_code_has_its_value_in_the_protocol)
{
    static const struct {
        uint32_t code, of_link, of_module; /* speeds in 0.1 Gbps */
    } speeds[] = {{0x0000, 0, 0},       {0x0001, 12, 10},
                  {0x0002, 25, 100},    {0x0003, 0, 0},
                  {0x0004, 0, 0},       {0x0008, 49, 0},
                  {0x0020, 98, 0},      {0x0040, 101, 0},
                  {0x0080, 0, 0},       {0x1000, 100, 0},
                  {0x2000, 0, 0},       {highest, 0, 0},
                  {0x5453000a, 10, 10}, {0x5453ffff, 65535, 65535},
                  {0x54530000, 0, 0},   {0x5452000a, 0, 0},
                  {0x5454000a, 0, 0},   {0xd453000a, 0, 0}};
    static const std::pair<uint8_t, uint32_t> connectors[] = {{0, 3}, {1, 2},    {2, 1},
                                                              {3, 3}, {0x7f, 3}, {0xff, 3}};
    static const std::pair<uint32_t, uint32_t> module_status[] = {{0, 0}, {1, 0}, {2, 1},
                                                                  {3, 0}, {6, 0}, {highest, 0}};
    fake_platform::port &port = ports[1];
    port.module.mode_type = 1;
    for (const auto &speed : speeds) {
        tesk_port_info info;
        tesk_sfp_info sfp_info = {};
        port.speed = port.module.sfp.sfp_eth_speed = speed.code;
        port.link_state = DOLM_RICRILINKSTATE_OPERATIONAL;
        get_sfp_info(1, sfp_present_and_ready, &sfp_info);
        EXPECT_EQ(sfp_info.sfp_speed, speed.of_module) << speed.code;
        trace({12});
        get_port_info(1, &info);
        EXPECT_EQ(info.link_speed, speed.of_link) << speed.code;
        EXPECT_EQ(fake_platform::take_log().at(2),
                  "[12] Link speed -> " + std::to_string(speed.code));
        /* The speed isn't read if the link is in another state. */
        for (uint32_t state : {0u, 1u, 3u}) {
            port.link_state = state;
            get_port_info(1, &info);
            EXPECT_EQ(info.conn_status, 1u);
            EXPECT_EQ(info.link_speed, 0u);
        }
    }
    for (const auto &[connector, type] : connectors) {
        tesk_sfp_info info = {};
        tesk_port_info port_info;
        tesk_pm_counters counters = {};
        port.module.sfp.sfp_connector = connector;
        get_sfp_info(1, sfp_present_and_ready, &info);
        get_port_info(1, &port_info);
        counters.port_no = 1;
        EXPECT_EQ(read_pm_counters(&counters), 0);
        EXPECT_EQ(info.type, type) << int{connector};
        EXPECT_EQ(port_info.sfp_type, type) << int{connector};
        EXPECT_EQ(counters.pm_sfp_type, type) << int{connector};
    }
    for (const auto &[status, env_status] : module_status) {
        tesk_port_info info;
        port.module_status.status = status;
        get_port_info(1, &info);
        EXPECT_EQ(info.env_status, env_status) << status;
    }
}

template <auto wrapper>
static uint32_t call(uint32_t port_no)
{
    return static_cast<uint32_t>(wrapper(port_no));
}

TEST_F(hardware, each_wrapper_traces_each_result_with_its_own_texts)
{
    static const struct {
        std::string call, name, blank; /* the last two in traces of failures, before "(" */
        uint32_t (*wrapper)(uint32_t port_no);
        std::string function,
            state; /* traced with each result or, if it names no state, with a good one */
        uint32_t good, unknown_port, failed;
    } cases[] = {{"getportstatus", "getportstatus", "", call<get_dolm_sfp_presence>,
                  "get_dolm_sfp_presence", "port_status", sfp_present_not_ready, unsupported_port,
                  sfp_unknown},
                 {"subsport", "portstatus", " ", call<subscribe_sfp_info>, "subscribe_sfp_info",
                  "port_status", sfp_present_not_ready, unsupported_port, sfp_unknown},
                 {"subslink", "subslink", " ", call<subscribe_port_status>, "subscribe_port_status",
                  "link_status", 0, 1, 1},
                 {"unsubsport", "unsubsport", "", call<unsubscribe_sfp_info>,
                  "unsubscribe_sfp_info", "", 0, 1, 1},
                 {"unsubslink", "unsubslink", "", call<unsubscribe_port_status>,
                  "unsubscribe_port_status", "", 0, 1, 1}};
    ports[1].status = 0x8;
    ports[1].link_state = 8;
    for (const auto &wrapped : cases)
        for (int32_t code : {0, -3, -8}) {
            fake_platform::failing = {{wrapped.call, code}};
            trace({1, 4, 12});
            EXPECT_EQ(wrapped.wrapper(1), code == 0    ? wrapped.good
                                          : code == -3 ? wrapped.unknown_port
                                                       : wrapped.failed);
            log expected = {wrapped.call + " 0x20001"};
            if (!wrapped.state.empty())
                expected.push_back("[12] " + wrapped.function + "(): dolm_ric_ri_" + wrapped.call +
                                   " resulted with " + std::to_string(code) + " and " +
                                   wrapped.state + (code == 0 ? " 8" : " 0"));
            else if (code == 0)
                expected.push_back("[12] " + wrapped.function +
                                   "(): successfully unsubscribed from port 1");
            const std::string name = "dolm_ric_ri_" + wrapped.name + ": port 1",
                              id = "(dolm_ric_id 131073), ";
            if (code == -3)
                expected.push_back("[4] ABN: " + name + wrapped.blank + id +
                                   "-3 (no device (e.g. port ID is unknown))");
            if (code == -8)
                expected.push_back("[1] " + name + id + "-8 (resource busy)");
            EXPECT_EQ(fake_platform::take_log(), expected);
        }
}

/* The other texts occur in traces of failing calls. */
TEST_F(hardware, a_value_without_a_meaning_has_a_text)
{
    EXPECT_STREQ(dolm_ric_result_text(0), "no error");
    for (int32_t result : {1, -5, -7, -9, -12})
        EXPECT_STREQ(dolm_ric_result_text(result), "unknown ric error code") << result;
    EXPECT_STREQ(tesk_sfp_presence_str(unsupported_port), "UNSUPPORTED_PORT");
    EXPECT_STREQ(tesk_sfp_presence_str(5), "UNSUPPORTED_SFP_PRESENCE");
}

TEST_F(hardware, a_value_that_could_not_be_read_keeps_its_start_value)
{
    static const struct {
        std::string call;
        int32_t code;
        uint32_t conn, type, level, env;
        std::string last_line;
    } cases[] = {
        {"linkstatus", -8, 1, 3, 5, 5,
         "[1]@ failed, for port 1 (dolm_ric_id 131073), err=resource busy"},
        {"linkstatus", -3, 1, 3, 5, 5,
         "[1]@ failed, for port 1 (dolm_ric_id 131073), err=no device (e.g. port ID is unknown)"},
        {"moduleinfo", -1, 2, 3, 5, 5, "[1]@: -1 (invalid parameter(s))"},
        {"moduleinfo", -3, 2, 3, 5, 5, "[4]@: -3 (no device (e.g. port ID is unknown))"},
        {"moduleinfo", -4, 2, 1, 0, 1, "getmodstatus 0x20001"},
        {"moduleinfo", -6, 2, 3, 5, 5, "[4]@: -6 (unsupported operation)"},
        {"modulediag", -11, 2, 2, 5, 5, "[1]@: -11 (internal error)"},
        {"modulediag", -4, 2, 2, 5, 5,
         "[4]@: -4 (not available (e.g. SFP EEPROM is not available))"},
        {"modstatus", -2, 2, 2, 0, 5,
         "[1]@ failed, for port 1 (dolm_ric_id 131073), err=no memory"}};
    ports[1].link_state = DOLM_RICRILINKSTATE_OPERATIONAL;
    ports[1].speed = 0x0004; /* an unknown code, so the speed is 0 */
    ports[1].module.sfp.sfp_connector = DOLM_SFP_CONNECTOR_LC;
    ports[1].module_status.status = 2;
    ports[1].diag.diag_cap = DOLM_SFP_DIAGCAP_TXBIAS;
    ports[1].diag.txbias = 5;
    ports[1].diag.txbias_high_warn = ports[1].diag.txbias_high_alarm = 9;
    for (const auto &failure : cases) {
        tesk_port_info info;
        fake_platform::failing = {{"get" + failure.call, failure.code}};
        trace({1, 4});
        get_port_info(1, &info);
        EXPECT_EQ((std::array{info.conn_status, info.sfp_type, info.link_speed,
                              info.tx_bias_fault_level, info.env_status}),
                  (std::array{failure.conn, failure.type, 0u, failure.level, failure.env}));
        std::string last_line = failure.last_line;
        if (const size_t at = last_line.find('@'); at != last_line.npos)
            last_line.replace(at, 1, " dolm_ric_ri_get" + failure.call);
        EXPECT_EQ(fake_platform::take_log().back(), last_line);
    }
}

TEST_F(hardware, a_module_is_read_only_if_one_can_be_expected)
{
    static const struct {
        uint32_t presence;
        int32_t code;
        uint32_t mode, result, type;
        bool is_read;
        const char *trace = nullptr;
    } cases[] = {{sfp_not_present, 0, 1, sfp_not_present, 0, false},
                 {sfp_present_not_ready, 0, 1, sfp_not_present, 0, false},
                 {unsupported_port, 0, 1, sfp_not_present, 0, false},
                 {sfp_unknown, 0, 1, sfp_present_and_ready, 3, true},
                 {sfp_present_and_ready, 0, 1, sfp_present_and_ready, 3, true},
                 {sfp_present_and_ready, 0, 2, sfp_present_and_ready, 1, true,
                  "[4] dolm_ric_ri_getmoduleinfo returned result 0 with mode_type 2!"},
                 {sfp_present_and_ready, -3, 1, unsupported_port, 0, true},
                 {sfp_present_and_ready, -4, 1, sfp_not_present, 0, true},
                 {sfp_unknown, -8, 1, sfp_unknown, 0, true,
                  "[4] WARNING: dolm_ric_ri_getmoduleinfo returned result -8!"}};
    for (const auto &row : cases) {
        tesk_sfp_info info = {};
        ports[1].module.mode_type = row.mode;
        ports[1].module.sfp.sfp_connector = DOLM_SFP_CONNECTOR_OTHER;
        fake_platform::failing = {{"getmoduleinfo", row.code}};
        trace({1, 4});
        EXPECT_EQ(get_sfp_info(1, row.presence, &info), row.result);
        EXPECT_EQ(info.type, row.type);
        log expected(row.is_read ? 1 : 0, "getmoduleinfo 0x20001");
        if (row.trace != nullptr)
            expected.emplace_back(row.trace);
        EXPECT_EQ(fake_platform::take_log(), expected);
    }
}

TEST_F(hardware, only_an_optical_module_without_identity_of_its_own_is_renamed)
{
    static const struct {
        uint8_t connector, morvaine;
        const char *rdh;
    } cases[] = {{DOLM_SFP_CONNECTOR_LC, 0, "Non-Morvaine"}, {DOLM_SFP_CONNECTOR_LC, 1, "RDH"},
                 {DOLM_SFP_CONNECTOR_LC, 2, "Non-Morvaine"}, {DOLM_SFP_CONNECTOR_RJ45, 0, "RDH"},
                 {DOLM_SFP_CONNECTOR_RJ45, 1, "RDH"},        {DOLM_SFP_CONNECTOR_RJ45, 2, "RDH"},
                 {DOLM_SFP_CONNECTOR_OTHER, 0, "RDH"}};
    for (const auto &module : cases) {
        tesk_sfp_info info = {};
        ports[1].module.mode_type = 1;
        ports[1].module.sfp.sfp_connector = module.connector;
        ports[1].module.sfp.sfp_morvaine = module.morvaine;
        memcpy(ports[1].module.sfp.sfp_morvaine_rdh, "RDH", 4);
        get_sfp_info(1, sfp_present_and_ready, &info);
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
    /* The next successful read replaces the unusable record. */
    EXPECT_EQ(tesk_portsub_add_sfp_info(1), 0);
    EXPECT_TRUE(tesk_portsub_update_sfp_presence(1, sfp_not_present));
    EXPECT_FALSE(tesk_portsub_update_sfp_presence(1, sfp_not_present));
    trace({4});
    EXPECT_FALSE(tesk_portsub_update_port_state(2, port_up));
    EXPECT_EQ(fake_platform::take_log().back(),
              "[4] Warning: failed to find port 2 for port_state update");
    EXPECT_EQ(get_sfp_presence(1), sfp_not_present);
    ports[2] = {};
    fake_platform::failing["getportstatus"] = DOLM_RICERR_NODEV;
    EXPECT_EQ(tesk_portsub_add_port_status(2), 0);
    EXPECT_EQ(get_sfp_presence(2), sfp_unknown);
}

TEST_F(hardware, the_event_thread_translates_events_and_survives_a_wait_that_fails)
{
    static const char *const link =
        "[12] dolm_ric_event_main(): DOLM_RICEVT_RILINKSTATUS received "
        "for port 65535, link_status.state = %u(0 = "
        "DOLM_RICRILINKSTATE_STOPPED, 1 = DOLM_RICRILINKSTATE_NOOPERATION, "
        "2 = DOLM_RICRILINKSTATE_OPERATIONAL)";
    static const char *const port =
        "[12] dolm_ric_event_main(): DOLM_RICEVT_RIPORTSTATUS received "
        "for port 1, port_status.status = %u(bitset of states: 0x01 = "
        "DOLM_RICRIPORT_STARTED, 0x02 = DOLM_RICRIPORT_MODREADY, 0x04 = "
        "DOLM_RICRIPORT_POWERFAULT, 0x08 = DOLM_RICRIPORT_MODINSERTED)";
    const auto text = [](const char *format, uint32_t value) {
        char line[400];
        // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral): the two formats above
        snprintf(line, sizeof(line), format, value);
        return std::string(line);
    };
    tesk_server_shutdown();
    start({1, 12});
    dolm_ric_event other = {};
    other.type = 2;
    fake_platform::fail_wait(DOLM_RICERR_SHUTDOWN);
    fake_platform::fail_wait(DOLM_RICERR_INTERNAL);
    raise({other, link_event(65535, 2), link_event(65535, 1), link_event(65535, 0),
           port_event(1, 0xf3), port_event(1, 0x44)});
    EXPECT_EQ(fake_platform::take_log(),
              (log{"[1] dolm_ric_waitevent: -10 (interface shutdown)",
                   "[1] dolm_ric_waitevent: -11 (internal error)",
                   "[12] dolm_ric_event_main(): unexpected dolm event(2) received", text(link, 2),
                   text(link, 1), text(link, 0), text(port, 0xf3), text(port, 0x44),
                   "[12] dolm_ric_event_main(): unhandled port_status(68) received"}));
    static const std::array<uint32_t, 3> queued[] = {{tesk_hw_event_sfp, 1, sfp_unknown},
                                                     {tesk_hw_event_sfp, 1, sfp_present_and_ready},
                                                     {tesk_hw_event_port_state, 65535, port_down},
                                                     {tesk_hw_event_port_state, 65535, port_down},
                                                     {tesk_hw_event_port_state, 65535, port_up}};
    tesk_hw_event *event = tesk_event_queue_take_all();
    for (const auto &expected : queued) {
        ASSERT_NE(event, nullptr);
        EXPECT_EQ((std::array{event->type, event->port_no, event->state}), expected);
        free(std::exchange(event, event->next));
    }
    EXPECT_EQ(event, nullptr);
}

/* Counts the pauses of the event thread; the linker redirects its nanosleep here. */
static std::atomic<int> pauses;
static std::atomic<long> last_pause;

extern "C" {
int __real_nanosleep(const timespec *pause, timespec *rest);
int __wrap_nanosleep(const timespec *pause, timespec *rest);

int __wrap_nanosleep(const timespec *pause, timespec *rest)
{
    pauses++;
    last_pause = pause->tv_sec * 1000000000 + pause->tv_nsec;
    return __real_nanosleep(pause, rest);
}
}

/* Repeated, since the machine may be busy: one success is enough. */
TEST_F(hardware, a_failed_wait_is_retried_within_100_ms_after_a_pause)
{
    using clock = std::chrono::steady_clock;
    auto shortest = clock::duration::max();
    /* More failures in a row than the number after which pauses grow. */
    for (int tries = 0; tries < 12 || (tries < 30 && shortest >= std::chrono::milliseconds(100));
         tries++) {
        const auto start = clock::now();
        const int before = pauses;
        fake_platform::fail_wait(DOLM_RICERR_INTERNAL);
        raise({port_event(1, 0)});
        shortest = std::min(shortest, clock::now() - start);
        EXPECT_EQ(pauses, before + 1);
        EXPECT_EQ(last_pause, 5000000) << tries;
        free(tesk_event_queue_take_all());
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(100));
}

/* If the main thread is late, the event thread pauses. */
TEST_F(hardware, each_event_from_the_256th_that_waits_on_is_followed_by_a_pause)
{
    const int before = pauses;
    raise(std::vector<dolm_ric_event>(300, port_event(1, 0)));
    fake_platform::await_event_thread();
    EXPECT_EQ(pauses, before + 45);
    EXPECT_EQ(last_pause, 1000000);
    for (tesk_hw_event *event = tesk_event_queue_take_all(); event != nullptr;)
        free(std::exchange(event, event->next));
}
