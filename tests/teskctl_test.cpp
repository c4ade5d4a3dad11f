/* SPDX-License-Identifier: Apache-2.0 */
/* teskctl: what it makes of its arguments and of bytes from outside, how it writes, and its exit
   codes and reconnection against the real server on the simulated board. */
#include "testkit/processes/processes.h"
#include "tools/common/exit_code.h"
#include "tools/common/json_records.h"
#include "tools/common/port_list.h"
#include "tools/common/units.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/top_view.h"
#include "tools/teskctl/words.h"
#include "util/escape.h"

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <sys/wait.h>

namespace
{

using strings = std::vector<std::string>;

} // namespace

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

TEST(teskctl, top_shows_level_value_and_what_changed_at_any_width)
{
    top_view view({3, 4});
    tesk_client_port_status status{};
    status.port_no = 3;
    status.link = TESK_CLIENT_LINK_OPERATIONAL;
    status.link_speed = 101;
    view.heard(status);
    status.level[TESK_CLIENT_TEMPERATURE] = TESK_CLIENT_LEVEL_HIGH_ALARM;
    view.heard(status);
    tesk_client_pm pm{};
    pm.has_temperature = true;
    pm.temperature = 952;
    view.port(3).pm = pm;
    const std::tuple<size_t, size_t, const char *> windows[] = {
        {120, 24, " A 95.2 "},
        {120, 24, " temperature high alarm"},
        {80, 24, "AGE TX dBm   RX dBm   BIAS mA  VCC V   TEMP °C CHG"},
        {80, 5, "\n4     "},
        {80, 1, "2 of 2 ports not shown"},
        {60, 24, "PORT  LINK SPEED MODULE     AGE TX dBm   RX dBm   TEMP °C"},
        {40, 24, "\n3     up   none       o        A 95.2 "},
        {4, 24, "\n3   \n"},
    };
    for (const auto &[width, height, shown] : windows) {
        const strings page = view.lines(width, height, false, "away since 12:00:00, waiting");
        EXPECT_LE(page.size(), height);
        std::string text;
        for (const std::string &line : page) {
            EXPECT_LE(display_width(line), width) << line;
            text += line + "\n";
        }
        EXPECT_NE(text.find(shown), std::string::npos) << shown << "\n" << text;
    }
}

namespace
{

class teskctl_system : public testing::Test
{
  protected:
    testkit::directory directory;
    std::optional<testkit::server> server;
    std::string output;

    int run(const std::string &arguments)
    {
        return testkit::run(TESK_BIN_DIR "/teskctl " + arguments, output);
    }

    void expect(const std::string &arguments, int code, const std::vector<const char *> &texts)
    {
        EXPECT_EQ(run(arguments), code) << arguments;
        for (const char *text : texts)
            EXPECT_NE(output.find(text), std::string::npos) << arguments << "\n" << output;
    }
};

} // namespace

TEST_F(teskctl_system, exit_codes_tell_what_went_wrong_and_the_text_what_to_do)
{
    expect("--help", 0, {"history"});
    expect("--version", 0, {"teskctl 1."});
    expect("", 2, {"subcommand"});
    expect("pm", 2, {"required"});
    expect("pm 3-1", 2, {"comes before"});
    expect("watch", 2, {"--sfp"});
    expect("history everything", 2, {"status"});
    expect("--timeout 0 ping", 2, {"timeout"});
    expect("--json pm 0", 3, {"\"event\":\"error\",\"exit_code\":3,", "teskctl: no server"});
    server.emplace();
    expect("--json pm 0,900", 1, {"_dbm", "\"event\":\"rejected\"", "teskctl: port 900: pm: "});
    EXPECT_EQ(run("capabilities > /dev/full"), 5);
    EXPECT_EQ(run("--version; " TESK_BIN_DIR "/tesk-abi-check " TESK_LIB_DIR " > /dev/full"), 5);
    setenv("MBX_LOCATE_MS", "100", 1);
    kill(server->pid, SIGSTOP);
    EXPECT_EQ(run("--timeout 0.1 capabilities"), 4);
    kill(server->pid, SIGCONT);
}

TEST_F(teskctl_system, every_command_writes_objects_that_bear_their_documented_keys)
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

TEST_F(teskctl_system, watch_comes_back_with_the_server_and_leaves_nothing_behind)
{
    server.emplace();
    FILE *watch =
        popen("echo $$; exec " TESK_BIN_DIR "/teskctl watch --json --sfp 0 --status 0", "r");
    char line[512];
    auto wait_for = [&](const char *text) {
        while (std::fgets(line, sizeof(line), watch) != nullptr)
            if (std::strstr(line, text) != nullptr)
                return true;
        return false;
    };
    std::fgets(line, sizeof(line), watch);
    const pid_t pid = std::atoi(line);
    ASSERT_TRUE(wait_for("status"));
    server.reset();
    ASSERT_TRUE(wait_for("\"event\":\"lost\"}"));
    server.emplace();
    ASSERT_TRUE(wait_for("\"event\":\"restored\"}"));
    ASSERT_TRUE(wait_for("status"));
    kill(pid, SIGINT);
    EXPECT_FALSE(wait_for("any more"));
    EXPECT_EQ(WEXITSTATUS(pclose(watch)), 0);
    expect("history actions", 0, {"sfp info unsubscribed", "port status unsubscribed"});
}

TEST_F(teskctl_system, the_examples_work)
{
    server.emplace();
    expect("capabilities; " TESK_BIN_DIR "/example_client 0 2", 0, {"port 0: link operational"});
    expect("capabilities; " TESK_BIN_DIR "/example_client_cpp 0 900", 0,
           {"port 0: 41.5 degrees", "port 900: no device"});
}
