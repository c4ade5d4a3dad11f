/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-exporter without a server and without HTTP: what it makes of facts, and how it writes it.
   The clock is the test's. */
#define SD_JOURNAL_SUPPRESS_LOCATION
#include "tesk_exporter/api.h"
#include "tesk_exporter/connections.h"
#include "tesk_exporter/event_stream.h"
#include "tesk_exporter/host_check.h"
#include "tesk_exporter/journal.h"
#include "tesk_exporter/metrics.h"
#include "tesk_exporter/options.h"
#include "tesk_exporter/refresh_rules.h"
#include "tesk_exporter/web_files.h"
#include "tools/common/json_records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

using namespace exporter;
using strings = std::vector<std::string>;
using std::chrono::seconds;

/* In place of the system's: keeps what is written. */
static std::mutex journal_mutex;
static std::condition_variable journal_written;
static strings journal_record;
static int journal_result = 0;

int sd_journal_sendv(const iovec *fields, int count)
{
    const std::lock_guard lock(journal_mutex);
    journal_record.clear();
    for (int i = 0; i < count; i++)
        journal_record.emplace_back(static_cast<char *>(fields[i].iov_base), fields[i].iov_len);
    journal_written.notify_all();
    return journal_result;
}

static tesk_client_sfp_info module_in(uint32_t port, const char *serial = "S1")
{
    tesk_client_sfp_info info{};
    info.port_no = port;
    info.type = *serial == '\0' ? TESK_CLIENT_SFP_NOT_PRESENT : TESK_CLIENT_SFP_OPTICAL;
    std::strncpy(info.vendor_sn, serial, sizeof(info.vendor_sn) - 1);
    return info;
}

static tesk_client_port_status status_of(uint32_t port, uint32_t link, uint32_t rx_level = 0)
{
    tesk_client_port_status status{};
    status.port_no = port;
    status.link = link;
    status.sfp_type = TESK_CLIENT_SFP_OPTICAL;
    status.link_speed = link == TESK_CLIENT_LINK_OPERATIONAL ? 100 : 0;
    status.level[TESK_CLIENT_RX_POWER] = rx_level;
    status.level[TESK_CLIENT_TEC] = TESK_CLIENT_LEVEL_NOT_SUPPORTED;
    return status;
}

static tesk_client_pm values_of(uint32_t port, uint32_t rx_power, int32_t temperature = 400)
{
    tesk_client_pm pm{};
    pm.port_no = port;
    pm.has_tx_power = pm.has_rx_power = pm.has_temperature = pm.has_voltage = pm.has_tx_bias = true;
    pm.tx_power = 1000;
    pm.rx_power = rx_power;
    pm.temperature = temperature;
    pm.voltage = 33000;
    pm.tx_bias = 3000;
    return pm;
}

