/* SPDX-License-Identifier: Apache-2.0 */
/* teskctl: its arguments, bytes from outside, its output, and its exit codes and reconnection with
   the real server on the simulated board. */
#include "program/details_json.h"
#include "program/exit_code.h"
#include "program/json_records.h"
#include "program/moved_values.h"
#include "program/port_list.h"
#include "program/recorded_falls.h"
#include "program/units.h"
#include "program/words.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"
#include "tools/teskctl/fall_watch.h"
#include "tools/teskctl/history_fold.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/module_view.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/top_view.h"
#include "tools/teskctl/trend_plot.h"
#include "util/deadline.h"
#include "util/escape.h"

#include <clocale>
#include <csignal>
#include <fmt/ranges.h>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <span>
#include <sys/stat.h>

using strings = std::vector<std::string>;

TEST(teskctl, port_lists_are_read_whole_or_not_at_all)
{
    EXPECT_EQ(parse_ports({"7,0-3", "2"}), (std::vector<uint32_t>{0, 1, 2, 3, 7}));
    EXPECT_EQ(parse_ports({"65534"}), (std::vector<uint32_t>{65534}));
    for (const char *wrong : {"", ",", "1,", "3-1", "-1", "1-", "x", "1 ", "65535", "0-4294967295",
                              "99999999999999999999", "1--2"})
        EXPECT_THROW(parse_ports({wrong}), tool_error) << wrong;
}

TEST(teskctl, units_are_those_of_a_data_sheet)
{
    EXPECT_EQ(dbm(1000) + milliwatts(1000), "0.00 dBm1.000 mW");
    EXPECT_EQ(dbm(501), "-3.00 dBm");
    EXPECT_EQ(dbm(0), "< -30.00 dBm");
    EXPECT_EQ(celsius(-399), "-39.9 C");
    setlocale(LC_CTYPE, "C.UTF-8");
    EXPECT_EQ(celsius(-399), "-39.9 °C");
    EXPECT_EQ(volts(33000) + " " + milliamperes(601), "3.3000 V 6.01 mA");
    EXPECT_EQ(gbps(101), "10.1 Gbps");
    tesk_client_pm pm{};
    pm.has_rx_power = true;
    const json_object absent = to_json(pm);
    EXPECT_TRUE(absent["tx_power_mw"].is_null() && absent["rx_power_dbm"].is_null());
    EXPECT_EQ(absent["rx_power_mw"], 0.0);
    EXPECT_TRUE(to_json(tesk_client_port_status{})["speed_gbps"].is_null());
    dolm_ric_details_record record{};
    record.lane_count = 2;
    record.own_lanes = 1;
    const json_object details = to_json(record, 0);
    EXPECT_TRUE(details["module"].begin().value()["limits"]["low_alarm"].is_null());
    EXPECT_TRUE(details["lanes"][0]["own"] && !details["lanes"][1]["own"]);
}

TEST(teskctl, bytes_that_are_no_text_are_escaped_everywhere)
{
    EXPECT_EQ(escape(std::string_view("a\x1b[2J\xff\\\0", 8)), "a\\x1b[2J\\xff\\\\\\x00");
    tesk_client_sfp_info info{};
    info.type = TESK_CLIENT_SFP_OPTICAL;
    std::memset(info.vendor_name, 0xff, sizeof(info.vendor_name)); /* without a terminator */
    EXPECT_EQ(to_json(info)["vendor"].get<std::string>().size(), 4 * sizeof(info.vendor_name));
    EXPECT_EQ(describe(info).find('\xff'), std::string::npos);
}

TEST(teskctl, a_table_fits_its_width_and_loses_nothing)
{
    table shown({"PORT", "WHAT"});
    shown.add({"12", "one two three four five six"});
    EXPECT_EQ(shown.text(20), "PORT  WHAT\n12    one two three\n      four five six\n");
    EXPECT_EQ(shown.text(0), "PORT  WHAT\n12    one two three four five six\n");
}

TEST(teskctl, a_trend_has_the_mean_of_each_column)
{
    EXPECT_EQ(draw_trend({{0, 1}, {1, 3}, {9, 8}}, 0, 9, 2, 0, false),
              "       8  #\n          #\n          #\n       2 .#\n");
}

static std::string page_text(const strings &page)
{
    return fmt::format("{}\n", fmt::join(page, "\n"));
}

static tesk_client_port_status status_of(uint32_t port_no)
{
    tesk_client_port_status status{};
    status.port_no = port_no;
    status.link = TESK_CLIENT_LINK_OPERATIONAL;
    status.link_speed = 101;
    status.sfp_type = TESK_CLIENT_SFP_OPTICAL;
    return status;
}

TEST(teskctl, top_shows_level_value_and_what_changed_at_any_width)
{
    setlocale(LC_CTYPE, "C.UTF-8");
    top_view view({3, 4});
    tesk_client_port_status status = status_of(3);
    view.show(status);
    status.level[TESK_CLIENT_TEMPERATURE] = TESK_CLIENT_LEVEL_HIGH_ALARM;
    view.show(status);
    tesk_client_pm pm{};
    pm.port_no = 3;
    pm.sfp_type = TESK_CLIENT_SFP_OPTICAL;
    pm.has_temperature = true;
    pm.temperature = 952;
    view.show(pm);
    watched_fall fall{3, true, {}, {}};
    fall.seen.time = 1e9;
    view.show(fall);
    const std::tuple<size_t, size_t, const char *> windows[] = {
        {160, 24, " temperature high alarm; fell 2001-09-09: not known, possible"},
        {120, 24, " A 95.2 "},
        {120, 24, " temperature high alarm"},
        {80, 24, "AGE TX dBm   RX dBm   BIAS mA  TEMP °C CHG"},
        {80, 5, "\n 4     "},
        {80, 1, "2 of 2 ports not shown"},
        {60, 24, " PORT  LINK MODULE           TX dBm   RX dBm   TEMP °C"},
        {40, 24, "\n>3     up   o        A 95.2 "},
        {40, 24, "\nport 3: "},
        {4, 24, "\n>3  \n"},
    };
    for (const auto &[width, height, shown] : windows) {
        const strings page = view.lines(width, height, false, "away since 12:00:00, waiting");
        EXPECT_LE(page.size(), height);
        for (const std::string &line : page)
            EXPECT_LE(display_width(line), width) << line;
        testkit::expect_parts(page_text(page), {shown});
    }
}

TEST(teskctl, diagnostics_have_the_flags_of_their_last_reading)
{
    dolm_ric_details_record record{};
    record.presence = DOLM_RIC_PRESENCE_READY;
    record.vdm_count = 3;
    record.vdm[1].raised = 1U << DOLM_RIC_FLAG_LOW_WARNING | 1U << DOLM_RIC_FLAG_HIGH_ALARM;
    record.vdm[2].raised = DOLM_RIC_VDM_FLAGS_UNKNOWN;
    record.lane_count = 2;
    record.own_lanes = 1;
    for (dolm_ric_details_lane &lane : std::span(record.lane).first(2))
        lane.value[DOLM_RIC_RX_POWER] = {DOLM_RIC_VALUE_VALID, 0, 1, 0.5, {}};
    record.lane[0].signal[DOLM_RIC_RX_LOS] = {DOLM_RIC_VALUE_VALID, 0, 2, 1, 1};
    const std::string page = page_text(module_lines(record, "", 0, {}));
    testkit::expect_parts(page,
                          {"  -\n", "  low warning; high alarm\n", "  not read\n", "rx power 0 ",
                           "rx power 1*", "a lane of another port", "rx los on lane 0 2x, last"});
}

TEST(teskctl, each_fall_is_looked_at_when_it_has_been_recorded)
{
    const testkit::directory directory;
    fall_watch watch(directory.path, [](const watched_fall &) {});
    watch.take(3);
    EXPECT_FALSE(watch.next()) << "nothing fell since";
    const auto before = std::chrono::steady_clock::now();
    watch.take(3);
    const auto first = watch.next().value();
    EXPECT_GE(first - before, std::chrono::milliseconds(2200));
    watch.take(3);
    EXPECT_EQ(watch.next(), first) << "not put off";
}

TEST(teskctl, the_exit_code_is_that_of_the_worst_failure)
{
    const settings common;
    reporter report(common);
    tesk_client_answer answer{};
    answer.text = "";
    for (const auto result : {TESK_CLIENT_TIMEOUT, TESK_CLIENT_REJECTED}) {
        answer.result = result;
        report.failed(answer);
    }
    EXPECT_EQ(report.code(), exit_code::no_answer);
}

TEST(teskctl, a_value_has_moved_at_its_limit_and_not_before)
{
    const std::tuple<tesk_client_measurement, uint32_t, uint32_t, bool> cases[] = {
        {TESK_CLIENT_TX_POWER, 1000, 1258, false},  {TESK_CLIENT_TX_POWER, 1000, 1259, true},
        {TESK_CLIENT_RX_POWER, 1000, 795, false},   {TESK_CLIENT_RX_POWER, 1000, 794, true},
        {TESK_CLIENT_RX_POWER, 1, 0, false},        {TESK_CLIENT_RX_POWER, 0, 2, true},
        {TESK_CLIENT_TEMPERATURE, 400, 449, false}, {TESK_CLIENT_TEMPERATURE, 400, 350, true},
        {TESK_CLIENT_VCC, 33000, 33659, false},     {TESK_CLIENT_VCC, 33000, 32340, true},
        {TESK_CLIENT_TX_BIAS, 3000, 2701, false},   {TESK_CLIENT_TX_BIAS, 3000, 3300, true},
        {TESK_CLIENT_TX_BIAS, 0, 0, false},         {TESK_CLIENT_TX_BIAS, 0, 1, true}};
    const auto values = [](uint32_t value) {
        tesk_client_pm pm{};
        pm.has_tx_power = pm.has_rx_power = pm.has_temperature = pm.has_voltage = pm.has_tx_bias =
            true;
        pm.tx_power = pm.rx_power = pm.voltage = pm.tx_bias = value;
        pm.temperature = static_cast<int32_t>(value);
        return pm;
    };
    for (const auto &[measurement, then, now, expected] : cases) {
        top_port port;
        take(port, status_of(0));
        take(port, values(then));
        take(port, values(now));
        EXPECT_EQ(has_moved(port, measurement), expected) << measurement << " " << now;
        take(port, status_of(0)); /* graded anew */
        take(port, values(now));
        EXPECT_FALSE(has_moved(port, measurement));
    }
    EXPECT_FALSE(has_moved(values(1), values(1)));
    using pm = tesk_client_pm;
    for (const auto has : {&pm::has_tx_power, &pm::has_rx_power, &pm::has_temperature,
                           &pm::has_voltage, &pm::has_tx_bias}) {
        pm absent = values(1);
        absent.*has = false;
        EXPECT_TRUE(has_moved(values(1), absent));
    }
}