class exporter_board : public testing::Test
{
  protected:
    event_ring events{4, "e"};
    model board{events};
    moment now{steady_time{} + seconds(1'000'000), 1'700'000'000'000'000};

    void apply(const fact &reported)
    {
        board.apply(reported, now);
    }
    void pass(seconds time)
    {
        now.steady += time;
        now.wall_us += static_cast<uint64_t>(time.count()) * 1'000'000;
    }
    /* Two ports, connected; port 0 has a module and an interface. */
    void bring_up()
    {
        apply(connection_fact{true, ""});
        apply(ports_fact{{{0, "eth0"}, {7, ""}}});
        for (const uint32_t port : {0u, 7u}) {
            apply(module_in(port));
            apply(status_of(port, TESK_CLIENT_LINK_OPERATIONAL));
            apply(reading_fact{values_of(port, 500)});
        }
        apply(request_fact{TESK_CLIENT_OK, std::chrono::microseconds(300)});
    }
    std::string metrics(text_format format = text_format::prometheus)
    {
        return render_metrics(board, {}, format, now.steady);
    }
    /* The changes since `number`, "PORT CHANGE". */
    std::string changes(uint64_t number)
    {
        std::string text;
        for (; number < events.next(); number++) {
            const auto port = port_of(events.at(number));
            text += (port ? std::to_string(*port) : "server") + " " +
                    change_text(events.at(number).kind) + "; ";
        }
        return text;
    }
    static std::string all_of(event_stream &stream)
    {
        std::string text(100'000, '\0');
        text.resize(stream.read(text.data(), text.size()));
        return text;
    }
};

TEST(exporter_text, the_format_is_the_one_that_the_header_prefers)
{
    const std::pair<const char *, text_format> cases[] = {
        {"", text_format::prometheus},
        {"*/*", text_format::prometheus},
        {"text/html", text_format::prometheus},
        {"application/openmetrics-text", text_format::open_metrics},
        {"application/openmetrics-text;version=1.0.0;q=0.5,"
         "application/openmetrics-text;version=0.0.1;q=0.4,text/plain;version=0.0.4;q=0.3,*/"
         "*;q=0.2",
         text_format::open_metrics},
        {"application/openmetrics-text; version=0.0.1", text_format::prometheus},
        {"application/openmetrics-text;q=0.2, text/plain ; q=0.9", text_format::prometheus},
        {"application/openmetrics-text;q=0", text_format::prometheus},
        {"application/openmetrics-text;q=x,text/plain", text_format::prometheus},
        {",;=,;", text_format::prometheus},
    };
    for (const auto &[accept, expected] : cases)
        EXPECT_EQ(choose_format(accept), expected) << accept;
}

TEST(exporter_text, any_bytes_of_a_module_are_a_label)
{
    EXPECT_EQ(label_value("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
    tesk_client_sfp_info info = module_in(0, "ab\"\\\n\xff  ");
    std::memset(info.vendor_name, ' ', sizeof(info.vendor_name)); /* without an end */
    const std::string labels = module_labels(info);
    EXPECT_NE(labels.find("serial=\"ab\\\"\\\\\\\\\\\\x0a\\\\xff\""), std::string::npos) << labels;
    EXPECT_NE(labels.find("vendor=\"\""), std::string::npos) << labels;
}

TEST_F(exporter_board, metrics_have_their_units_and_no_series_of_what_is_unknown)
{
    bring_up();
    apply(module_in(7, ""));
    apply(reading_fact{values_of(0, 0)});
    pass(seconds(3));
    const std::string text = metrics();
    for (const char *line :
         {"tesk_up 1\n",
          "tesk_ports 2\n",
          "tesk_connections_total 1\n",
          "tesk_request_duration_seconds_bucket{le=\"0.00025\"} 0\n",
          "tesk_request_duration_seconds_bucket{le=\"0.0005\"} 1\n",
          "tesk_request_duration_seconds_bucket{le=\"+Inf\"} 1\n",
          "tesk_port_link_up{port=\"0\",interface=\"eth0\"} 1\n",
          "tesk_port_link_up{port=\"7\"} 1\n",
          "tesk_port_link_state{port=\"7\",state=\"stopped\"} 0\n",
          "tesk_port_link_speed_bytes_per_second{port=\"7\"} 1.25e+09\n",
          "tesk_port_module_present{port=\"7\"} 0\n",
          "serial=\"S1\"",
          "_watts{port=\"0\",interface=\"eth0\"} 0.001\n",
          "tesk_port_transmit_power_dbm{port=\"0\",interface=\"eth0\"} 0\n",
          "tesk_port_receive_power_watts{port=\"0\",interface=\"eth0\"} 0\n",
          "tesk_port_transmit_bias_amperes{port=\"0\",interface=\"eth0\"} 0.03\n",
          "tesk_port_voltage_volts{port=\"0\",interface=\"eth0\"} 3.3\n",
          "tesk_port_temperature_celsius{port=\"0\",interface=\"eth0\"} 40\n",
          "measurement=\"rx_power\",grade=\"ok\"} 1\n",
          "measurement=\"rx_power\",grade=\"low_alarm\"} 0\n",
          "tesk_port_grade_age_seconds{port=\"7\"} 3\n",
          "tesk_port_reading_age_seconds{port=\"0\",interface=\"eth0\"} 3\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
    for (const char *line :
         {"receive_power_dbm{", "measurement=\"tec\"", "watts{port=\"7\"", "grade{port=\"7\"",
          "module_info{port=\"7\"", "reading_age_seconds{port=\"7\""})
        EXPECT_EQ(text.find(line), std::string::npos) << line;
    EXPECT_NE(metrics(text_format::open_metrics).find("\n# TYPE tesk_port_link_changes counter\n"),
              std::string::npos);
    EXPECT_TRUE(metrics(text_format::open_metrics).ends_with("\n# EOF\n"));
}

TEST_F(exporter_board, promtool_finds_nothing)
{
    if (std::system("command -v promtool >/dev/null") != 0)
        GTEST_SKIP() << "promtool is in Debian's package prometheus";
    bring_up();
    char path[] = "/tmp/exporter-metrics-XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << metrics();
    EXPECT_EQ(std::system((std::string("promtool check metrics < ") + path).c_str()), 0);
    std::filesystem::remove(path);
}

TEST_F(exporter_board, series_end_with_their_port_and_with_the_server)
{
    bring_up();
    apply(ports_fact{{{0, "eth0"}}});
    apply(status_of(7, TESK_CLIENT_LINK_OPERATIONAL)); /* was under way */
    EXPECT_EQ(metrics().find("port=\"7\""), std::string::npos);
    apply(connection_fact{false, "nobody answers\x1b"});
    const std::string text = metrics();
    EXPECT_NE(text.find("tesk_up 0\n"), std::string::npos);
    EXPECT_EQ(text.find("tesk_port_link_up{"), std::string::npos);
    EXPECT_NE(text.find("tesk_port_link_changes_total{"), std::string::npos);
    EXPECT_EQ(board.trouble(), "nobody answers\\x1b");
    apply(connection_fact{true, ""});
    apply(request_fact{TESK_CLIENT_TIMEOUT, {}});
    EXPECT_FALSE(board.is_up());
    apply(gone_fact{0});
    EXPECT_EQ(metrics().find("port=\"0\""), std::string::npos);
}

TEST_F(exporter_board, what_is_found_after_a_connection_is_initial_and_only_a_change_is_an_event)
{
    const struct {
        fact reported;
        const char *changes;
    } steps[] = {
        {connection_fact{true, ""}, ""},
        {ports_fact{{{0, ""}}}, ""},
        {module_in(0, "A"), "0 initial; "},
        {module_in(0, "A"), ""},
        {module_in(0, ""), "0 removed; "},
        {module_in(0, "B"), "0 inserted; "},
        {module_in(0, "C"), "0 replaced; "},
        {status_of(0, TESK_CLIENT_LINK_OPERATIONAL), "0 initial; "},
        {status_of(0, TESK_CLIENT_LINK_NOT_OPERATIONAL), "0 down; "},
        {status_of(0, TESK_CLIENT_LINK_STOPPED), "0 stopped; "},
        {status_of(0, TESK_CLIENT_LINK_OPERATIONAL), "0 up; "},
        {status_of(0, TESK_CLIENT_LINK_OPERATIONAL, TESK_CLIENT_LEVEL_LOW_ALARM), "0 grades; "},
        {grades_fact{0, false, {}}, ""},
        {grades_fact{0, true, status_of(0, TESK_CLIENT_LINK_STOPPED)}, "0 grades; "},
        {connection_fact{false, ""}, "server initial; "},
        {connection_fact{false, ""}, ""},
        {connection_fact{true, ""}, "server initial; "},
        {module_in(0, "D"), "0 initial; "},
        {status_of(0, TESK_CLIENT_LINK_STOPPED), "0 initial; "},
    };
    for (size_t i = 0; i < std::size(steps); i++) {
        const uint64_t number = events.next();
        apply(steps[i].reported);
        EXPECT_EQ(changes(number), steps[i].changes) << "step " << i;
    }
    EXPECT_EQ(board.ports().at(0).link_changes, 3u);
    EXPECT_EQ(board.connections, 2u);
}

TEST(exporter_refresh, a_value_has_moved_at_its_limit_and_not_before)
{
    tesk_client_pm graded = values_of(0, 1000);
    const std::tuple<const char *, uint32_t, int32_t, uint32_t, uint32_t, bool> cases[] = {
        {"nothing", 1000, 400, 33000, 3000, false},
        {"1 dB up", 1259, 400, 33000, 3000, true},
        {"less up", 1258, 400, 33000, 3000, false},
        {"1 dB down", 794, 400, 33000, 3000, true},
        {"less down", 795, 400, 33000, 3000, false},
        {"no light", 0, 400, 33000, 3000, true},
        {"5 degrees", 1000, 450, 33000, 3000, true},
        {"less", 1000, 351, 33000, 3000, false},
        {"2 % of voltage", 1000, 400, 32340, 3000, true},
        {"less", 1000, 400, 33659, 3000, false},
        {"10 % of bias", 1000, 400, 33000, 3300, true},
        {"less", 1000, 400, 33000, 2701, false},
    };
    for (const auto &[what, rx, temperature, voltage, bias, expected] : cases) {
        tesk_client_pm pm = values_of(0, rx, temperature);
        pm.voltage = voltage;
        pm.tx_bias = bias;
        EXPECT_EQ(has_moved(graded, pm), expected) << what;
    }
    tesk_client_pm absent = graded;
    absent.has_temperature = false;
    EXPECT_TRUE(has_moved(graded, absent));
}

TEST_F(exporter_board, grades_are_refreshed_the_oldest_first_at_the_allowed_pace)
{
    bring_up();
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt);
    pass(seconds(1));
    apply(status_of(0, TESK_CLIENT_LINK_OPERATIONAL)); /* graded later than port 7 */
    apply(reading_fact{values_of(0, 500)});
    auto warm_up = [this](int32_t temperature) {
        for (const uint32_t port : {0u, 7u})
            apply(reading_fact{values_of(port, 500, temperature)});
    };
    warm_up(500);
    EXPECT_EQ(board.choose_refresh(now.steady), 7u);
    pass(seconds(6));
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* one is under way */
    apply(grades_fact{7, true, status_of(7, TESK_CLIENT_LINK_OPERATIONAL, 3)});
    EXPECT_EQ(board.ports().at(7).status->level[TESK_CLIENT_RX_POWER], 3u);
    EXPECT_EQ(board.choose_refresh(now.steady), 0u);
    apply(grades_fact{0, false, {}});
    warm_up(600); /* both have moved */
    pass(seconds(4));
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* too soon after any */
    pass(seconds(49));
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* too soon for each */
    pass(seconds(1));
    EXPECT_EQ(board.choose_refresh(now.steady), 7u);
    apply(grades_fact{7, true, status_of(7, TESK_CLIENT_LINK_OPERATIONAL)});
    pass(seconds(60));
    apply(module_in(0, "")); /* nothing to grade */
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt);
    warm_up(700);
    apply(request_fact{TESK_CLIENT_TIMEOUT, {}});
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* the server has trouble */
}

TEST(exporter_events, a_reader_goes_on_behind_its_id_where_the_ring_still_has_that)
{
    event_ring ring(4, "e1");
    EXPECT_EQ(ring.after("e1-0"), 1u);
    for (uint32_t i = 0; i < 6; i++)
        ring.add({0, 0, change::up, status_of(i, 2), ""});
    EXPECT_EQ(ring.first(), 3u);
    EXPECT_EQ(port_of(ring.at(3)), 2u);
    EXPECT_EQ(port_of(ring.at(6)), 5u);
    const std::pair<const char *, std::optional<uint64_t>> cases[] = {
        {"e1-6", 7},
        {"e1-5", 6},
        {"e1-2", 3},
        {"e1-1", std::nullopt},
        {"e1-7", std::nullopt},
        {"e2-5", std::nullopt},
        {"", std::nullopt},
        {"e1-", std::nullopt},
        {"e1-5x", std::nullopt},
        {"e1--5", std::nullopt},
        {"5", std::nullopt},
        {"e1-99999999999999999999", std::nullopt},
    };
    for (const auto &[id, expected] : cases)
        EXPECT_EQ(ring.after(id), expected) << id;
}

TEST_F(exporter_board, a_stream_gives_state_then_changes_and_says_where_it_has_a_gap)
{
    bring_up();
    event_stream fresh(events, board, "");
    std::string text = all_of(fresh);
    EXPECT_TRUE(text.starts_with("retry: 2000\n\ndata: {\"time\":")) << text;
    EXPECT_EQ(text.find("missed"), std::string::npos);
    EXPECT_EQ(text.find("inserted"), std::string::npos);
    EXPECT_TRUE(text.ends_with("\n\nid: e-4\n\n")) << text;
    EXPECT_EQ(all_of(fresh), "");
    fresh.request_comment();
    EXPECT_EQ(all_of(fresh), ":\n\n");

    apply(module_in(7, ""));
    text = all_of(fresh);
    EXPECT_TRUE(text.starts_with("id: e-5\ndata: {\"time\":")) << text;
    EXPECT_TRUE(text.ends_with(",\"change\":\"removed\"}\n\n")) << text;
    event_stream returned(events, board, "e-4");
    EXPECT_EQ(all_of(returned), "retry: 2000\n\n" + text);

    event_stream from_another(events, board, "f-4");
    text = all_of(from_another);
    EXPECT_NE(text.find("\"event\":\"missed\"}"), std::string::npos) << text;
    EXPECT_NE(text.find("\"port\":0,"), std::string::npos) << text;

    for (uint32_t i = 0; i < 5; i++) /* more than the ring holds */
        apply(status_of(0, 1 + i % 2));
    apply(connection_fact{false, ""});
    text = all_of(fresh);
    EXPECT_NE(text.find("\"event\":\"missed\"}"), std::string::npos) << text;
    EXPECT_NE(text.find("\"event\":\"lost\"}"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("\n\nid: e-" + std::to_string(events.next() - 1) + "\n\n")) << text;
    char part[7];
    std::string joined;
    event_stream slow(events, board, "x");
    for (size_t size = 0; (size = slow.read(part, sizeof(part))) > 0;)
        joined.append(part, size);
    EXPECT_EQ(joined.size(), 13 + text.size());
}

TEST(exporter_plots, a_slot_holds_the_last_value_of_its_time_and_a_long_one_the_extremes)
{
    plots kept;
    const uint64_t start = 600'000;
    EXPECT_EQ(kept.hour(start, 0)[PLOTTED_TEMPERATURE], plots::absent);
    kept.add(values_of(0, 1000, 100), start);
    kept.add(values_of(0, 500, 300), start + 14);
    kept.add(values_of(0, 0, -50), start + 45);
    const std::tuple<uint64_t, size_t, int16_t> hours[] = {
        {start + 45, 0, -50},     {start + 45, 1, plots::absent},     {start + 45, 3, 300},
        {start + 59, 0, -50},     {start + 60, 0, plots::absent},     {start + 60, 1, -50},
        {start + 3599, 239, 300}, {start + 3600, 239, plots::absent},
    };
    for (const auto &[time, age, expected] : hours)
        EXPECT_EQ(kept.hour(time, age)[PLOTTED_TEMPERATURE], expected) << time << " " << age;
    EXPECT_EQ(kept.hour(start + 45, 0)[PLOTTED_RX_POWER], plots::absent); /* no light */
    EXPECT_EQ(kept.hour(start + 45, 3)[PLOTTED_RX_POWER], -301);
    const plots::range day = kept.day(start + 86'399, 143);
    EXPECT_EQ(day.least[PLOTTED_TEMPERATURE], -50);
    EXPECT_EQ(day.greatest[PLOTTED_TEMPERATURE], 300);
    EXPECT_EQ(day.greatest[PLOTTED_RX_POWER], 0);
    kept.add(values_of(0, 1, 1), start + 86'400);
    EXPECT_EQ(kept.day(start + 86'400, 143).least[PLOTTED_TEMPERATURE], plots::absent);
    EXPECT_EQ(plots::in_unit(PLOTTED_VOLTAGE, kept.hour(start + 86'400, 0)[PLOTTED_VOLTAGE]), 3.3);
}

TEST_F(exporter_board, objects_are_valid_whatever_is_absent)
{
    apply(connection_fact{true, ""});
    apply(ports_fact{{{0, "a\\\\b"}, {7, ""}}});
    apply(module_in(0, "\"\xff"));
    apply(status_of(7, 2));
    apply(reading_fact{values_of(7, 0)});
    const auto object = json_object::parse(ports_json(board, std::chrono::milliseconds(1500), now));
    EXPECT_EQ(object["interval_s"], 1.5);
    EXPECT_EQ(object["ports"].size(), 2u);
    EXPECT_EQ(object["ports"][0]["interface"], "a\\\\b");
    EXPECT_EQ(object["ports"][0]["sfp"]["serial"], "\"\\xff");
    EXPECT_TRUE(object["ports"][0]["status"].is_null() && object["ports"][1]["sfp"].is_null());
    EXPECT_EQ(object["ports"][1]["grade_age_s"], 0.0);
    for (const bool is_day : {false, true}) {
        const auto plot = json_object::parse(plot_json(board.ports().at(7), is_day, now));
        EXPECT_EQ(plot["voltage_v"].size(), is_day ? 144u : 240u);
        EXPECT_EQ(plot["voltage_v"].back().dump(), is_day ? "[3.3,3.3]" : "3.3");
        EXPECT_TRUE(plot["rx_power_dbm"].back().is_null());
    }
    EXPECT_EQ(json_object::parse(events_json(events, 7))["events"].size(), 1u);
    EXPECT_EQ(events_json(events, 9), "{\"port\":9,\"events\":[]}\n");
}

TEST(exporter_http, only_our_own_names_are_hosts)
{
    sockaddr_storage v4{}, v6{}, local{};
    auto *four = reinterpret_cast<sockaddr_in *>(&v4);
    four->sin_family = AF_INET;
    four->sin_port = htons(9816);
    inet_pton(AF_INET, "127.0.0.1", &four->sin_addr);
    auto *six = reinterpret_cast<sockaddr_in6 *>(&v6);
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(80);
    inet_pton(AF_INET6, "2001:db8::1", &six->sin6_addr);
    local.ss_family = AF_UNIX;
    const strings names = {"fleet.example"};
    const std::tuple<const char *, sockaddr_storage *, bool> cases[] = {
        {"127.0.0.1:9816", &v4, true},
        {"localhost:9816", &v4, true},
        {"LocalHost:9816", &v4, true},
        {"127.0.0.1:9817", &v4, false},
        {"127.0.0.1", &v4, false},
        {"127.0.0.2:9816", &v4, false},
        {"evil.example:9816", &v4, false},
        {"", &v4, false},
        {":9816", &v4, false},
        {"127.0.0.1:9816x", &v4, false},
        {"127.0.0.1:99999999", &v4, false},
        {"fleet.example", &v4, true},
        {"Fleet.example:443", &v4, true},
        {"fleet.example.evil", &v4, false},
        {"[2001:db8::1]", &v6, true},
        {"[2001:db8:0::1]:80", &v6, true},
        {"[2001:db8::2]", &v6, false},
        {"localhost", &v6, false},
        {"[2001:db8::1", &v6, false},
        {"[", &v6, false},
        {"localhost", &local, true},
        {"other", &local, false},
    };
    for (const auto &[host, address, expected] : cases)
        EXPECT_EQ(is_host_allowed(host, *address, names), expected) << host;
}

TEST(exporter_http, places_are_counted_and_the_slow_and_the_oldest_idle_go)
{
    steady_time now{seconds(1000)};
    connection_table table;
    std::vector<std::array<int, 2>> pairs(crowded_connections + 2);
    std::vector<connection *> peers;
    auto is_ended = [&](size_t index) {
        char byte;
        return recv(pairs[index][1], &byte, 1, MSG_DONTWAIT) == 0;
    };
    for (auto &pair : pairs) {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
        peers.push_back(table.add(pair[0], now));
        if (peers.size() <= 65) {
            EXPECT_EQ(table.take_place(*peers.back(), place::stream, now), peers.size() <= 64);
        }
    }
    /* 0 to 63 are streams; the oldest two of the others had to go. */
    EXPECT_TRUE(is_ended(64) && is_ended(65));
    EXPECT_FALSE(is_ended(0) || is_ended(66));
    for (size_t i = 70; i <= 102; i++)
        EXPECT_TRUE(table.take_place(*peers[i], place::metrics, now + seconds(i)));
    EXPECT_TRUE(is_ended(70)); /* it gave way */
    EXPECT_FALSE(is_ended(71));
    EXPECT_EQ(table.taken(place::metrics), 32u);
    table.leave_place(*peers[70], now);
    EXPECT_EQ(table.taken(place::metrics), 32u); /* and is counted once */
    table.leave_place(*peers[0], now);
    EXPECT_TRUE(table.take_place(*peers[103], place::stream, now));
    peers[1]->is_waiting = true;
    now += patience - seconds(1);
    table.take_place(*peers[104], place::page, now);
    table.end_overdue(now);
    EXPECT_EQ(table.ended(), 3u);
    now += seconds(1);
    table.end_overdue(now);
    EXPECT_FALSE(is_ended(1) || is_ended(104) || is_ended(71));
    EXPECT_TRUE(is_ended(0) && is_ended(2) && is_ended(110));
    for (size_t i = 0; i < pairs.size(); i++) {
        table.remove(peers[i]);
        close(pairs[i][0]);
        close(pairs[i][1]);
    }
    EXPECT_EQ(table.taken(place::metrics) + table.taken(place::page) + table.size(), 0u);
}

TEST(exporter_http, only_files_of_the_page_are_served)
{
    char folder[] = "/tmp/exporter-web-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = folder;
    std::ofstream(path + "/index.html") << "page";
    std::ofstream(path + "/secret.txt") << "no";
    std::filesystem::create_directory(path + "/sub.js");
    const web_files files(path);
    std::ofstream(path + "/later.js") << "no";
    for (const char *asked : {"/secret.txt", "/sub.js", "/later.js", "/../index.html",
                              "//index.html", "/sub.js/../index.html", "/index.html/", "/%2e"})
        EXPECT_FALSE(files.open(asked)) << asked;
    const auto page = files.open("/");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->size, 4u);
    close(page->fd);
    EXPECT_TRUE(web_files("/nowhere").empty());
    std::filesystem::remove_all(folder);
}

TEST(exporter_journal, a_record_has_the_fields_of_its_event)
{
    const auto has = [](const strings &fields, const char *field) {
        return std::ranges::find(fields, field) != fields.end();
    };
    const event down{1, 0, change::down, status_of(3, 1, TESK_CLIENT_LEVEL_LOW_ALARM), "eth3"};
    {
        journal written;
        std::unique_lock lock(journal_mutex);
        written.write(down);
        ASSERT_TRUE(
            journal_written.wait_for(lock, seconds(20), [] { return !journal_record.empty(); }));
        for (const char *field :
             {"PRIORITY=4", "TESK_EVENT=status", "TESK_PORT=3", "TESK_STATE=not operational",
              "TESK_CHANGE=down", "TESK_INTERFACE=eth3", "TESK_GRADE_RX_POWER=low alarm"})
            EXPECT_TRUE(has(journal_record, field)) << field;
        journal_result = -1;
        journal_record.clear();
        written.write(down);
        ASSERT_TRUE(
            journal_written.wait_for(lock, seconds(20), [] { return !journal_record.empty(); }));
        lock.unlock();
        while (written.lost() == 0)
            std::this_thread::yield();
    }
    const strings inserted = journal_fields({1, 0, change::inserted, module_in(4, "X\n1"), ""});
    for (const char *field : {"PRIORITY=6", "TESK_SERIAL=X\\x0a1", "TESK_CHANGE=inserted"})
        EXPECT_TRUE(has(inserted, field)) << field;
    EXPECT_TRUE(has(journal_fields({1, 0, change::initial, server_change{false}, ""}),
                    "MESSAGE=tesk-server went away"));
}