TEST(teskctl, top_scrolls_sorts_filters_and_reports_what_it_does_not_show)
{
    std::vector<uint32_t> ports(500);
    for (uint32_t i = 0; i < 500; i++)
        ports[i] = i;
    top_view view(ports);
    for (const uint32_t port_no : ports)
        view.show(status_of(port_no));
    key_parser parser;
    auto expect_in = [&](const char *bytes, size_t height, const char *shown) {
        SCOPED_TRACE(bytes);
        for (const key &pressed : parser.parse(bytes))
            view.press(pressed);
        const strings page = view.lines(80, height, false, "");
        EXPECT_LE(page.size(), height);
        testkit::expect_parts(page_text(page), {shown});
    };
    expect_in("", 24, "\n>0 ");
    auto alarm = status_of(412);
    alarm.level[TESK_CLIENT_TX_BIAS] = TESK_CLIENT_LEVEL_LOW_ALARM;
    view.show(alarm);
    expect_in("", 24, "\n>412 ");
    expect_in("\x1b[B", 24, "\n>0 ");
    view.show(status_of(412)); /* the alarm is over, and its row is below the window */
    expect_in("", 24, "outside of the window 1 port changed, last port 412: ");
    expect_in("\x1b[6~", 24, "\n>20 ");
    expect_in("\x1b[", 24, "\n>20 "); /* one sequence split over two reads */
    expect_in("B", 24, "\n>21 ");
    expect_in("\x1b[F", 24, "rows 481-500 of 500");
    expect_in("s\x1b[H", 24, "\n>0 ");
    expect_in("/410-412\r", 24, "\n 412 ");
    expect_in("\x1b", 24, "of 500");
    expect_in("/port, \x7f\x7f\x7f\x7f\x7f\x7fLOW ALARM", 24, "0 ports; Enter keeps");
    expect_in("\x1b", 24, "of 500");
    expect_in("", 5, "rows 1-1 of 500");
    expect_in("?", 24, "g         read the grades");
    expect_in("\x1bs", 24, "500 ports, worst first"); /* of this page, not of the previous one */
    view.name({{7, "eth7"}, {77, "eth77"}});
    expect_in("/eth7\r", 24, "\n>7     eth7 ");
    expect_in("/7\r", 24, "\n>77    eth77 ");
    take_loss(*view.port(77));
    expect_in("", 24, "eth77 gone ");
    view.remove(77);
    view.show(status_of(77));
    EXPECT_EQ(view.port(77), nullptr);
    EXPECT_EQ(view.press({key_code::letter, 'q'}), top_view::action::quit);
}

TEST(teskctl, a_history_is_folded_only_where_records_belong_together)
{
    struct action {
        uint64_t time_us;
        uint32_t port_no, client_id, kind;
    };
    const std::pair<std::vector<action>, strings> cases[] = {
        /* three clients are notified of one change */
        {{{1, 5, 1, 5}, {2, 5, 2, 5}, {3, 5, 3, 5}},
         {"5 indication for clients 1 (reference 0), 2 (reference 0), 3 (reference 0)"}},
        /* one client subscribes to three ports, with the indications between */
        {{{1, 5, 1, 1}, {1, 5, 1, 5}, {2, 6, 1, 1}, {2, 6, 1, 5}, {3, 8, 1, 1}},
         {"5-6,8 subscribed for client 1 (reference 0)",
          "5-6 indication for client 1 (reference 0)"}},
        /* the same actions again: other clients, other ports, and later times are separate
           events */
        {{{1, 5, 1, 5}, {2, 5, 1, 5}}, strings(2, "5 indication for client 1 (reference 0)")},
        {{{1, 5, 1, 5}, {2, 6, 2, 5}},
         {"5 indication for client 1 (reference 0)", "6 indication for client 2 (reference 0)"}},
        {{{1, 5, 1, 5}, {2, 5, 2, 5}, {3, 6, 1, 5}},
         {"5 indication for clients 1 (reference 0), 2 (reference 0)",
          "6 indication for client 1 (reference 0)"}},
        {{{1, 5, 1, 5}, {2, 6, 1, 5}, {3, 5, 2, 5}},
         {"5-6 indication for client 1 (reference 0)", "5 indication for client 2 (reference 0)"}},
        {{{1, 5, 1, 5}, {10'002, 5, 2, 5}},
         {"5 indication for client 1 (reference 0)", "5 indication for client 2 (reference 0)"}}};
    for (const auto &[actions, expected] : cases) {
        std::vector<history_entry> entries;
        for (const auto &[time_us, port_no, client_id, kind] : actions)
            entries.push_back(
                {TESK_CLIENT_HISTORY_ACTIONS, {time_us, port_no, 0, 0, {}, 0, kind, client_id, 0}});
        strings folded;
        for (const folded_entry &each : fold(entries)) {
            const std::string_view what = each.what, status = "port status ";
            EXPECT_TRUE(what.starts_with(status)) << what;
            folded.push_back(each.ports + " " + each.what.substr(status.size()));
        }
        EXPECT_EQ(folded, expected);
    }
}

static constexpr char program[] = TESK_BIN_DIR "/teskctl";

struct teskctl_system : testing::Test {
    /* There is no port map unless a test writes one. */
    teskctl_system()
    {
        setenv("DOLM_RIC_PORT_MAP", (directory.path + "/none/ports").c_str(), 1);
        setenv("DOLM_RIC_DETAILS", (directory.path + "/details").c_str(), 1);
    }

    testkit::directory directory;
    std::optional<testkit::server> server;
    const std::string log = directory.path + "/log";
    size_t log_end = 0;
    std::string output;

    int run(const std::string &arguments)
    {
        return testkit::run(std::string(program) + " " + arguments, output);
    }

    void expect(const std::string &arguments, int code, const strings &texts)
    {
        EXPECT_EQ(run(arguments), code) << arguments;
        testkit::expect_parts(output, texts);
    }
    /* Starts teskctl with its output in the log. */
    pid_t start(strings words)
    {
        words.insert(words.begin(), program);
        return testkit::start(words, {}, -1, log);
    }
    void await(const char *text)
    {
        testkit::await_line(log, text, log_end);
    }
};

TEST_F(teskctl_system, errors_have_their_exit_codes_and_say_what_to_do)
{
    testkit::expect_runs(
        program, {{"--version", 0, "teskctl 1."},
                  {"--help", 0, "history"},
                  {"help status", 0, "teskctl status"},
                  {"", 2, "a command is missing"},
                  {"pm", 2, "required"},
                  {"pm 3-1", 2, "a range goes upwards, as 1-3"},
                  {"watch", 2, "--sfp"},
                  {"watch --staus 0", 2,
                   "teskctl: there is no option '--staus': "
                   "did you mean '--status'?"},
                  {"--tmeout 1 pm 0", 2, "did you mean '--timeout'?"},
                  {"watch 3", 2, "'3' is one word too many: the options are --sfp, --status,"},
                  {"pm eth0", 2, "no interface names are known"},
                  {"ping --count 0", 2, "--count"},
                  {"--timeout 0 ping", 2, "timeout"},
                  {"history everything", 2, "status"}});
    expect("statsu 0", 2, {"'statsu'", "did you mean 'status'"});
    expect("--json pm 0", 3, {"\"event\":\"error\",\"exit_code\":3,", "teskctl: no server"});
    server.emplace();
    expect("--json pm 0,900", 1, {"_dbm", "\"event\":\"rejected\"", "teskctl: port 900: pm: "});
    expect("pm 0-15", 0, {"port 0: optical\n", "port 12: no module\n"});
    expect("pm 12,20-22,24", 1, {"port 12: no module\n", "ports 20-22,24: pm: no such port\n"});
    expect("sfp 7,12", 0, {"\n7     module not ready\n", "\n12    no module\n"});
    expect("--json sfp 7", 0, {"\"module\":\"not ready\""});
    expect("ports 7", 0, {"\n7     module not ready  -2.37 dBm"}); /* the board measures values */
    expect("pm 7", 0, {"port 7: module not ready\n", " dBm "});
    testkit::run(TESK_BIN_DIR "/teskboard fail getmoduleinfo busy --port 12", output);
    expect("sfp 12", 0, {"\n12    module not ready\n"});
    expect("watch --sfp 12 --status 12 --count 2", 0,
           {"sfp     module not ready\n", "operational, module not ready, "});
    expect("top 7 --for 0.5", 0, {"sfp     module not ready\n"});
    expect("ports 12", 0, {"\n12    module not ready"});
    testkit::run(TESK_BIN_DIR "/teskboard heal", output);
    expect("--timeout 9 statsu 0", 2, {"did you mean 'status'"});
    expect("status 12", 0, {"\n12    not operational, no module\n"});
    expect("status 7", 0, {"\n7     not operational, module not ready, "});
    expect("--json ports --status 7", 0, {"\"module\":\"not ready\""});
    expect("watch --status 12 --count 1", 0, {"not operational, no module\n"});
    expect("ports", 0, {"\n0     optical", "\n15    no module"});
    expect("ports --numbers", 0, {"\n14\n15\n"});
    expect("pm all | grep -c ^port", 0, {"16\n"});
    expect("pm 0-9999 | grep -c ^port", 0, {"16\n"});
    expect("ports --status 0", 0, {"LINK", "up 9.8 Gbps  ok"});
    /* No further line follows: teskctl ends with its reader, not at the next line. */
    expect("watch --status 0 | head -n 1", 0, {"port 0 "});
    expect("ping -i 1000 | head -n 1", 0, {"seq=1 "});
    EXPECT_EQ(run("capabilities > /dev/full"), 5);
    EXPECT_EQ(run("--version; " TESK_BIN_DIR "/tesk-abi-check " TESK_LIB_DIR " > /dev/full"), 5);
    setenv("MBX_LOCATE_MS", "100", 1);
    kill(server->pid, SIGSTOP);
    EXPECT_EQ(run("--timeout 0.1 capabilities"), 4);
    kill(server->pid, SIGCONT);
}

TEST_F(teskctl_system, every_command_writes_objects_with_the_documented_keys)
{
    server.emplace();
    run("watch --sfp 0 --status 0 --count 4 & PATH=" TESK_BIN_DIR ":$PATH; teskboard wait 0 "
        "--subscribed link && teskboard link 0 down && teskboard remove 0 && wait");
    const std::pair<const char *, const char *> cases[] = {
        {"capabilities", "id value"},
        {"sfp 0", "time event port module speed_gbps vendor part revision serial date_code product "
                  "product_ext"},
        {"watch --status 0 --count 1", "time event port link speed_gbps module levels environment"},
        {"pm 1", "time event port module tx_power_mw tx_power_dbm rx_power_mw rx_power_dbm "
                 "temperature_c voltage_v tx_bias_ma loss_of_signal loss_of_frame bit_errors"},
        {"history status", "time event port state filter_level levels"},
        {"history sfp", "time event port presence"},
        {"history actions", "time event port action client_id conn_ref"},
        {"ping -c 1", "time event seq time_ms"},
        {"ping -c 1 | tail -1", "time event requests answers loss_percent min_ms avg_ms max_ms "
                                "mdev_ms"},
        {"status 900", "time event request port code text"},
        {"ports --status 0", "time event port name module tx_power_mw tx_power_dbm rx_power_mw "
                             "rx_power_dbm temperature_c voltage_v tx_bias_ma loss_of_signal "
                             "loss_of_frame bit_errors link speed_gbps worst_level"},
        {"module 0", "time event port presence reason inserted_age_s doubts link identity module "
                     "rx_power_kind lane_limits lanes_state lanes vdm_state vdm vdm_left_out cost"},
        {"doctor", "check state text remedy"},
        {"top 0 --for 0.3", "time event port module speed_gbps vendor part revision serial "
                            "date_code product product_ext"},
    };
    for (const auto &[arguments, expected] : cases) {
        run(std::string("--json ") + arguments);
        std::string keys;
        const auto object = json_object::parse(output.substr(0, output.find('\n')));
        for (const auto &item : object.items())
            keys += (keys.empty() ? "" : " ") + item.key();
        EXPECT_EQ(keys, expected) << output;
    }
}

TEST_F(teskctl_system, module_shows_what_is_there_and_says_why_the_rest_is_missing)
{
    setenv("LC_ALL", "C", 1);
    EXPECT_EQ(run("module 0"), 3) << output;
    server.emplace();
    EXPECT_EQ(run("module 0,99"), 1) << output;
    run("module 0-2,8,12; " TESK_BIN_DIR "/teskboard set 0 rxpower=-20dBm");
    for (const char *part :
         {"port 0  port0  ready", "part EX-10G-LR", "rx power     -3.77 dBm  -15.23",
          "lanes     not supported", "port 12  port12  not ready", "no answer"})
        EXPECT_NE(output.find(part), std::string::npos) << part << " in " << output;
    run("pm 1; " TESK_BIN_DIR
        "/teskboard set 1 rx-power.3=-16dBm rx-los.2=yes snr.0=18.5dB pre-fec-ber.1=1e-6");
    run("module 1");
    for (const char *part : {"rx power 2   -3.77 dBm ", "rx power 3   -16.02 dBm", "low alarm 1x",
                             "rx los on lane 2 now, 1x", "media  0     18.50", "1.00e-06"})
        EXPECT_NE(output.find(part), std::string::npos) << part << " in " << output;
    run("module 0 --watch --for 0.1");
    EXPECT_NE(output.find("|<+"), std::string::npos) << "beyond its limit in " << output;
    EXPECT_NE(output.find("low alarm"), std::string::npos) << output;
    run("module 99 --watch --for 0.7");
    EXPECT_EQ(output.find("port 99"), output.rfind("port 99")) << "complained of once";
    server.reset();
    EXPECT_EQ(run("module 0"), 3) << "of a server that has ended: " << output;
}

TEST_F(teskctl_system, why_tells_of_the_falls_that_the_board_recorded)
{
    setenv("LC_ALL", "C", 1);
    EXPECT_EQ(run("why"), 3) << output;
    server.emplace();
    expect("why", 0, {"No fall is recorded."});
    const pid_t watch = start({"watch", "--status", "0,1"}), top = start({"top", "0", "--json"});
    const auto await_both = [&](const char *words, const char *object) {
        for (const char *text : {words, object}) {
            log_end = 0;
            await(text);
        }
    };
    await_both("port 1 ", "\"event\":\"status\",\"port\":0,");
    testkit::run(TESK_BIN_DIR "/teskboard set 0 link=up; " TESK_BIN_DIR
                              "/teskboard set 0 link=stopped",
                 output);
    await_both("port 0   fall    port0 at ",
               "\"event\":\"fall\",\"port\":0,\"cause\":\"set down\"");
    for (const pid_t each : {watch, top}) {
        kill(each, SIGINT);
        EXPECT_EQ(testkit::wait_for_end(each), 0);
    }
    EXPECT_EQ(testkit::read_file(log).find("port1 at"), std::string::npos);
    expect("why 0,1 --last 1 --facts-out " + directory.path + "/facts", 0,
           {"port0 ", ": set down, certain, local, administration"});
    expect("why --json --facts " + directory.path + "/facts", 0, {R"("certainty":"certain")"});
    std::ofstream(directory.path + "/falls/7") << "{\n{\"driver_unbound\": true}\n{\n";
    mkfifo((directory.path + "/falls/8").c_str(), 0600);
    expect("why", 1, {"falls/7: 2 of 3 falls", "driver gone", "falls/8 isn't a file", "certain"});
    EXPECT_TRUE(last_fall_of(directory.path + "/falls", 7)) << "behind it is a wrong line";
    std::vector<causes::facts> two(2);
    two[0].boot = "a", two[0].time = 1, two[0].since_boot_s = 9;
    two[1].boot = "b", two[1].time = 2, two[1].since_boot_s = 1;
    sort_newest_first(two);
    EXPECT_EQ(two[0].boot, "b") << "of the later start";
}

/* Without limits each of these would hang, or exhaust memory or stack. */
TEST_F(teskctl_system, why_takes_no_more_facts_than_a_machine_can_have)
{
    const auto repeat = [](size_t count, const std::string &text) {
        std::string all;
        while (count-- > 0)
            all += text;
        return all;
    };
    const std::pair<std::string, const char *> rows[] = {
        {"{\"port\": " + repeat(100000, "[") + repeat(100000, "]") + "}", "8 levels of brackets"},
        {"{" + repeat(3000, "\"\\\"{\": 1,") + "\"\": 1}", "256 keys in an object"},
        {repeat(100000, "{}\n"), "65537 objects"},
        {repeat(33000, "{}\n"), "line 32769: there are more than 32768 falls"},
        {"{\"port\": \"" + repeat(100000, "{}[") + "\"}", "not \"{}[{}[{"},
        {repeat(17 << 10, repeat(1 << 10, " ")), "16384 KiB"},
        {"{\"time\": 1e999}", "line 1: this isn't JSON"}};
    for (const auto &[text, complaint] : rows) {
        std::ofstream(directory.path + "/facts") << text;
        expect("why --facts " + directory.path + "/facts", 1, {complaint});
        EXPECT_LT(output.size(), 500U);
    }
    expect("why --facts - --other-end -", 2, {"standard input"});
}

TEST_F(teskctl_system, watch_comes_back_with_the_server_and_leaves_nothing_behind)
{
    server.emplace();
    const pid_t watch = start({"watch", "--json", "--sfp", "0", "--status", "0"});
    await("status");
    server.reset();
    await("\"event\":\"lost\"}");
    const std::string board = directory.path + "/board";
    testkit::run("printf 'ports 1\nfail subslink busy 2\n' >" + board, output);
    server.emplace(strings{"DOLM_RIC_BOARD=" + board});
    await("\"event\":\"restored\"}");
    await("subscription lost");
    await("\"event\":\"status\",\"port\":0,"); /* tried again */
    kill(watch, SIGINT);
    EXPECT_EQ(testkit::wait_for_end(watch), 0);
    expect("history actions", 0, {"sfp info unsubscribed", "port status unsubscribed"});
}

TEST_F(teskctl_system, top_follows_the_ports_of_a_server_that_comes_back)
{
    server.emplace();
    const pid_t top = start({"top", "all", "--json", "--interval", "0.1"});
    await("\"event\":\"pm\",\"port\":11,");
    for (const auto &[count, text] :
         {std::pair{4, "\"event\":\"rejected\",\"request\":\"pm\",\"port\":15,"},
          std::pair{20, "\"event\":\"sfp\",\"port\":19,"}}) {
        const std::string board = directory.path + "/board";
        testkit::run("printf 'ports " + std::to_string(count) + "\\n' >" + board, output);
        server.reset();
        server.emplace(strings{"DOLM_RIC_BOARD=" + board});
        await(text);
    }
    testkit::run(TESK_BIN_DIR "/teskboard wait 0-19 --subscribed link", output);
    kill(top, SIGINT);
    EXPECT_EQ(testkit::wait_for_end(top), 1); /* because of the rejected ports */
}

TEST_F(teskctl_system, ping_counts_no_wait_for_a_connection_as_a_round_trip)
{
    server.emplace();
    const pid_t ping = start({"ping", "--json", "-i", "0.02"});
    await("\"seq\":5");
    server.reset();
    server.emplace();
    await("waited for a new connection");
    kill(ping, SIGINT);
    EXPECT_EQ(testkit::wait_for_end(ping), 0);
    const std::string all = testkit::read_file(log);
    const auto summary = json_object::parse(all.substr(all.rfind("{\"time\"")));
    EXPECT_LT(summary["answers"], summary["requests"]);
    EXPECT_GT(summary["min_ms"], 0.0);
}

TEST_F(teskctl_system, a_request_in_flight_when_ping_ends_is_not_lost)
{
    server.emplace();
    const pid_t ping = start({"--timeout", "0.2", "ping", "--json", "-i", "0.02"});
    await("\"seq\":2");
    kill(server->pid, SIGSTOP);
    await("\"no answer\"");
    kill(ping, SIGINT);
    EXPECT_EQ(testkit::wait_for_end(ping), 0);
    kill(server->pid, SIGCONT);
    std::map<std::string, int> count;
    json_object last;
    std::istringstream lines(testkit::read_file(log));
    for (std::string line; std::getline(lines, line); count[last["event"]]++)
        last = json_object::parse(line);
    EXPECT_EQ(last["requests"], count["answer"] + count["no answer"]) << last;
}

TEST_F(teskctl_system, tools_leave_as_few_records_as_they_can)
{
    server.emplace();
    run("pm all; " TESK_BIN_DIR "/teskctl ports; " TESK_BIN_DIR "/teskctl --json history");
    expect("history", 0, {"TIME  PORT  WHAT\n"});
    run("status 0; " TESK_BIN_DIR "/teskctl sfp 0; " TESK_BIN_DIR "/teskctl ports --status 0");
    expect("--json history actions | grep -c action", 0, {"10\n"});
}

TEST_F(teskctl_system, ports_are_named_by_the_port_map)
{
    const std::string map = directory.path + "/ports";
    server.emplace(); /* the server writes its map elsewhere */
    setenv("DOLM_RIC_PORT_MAP", map.c_str(), 1);
    testkit::run("printf '# tesk-ports 1\n3\teth3\n7\tx\033[2J\n' >" + map, output);
    expect("ports", 0, {"3     eth3      optical", "7     x\\x1b[2J  module not ready"});
    expect("--json ports 3", 0, {"\"port\":3,\"name\":\"eth3\","});
    expect("pm all | grep -c ^port", 0, {"2\n"});
    expect("pm eth3,7 12", 0, {"port 3: optical\n", "port 7: ", "port 12: no module\n"});
    expect("watch --status eth3 --count 1", 0, {"port 3 "});
    expect("pm eth33", 2, {"no port is called 'eth33': did you mean 'eth3'?"});
    expect("ports --numbers --names", 0, {"3\neth3\n7\nx\\x1b[2J\n"});
    for (const strings &command :
         {strings{"watch", "--sfp", "0", "--status", "all"}, {"top", "all"}}) {
        const pid_t following = start(command);
        await("port 7 ");
        testkit::run("printf '12\teth12\n' >>" + map, output);
        await("port 12 ");
        kill(following, SIGINT);
        EXPECT_EQ(testkit::wait_for_end(following), 0);
        testkit::run("sed -i '/eth12/d' " + map, output);
    }
    testkit::run("echo '# tesk-ports 1' >" + map, output);
    for (const char *command : {"ports", "ports --numbers", "top", "pm", "watch --sfp"})
        expect(std::string(command) + " all", 1, {"no port, as its port map says"});
    testkit::run("echo wrong >" + map, output);
    expect("ports", 0, {"port map ignored: ", "line 1", "\n15 "});
}

TEST_F(teskctl_system, a_server_that_is_not_there_is_waited_for_and_explained)
{
    expect("--wait=0.2 pm 0", 3, {"no server"});
    expect("doctor", 3, {"wrong  server     no process", "-> MBX_DIR="});
    const pid_t waiting = start({"--wait", "pm", "0"});
    server.emplace();
    EXPECT_EQ(testkit::wait_for_end(waiting), 0);
    EXPECT_TRUE(testkit::read_file(log).starts_with("port 0: optical\n"));
    expect("doctor", 0, {"ok     server     process"});
}

/* A problem: a shell command causes it in the test's directory; $pid is the server's process. */
struct trouble {
    const char *setup;
    const char *line;   /* a part of a line that doctor prints */
    const char *remedy; /* the line after it; "" for none */
    bool is_up = true;  /* the server is running */
    bool is_nobody = false;
};

TEST_F(teskctl_system, the_doctor_finds_each_trouble_and_advises_no_harm)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changes owners, and runs as another user";
    /* A unit's state as systemctl shows it; all other units are not installed. */
    const std::string head =
        "cd " + directory.path +
        "; export MBX_DIR=$PWD/mbx MBX_LOCATE_MS=1000 b=$DOLM_RIC_SOCKET DOLM_RIC_SOCKET=/none "
        "DOLM_RIC_PORT_MAP=$PWD/m; s=tesk-server.service; "
        "e=tesk-exporter.service;"
        "r=tesk-module-reader.socket; export PATH=$PWD/bin:" TESK_BIN_DIR ":/usr/bin:/bin; "
        "unit() { printf '%s\n' Id=$1 LoadState=$2 ActiveState=$3 SubState=$4 \"${5:-X=}\" "
        "Group=users "
        "Environment=\"A=1 MBX_DIR=$MBX_DIR\" '' >>units; }; "
        "set_ports() { sed -i \"s|A=1|DOLM_RIC_PORTS=$1|\" units; }; "
        "targets() { for t; do l=\"$l,{\\\"scrapeUrl\\\":\\\"$t\\\"}\"; done; mkdir -p api/v1; "
        "echo \"{\\\"data\\\":{\\\"activeTargets\\\":[${l#,}]}}\" >api/v1/targets; rm -f line; "
        "mkfifo line; python3 -u -m http.server --bind 127.0.0.1 0 >line 2>/dev/null & e_pid=$!; "
        "read -r _ _ _ _ _ port _ <line; at=127.0.0.1:$port; unit $e loaded active running "
        "MainPID=1; }; as=; rm -f units m; umask 022;"
        "chown root:users . mbx mbx/* 2>/dev/null; chmod 755 . mbx; chmod 660 mbx/* 2>/dev/null;";
    const std::string tail = " :; timeout 20 $as teskctl --timeout 1 doctor "
                             "--prometheus ${at:-127.0.0.1:1} 2>&1; kill -CONT $pid 2>/dev/null; "
                             "kill $e_pid 2>/dev/null; "
                             "chmod 755 mbx; ";
    testkit::run(
        "mkdir -p " + directory.path + "/bin; cd " + directory.path +
            "; printf "
            "'#!/bin/sh\ncat %s/units 2>/dev/null' $PWD >bin/systemctl; chmod +x bin/systemctl",
        output);
    const trouble troubles[] = {
        {"unit $s masked inactive dead", "masked, so that", "if that is not on purpose", false},
        {"unit $s masked inactive dead", "wrong  server     no process", "see the unit", false},
        {"unit $s loaded inactive dead", "no process has", "systemctl start tesk-server", false},
        {"unit $s loaded failed failed Result=exit-code", "result exit-code", "journalctl", false},
        {"unit $s loaded activating auto-restart", "activating (auto-", "journalctl -u", false},
        {"unit $s bad-setting inactive dead", "can't load it", "systemctl status", false},
        {":", "wrong  server     no process", "MBX_DIR=", false},
        {"MBX_DIR=mbx", "mbx is relative", "set MBX_DIR to an absolute path", false},
        {"MBX_DIR=$PWD/none", "No such file", "unset MBX_DIR, or mkdir", false},
        {"touch file; MBX_DIR=$PWD/file", "is not a directory", "move it away", false},
        {"mkdir d; touch d/tesk-server; MBX_DIR=$PWD/d", "is not a socket", "move it away, then",
         false},
        {"unit $s loaded inactive dead", "was started in another way", ""},
        {"unit $s loaded active running NeedDaemonReload=yes", "changed since", "daemon-reload"},
        {"kill -STOP $pid", "(tesk-server, T (stopped)) has", "it is stopped: kill -CONT"},
        {"chmod 777 mbx", "every user can take", "chmod o-w"},
        {"chown 1 mbx", "its owner can take the name", "chown root"},
        {"chmod 700 mbx; chown nobody mbx", "can take the name", "chown root"},
        {"chmod 700 mbx; chgrp nogroup mbx", "forbids group nogroup", "chmod g+x", true, true},
        {"chmod 710 mbx; unit $s loaded active running", "not in the group users",
         "adduser nobody users, then log in again; or use sudo", true, true},
        {"unit $s loaded active running", "not in the group users", "adduser nobody", true, true},
        {"chgrp root mbx/*", "root, which is not one for", "use sudo, or run", true, true},
        {"chmod 710 mbx; chgrp root mbx", "root, which is not one for", "use sudo,", true, true},
        {"chgrp nogroup mbx/*; chmod 600 mbx/*", "forbids group nogroup", "chmod g+w", true, true},
        {"unit $r loaded failed failed Result=resources", "reader.socket: failed", "journalctl"},
        {"unit $r loaded inactive dead", "reader.socket: inactive", "systemctl start tesk-mod"},
        {"printf '0 lo\n1 a b c\n' >p; export DOLM_RIC_PORTS=$PWD/p", "config     ",
         "correct it in"},
        {"printf '0 lo\n' >p; export DOLM_RIC_PORTS=$PWD/p", "p has no wrong line", ""},
        {": >p; export DOLM_RIC_PORTS=$PWD/p", "p has no right line", "correct"},
        {"printf '0 lo\n1 a b c\n' >\"q'q\"; unit $s loaded active running; set_ports \"$PWD/q'q\"",
         "q'q:2: ", "correct"},
        {"unit $s loaded active running; set_ports $PWD/q; unit ${r%socket}service loaded inactive "
         "dead",
         "/q, and tesk-module-reader another file, /etc/",
         "systemctl edit tesk-server.service and"},
        {"mkfifo fifo; export DOLM_RIC_PORTS=$PWD/fifo", "fifo is not a regular", "correct"},
        {"ln -s /none link; export DOLM_RIC_PORTS=$PWD/link", "is a link to a file", "mend the"},
        {"printf '7 lo\n' >p; export DOLM_RIC_PORTS=$PWD/p; printf '# tesk-ports 1\n1\ta\n' >m",
         "keeps its interface while it runs: 7 lo", "restart tesk-server"},
        {"printf '0 lo\n1 a\n' >p; export DOLM_RIC_PORTS=$PWD/p; echo '# tesk-ports 1' >m",
         "keeps its interface while it runs: 1 a", "restart tesk-server"},
        {"export DOLM_RIC_SOCKET=$b", "board.sock is simulated, and its ports", ""},
        {"echo x >m", "line 1: must be", "restart tesk-server"},
        {"printf '# tesk-ports 1\n99\ta\n' >m", "the server has no port",
         "journalctl -u tesk-server"},
        {"unit $e loaded failed failed Result=exit-code", "exporter.service: failed", "journalctl"},
        {"unit $e loaded active running MainPID=1", "listens on 127.0.0.1:9816: Connection refused",
         "journalctl -u tesk-exporter"},
        {"unit $e loaded active running MainPID=1", "Prometheus at 127.0.0.1:1: Conn", ""},
        {"targets http://b7:9816/metrics http://127.0.0.1:9816/metrics", "has not read the exp",
         ""},
        {"targets http://b7:9816/metrics http://b8:9816/metrics", "has 2 targets with", ""},
        {"targets http://127.0.0.1:80/metrics", "has no target with the exporter's port",
         "add 127."},
        {"mkfifo f; sh -c 'read x' x --listen 0.0.0.0:1 <>f & e_pid=$!; printf "
         "'IPAddressDeny=0.0.0.0/0\n"
         "IPAddressAllow=127.0.0.0/8 ::1/128\n' >units; unit $e loaded active running "
         "MainPID=$e_pid",
         "lets only this machine's", "--print-drop-in NETWORK"},
    };
    for (const auto &[setup, line, remedy, is_up, is_nobody] : troubles) {
        SCOPED_TRACE(setup);
        if (is_up && !server)
            server.emplace();
        const std::string pid = server ? std::to_string(server->pid) : "1 2>/dev/null; pid=";
        testkit::run(
            head + "pid=" + pid + "; " + setup + ";" +
                (is_nobody ? "as='setpriv --reuid nobody --regid nogroup --clear-groups';" : "") +
                tail,
            output);
        const size_t at = output.find(line);
        ASSERT_NE(at, std::string::npos) << line << "\nis missing in\n" << output;
        const size_t next = output.find('\n', at) + 1;
        const std::string below = output.substr(next, output.find('\n', next) - next);
        EXPECT_EQ(testkit::contains(below, "-> "), *remedy != '\0') << output;
        EXPECT_TRUE(testkit::contains(below, remedy)) << output;
        testkit::expect_none(output, {"adduser nobody root", "adduser nobody nogroup", "kill -9"});
    }
}
