/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-exporter without a server and without HTTP: the state that it derives from facts, and its
   output. The clock is the test's. */
#define SD_JOURNAL_SUPPRESS_LOCATION
#include "platform/dolm_ric/port_details.h"
#include "program/json_records.h"
#include "tesk_exporter/api.h"
#include "tesk_exporter/connections.h"
#include "tesk_exporter/event_stream.h"
#include "tesk_exporter/falls.h"
#include "tesk_exporter/host_check.h"
#include "tesk_exporter/journal.h"
#include "tesk_exporter/metrics.h"
#include "tesk_exporter/options.h"
#include "tesk_exporter/web_files.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"

#include <algorithm>
#include <arpa/inet.h>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/socket.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

using namespace exporter;
using strings = std::vector<std::string>;
using std::chrono::seconds;
using testkit::contains;
using testkit::expect_none;
using testkit::expect_parts;

static std::string lines_of(const strings &fields)
{
    std::string text = "\n";
    for (const std::string &field : fields)
        text += field + "\n";
    return text;
}

/* Replaces the system's function: stores each field in a line. */
static std::mutex journal_mutex;
static std::condition_variable journal_written;
static std::string journal_record;
static int journal_result = 0;
static constexpr int journal_full = 1;

int sd_journal_sendv(const iovec *fields, int count)
{
    std::unique_lock lock(journal_mutex);
    strings record;
    for (const iovec &field : std::span(fields, static_cast<size_t>(count)))
        record.emplace_back(static_cast<char *>(field.iov_base), field.iov_len);
    journal_record = lines_of(record);
    journal_written.notify_all();
    if (journal_result == journal_full) {
        lock.unlock();
        return pause(); /* blocks as with a full socket, until a signal is received */
    }
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
    pm.rx_power = rx_power;
    pm.temperature = temperature;
    pm.tx_power = 1000;
    pm.tx_bias = 3000;
    pm.voltage = 33000;
    pm.has_tx_power = pm.has_rx_power = pm.has_temperature = pm.has_voltage = pm.has_tx_bias = true;
    return pm;
}

struct exporter_board : testing::Test {
    event_ring events{4, "e"};
    model board{events};
    port_details details;
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
        return render_metrics(board, details, true, {}, format, now.steady);
    }
    /* The changes since `number`, as "PORT CHANGE". */
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

TEST(exporter, the_share_of_reading_is_what_the_totals_grew_by)
{
    port_details details;
    const steady_time start = steady_clock::now();
    EXPECT_FALSE(details.share_of_time({{1, 7'000'000'000}}, start));
    const auto share = [&](int after, const port_details::costs &totals) {
        return details.share_of_time(totals, start + std::chrono::seconds(after)).value_or(-1);
    };
    EXPECT_DOUBLE_EQ(share(10, {{1, 8'000'000'000}, {2, 5'000'000'000}}), 0.1) << "2 is new";
    EXPECT_DOUBLE_EQ(share(19, {{1, 9'000'000'000}}), 0.1) << "too early for another one";
    EXPECT_DOUBLE_EQ(share(20, {{1, 1000}, {2, 5'500'000'000}}), 0.05) << "1 began anew";
}

TEST(exporter_text, the_format_is_the_one_that_the_header_prefers)
{
    const std::string open = "application/openmetrics-text";
    for (const std::string &accept :
         {open, open + ",text/plain",
          open + ";version=1.0.0;q=0.5," + open +
              ";version=0.0.1;q=0.4,text/plain;version=0.0.4;q=0.3,*/*;q=0.2"})
        EXPECT_EQ(choose_format(accept), text_format::open_metrics) << accept;
    for (const char *accept : {"", "*/*", "text/html", ",;=,;"})
        EXPECT_EQ(choose_format(accept), text_format::prometheus) << accept;
    for (const char *more :
         {"; version=0.0.1", ";q=0.2, text/plain ; q=0.9", ";q=0", ";q=x,text/plain"})
        EXPECT_EQ(choose_format(open + more), text_format::prometheus) << more;
}

TEST(exporter_text, any_bytes_of_a_module_are_a_label)
{
    EXPECT_EQ(label_value("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
    tesk_client_sfp_info info = module_in(0, "ab\"\\\n\xff  ");
    std::memset(info.vendor_name, ' ', sizeof(info.vendor_name)); /* without a terminator */
    const std::string labels = module_labels(info);
    expect_parts(labels, {"serial=\"ab\\\"\\\\\\\\\\\\x0a\\\\xff\"", "vendor=\"\""});
}

TEST_F(exporter_board, metrics_have_their_units_and_no_series_of_what_is_unknown)
{
    bring_up();
    apply(module_in(7, ""));
    apply(reading_fact{values_of(0, 0)});
    pass(seconds(3));
    const std::string text = metrics();
    const auto expect_values = [&text](const std::string &labels, const char *names_and_values) {
        std::istringstream words(names_and_values);
        for (std::string name, value; words >> name >> value;)
            expect_parts(text, {"\ntesk_" + name + labels + " " + value + "\n"});
    };
    expect_values("", "up 1 ports 2 connections_total 1");
    expect_values("_bucket{le=\"0.00025\"}", "request_duration_seconds 0");
    expect_values("_bucket{le=\"0.0005\"}", "request_duration_seconds 1");
    expect_values("_bucket{le=\"+Inf\"}", "request_duration_seconds 1");
    expect_values(
        "{port=\"0\",interface=\"eth0\"}",
        "port_link_up 1 port_reading_age_seconds 3 port_temperature_celsius 40 "
        "port_voltage_volts 3.3 port_transmit_bias_amperes 0.03 port_receive_power_watts 0 "
        "port_transmit_power_watts 0.001 port_transmit_power_dbm 0");
    expect_values("{port=\"7\"}", "port_link_up 1 port_link_speed_bytes_per_second 1.25e+09 "
                                  "port_module_present 0 port_grade_age_seconds 3");
    expect_parts(text, {"serial=\"S1\"", "measurement=\"rx_power\",grade=\"ok\"} 1\n",
                        "measurement=\"rx_power\",grade=\"low_alarm\"} 0\n"});
    expect_none(text,
                {"receive_power_dbm{", "measurement=\"tec\"", "watts{port=\"7\"",
                 "grade{port=\"7\"", "module_info{port=\"7\"", "reading_age_seconds{port=\"7\""});
    const std::string open = metrics(text_format::open_metrics);
    expect_parts(open, {"\n# TYPE tesk_port_link_changes counter\n"});
    EXPECT_TRUE(open.ends_with("\n# EOF\n"));
}

TEST_F(exporter_board, details_give_series_of_what_is_there_and_has_a_name)
{
    const testkit::directory place;
    const std::string path = place.path + "/details";
    setenv("DOLM_RIC_DETAILS", path.c_str(), 1);
    board::port_details published;
    published.update(0, [](dolm_ric_details_record &its) {
        its.lane_count = its.vdm_count = 2;
        auto &power = its.lane[0].value[DOLM_RIC_RX_POWER];
        power.state = its.vdm[0].state = its.vdm[1].state = DOLM_RIC_VALUE_VALID;
        power.value = its.lane[1].value[DOLM_RIC_RX_POWER].value = 0.5; /* lane 1: not known */
        its.vdm[0].kind = DOLM_RIC_VDM_OTHER;
        its.vdm[1].kind = DOLM_RIC_VDM_SNR, its.vdm[1].side = DOLM_RIC_SIDE_MEDIA;
        its.vdm[1].value = 20;
        its.vdm[1].raised = 1u << DOLM_RIC_FLAG_LOW_ALARM;
        its.vdm[0].raised = DOLM_RIC_VDM_FLAGS_UNKNOWN;
        its.link.state = DOLM_RIC_VALUE_VALID;
        its.link.fec = DOLM_RIC_FEC_RS;
    });
    published.start(path);
    bring_up();
    const std::string text = metrics();
    expect_parts(text, {"lane_receive_power_dbm{port=\"0\",interface=\"eth0\",lane=\"0\"} -3.01\n",
                        "observable=\"snr\",side=\"media\",lane=\"0\"} 20\n",
                        "lane=\"0\",flag=\"low_alarm\"} 1\n",
                        "port_fec_info{port=\"0\",interface=\"eth0\",mode=\"rs\"} 1\n"});
    expect_none(text, {"receive_power_dbm{port=\"0\",interface=\"eth0\",lane=\"1\"}",
                       "observable=\"other\""});
    unsetenv("DOLM_RIC_DETAILS");
}

/* Each line is the file of port 0 at one moment, with the resulting events and the counter. */
TEST_F(exporter_board, recorded_falls_are_counted_once_and_announced)
{
    bring_up();
    const testkit::directory place;
    fall_follower follower(place.path);
    const std::string old = R"({"time": 5, "set_down": true})";
    const std::string dark = R"({"time": 20, "rx_before": [-3], "rx_after": [-40]})";
    const std::string ill = R"({"time": 20, "rx_before": [-3], "rx_after": [-40], "is_up": true,
 "rx_again": [-9]})";
    const std::string flapping = R"({"time": 30, "falls_in_minute": 3})";
    const auto line = [](std::string text) {
        std::erase(text, '\n');
        return text + "\n";
    };
    const struct {
        std::string file;
        const char *events, *metric;
    } steps[] = {
        {line(old), "", "tesk_port_up_but_ill{port=\"0\",interface=\"eth0\"} 0\n"},
        {line(old) + line(dark), "fall light lost; ",
         "tesk_port_up_but_ill{port=\"0\",interface=\"eth0\"} 0\n"},
        {"{", "", "tesk_port_up_but_ill{port=\"0\",interface=\"eth0\"} 0\n"},
        {line(old) + line(ill), "ill light lost; ",
         "tesk_port_up_but_ill{port=\"0\",interface=\"eth0\"} 1\n"},
        {"{\n" + line(old) + line(ill), "", "cause=\"light_lost\"} 1\n"},
        {line(ill), "", "cause=\"light_lost\"} 1\n"},
        {line(dark) + line(flapping), "fall flapping; ",
         "tesk_port_up_but_ill{port=\"0\",interface=\"eth0\"} 0\n"},
    };
    const auto one_time = std::filesystem::file_time_type::clock::now();
    const auto replace = [&](const char *port, const std::string &text) {
        std::ofstream(place.path + "/new") << text;
        std::filesystem::last_write_time(place.path + "/new",
                                         one_time); /* only the inode has changed */
        std::filesystem::rename(place.path + "/new", place.path + port);
    };
    std::chrono::steady_clock::time_point at = {};
    for (const auto &its : steps) {
        replace("/0", its.file);
        const uint64_t before = events.next();
        for (const fall_fact &each : follower.scan(at += seconds(5)))
            apply(each);
        std::string told;
        for (uint64_t number = before; number < events.next(); number++) {
            const auto object = json_object::parse(events.line(number));
            told += (object["ill"].empty() ? "fall " : "ill ") +
                    object["cause"].get<std::string>() + "; ";
        }
        EXPECT_EQ(told, its.events) << its.file;
        expect_parts(metrics(), {its.metric});
    }
    std::ofstream(place.path + "/7") << line(old) << line(dark);
    EXPECT_EQ(follower.scan(at += seconds(5)).size(), 3U) << "one of them is counted at once";
    expect_parts(falls_json(place.path, 0, 1), {"\"flapping\"", "\"falls_in_minute\":3.0"});
    expect_parts(lines_of(journal_fields(events.at(events.next() - 2))),
                 {"\nMESSAGE=port 0 (eth0): link is up, but ill: It receives -9.0 dBm",
                  "\nPRIORITY=4\n", "\nTESK_CAUSE=light lost\n"});
    replace("/1", line(flapping));
    for (const fall_fact &each : follower.scan(at))
        apply(each);
    EXPECT_EQ(json_object::parse(board.falls().json(32))["falls"].size(), 4U)
        << "two ports fell at one time";
}

/* The link came back with 6 dB less light and many errors. */
TEST_F(exporter_board, a_link_is_ill_until_it_is_well_or_nobody_has_measured_it_for_an_hour)
{
    const testkit::directory place;
    setenv("DOLM_RIC_DETAILS", (place.path + "/details").c_str(), 1);
    board::port_details published;
    published.start(place.path + "/details");
    bring_up();
    auto fall = std::make_shared<recorded_fall>();
    fall->seen.is_up = true;
    fall->seen.rx_before = std::vector{-3.0};
    fall->seen.rx_again = std::vector{-9.0};
    fall->seen.errors_limit = fall->seen.errors_again = 1e-4;
    fall->its = causes::judge(fall->seen);
    apply(fall);
    auto next = std::make_shared<recorded_fall>();
    next->seen.time = 2;
    const auto is_shown = [&] {
        return contains(metrics(), "ill{port=\"0\",interface=\"eth0\"} 1\n");
    };
    const struct {
        double power, errors; /* 0: not measured */
        int minutes;          /* since the previous step */
        bool is_ill;
    } steps[] = {{0, 0, 59, true},     {0.45, 0, 0, true},    {0.45, 1e-9, 0, false},
                 {0.1, 1e-9, 0, true}, {0.45, 1e-5, 0, true}, {0, 0, 2, false},
                 {0.1, 0, 0, true}};
    for (const auto &its : steps) {
        pass(std::chrono::minutes{its.minutes});
        published.update(0, [&](dolm_ric_details_record &record) {
            const auto state = [](double value) {
                return value > 0 ? DOLM_RIC_VALUE_VALID : DOLM_RIC_VALUE_NO_ANSWER;
            };
            record.lane_count = record.own_lanes = record.vdm_count = 1;
            record.lane[0].value[DOLM_RIC_RX_POWER].state = state(its.power);
            record.lane[0].value[DOLM_RIC_RX_POWER].value = its.power;
            record.vdm[0].kind = DOLM_RIC_VDM_PRE_FEC_BER_CURRENT;
            record.vdm[0].side = DOLM_RIC_SIDE_MEDIA;
            record.vdm[0].state = state(its.errors);
            record.vdm[0].value = its.errors;
        });
        published.flush();
        EXPECT_EQ(is_shown(), its.is_ill) << its.power << ", " << its.errors;
    }
    apply(next);
    EXPECT_TRUE(is_shown()) << "it has fallen once more, and has as little light as before";
    unsetenv("DOLM_RIC_DETAILS");
}

TEST_F(exporter_board, series_end_with_their_port_and_with_the_server)
{
    bring_up();
    apply(ports_fact{{{0, "eth0"}}});
    apply(status_of(7, TESK_CLIENT_LINK_OPERATIONAL)); /* was in the queue */
    EXPECT_FALSE(contains(metrics(), "port=\"7\""));
    apply(connection_fact{false, "nobody answers\x1b"});
    const std::string text = metrics();
    expect_parts(text, {"tesk_up 0\n", "tesk_port_link_changes_total{"});
    expect_none(text, {"tesk_port_link_up{"});
    EXPECT_EQ(board.trouble(), "nobody answers\\x1b");
    apply(connection_fact{true, ""});
    apply(request_fact{TESK_CLIENT_REJECTED, {}});
    EXPECT_TRUE(board.is_up()) << "a refusal is an answer";
    apply(request_fact{TESK_CLIENT_TIMEOUT, {}});
    EXPECT_FALSE(board.is_up());
    apply(gone_fact{0});
    EXPECT_FALSE(contains(metrics(), "port=\"0\""));
}

TEST_F(exporter_board, what_is_found_after_a_connection_is_initial_and_only_a_change_is_an_event)
{
    const std::pair<fact, const char *> steps[] = {
        {connection_fact{true, ""}, ""},
        {ports_fact{{{0, ""}}}, ""},
        {module_in(0, "A"), "0 initial; "},
        {module_in(0, "A"), ""},
        {module_in(0, ""), "0 removed; "},
        {module_in(0, "B"), "0 inserted; "},
        {module_in(0, "C"), "0 replaced; "},
        {status_of(0, TESK_CLIENT_LINK_OPERATIONAL), "0 initial; "},
        {status_of(0, TESK_CLIENT_LINK_NOT_OPERATIONAL), "0 down; "},
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
    for (const auto &step : steps) {
        const uint64_t number = events.next();
        apply(step.first);
        EXPECT_EQ(changes(number), step.second) << "step " << &step - steps;
    }
    EXPECT_EQ(board.ports().at(0).link_changes, 2u);
    EXPECT_EQ(board.connections, 2u);
}

/* From the server's indication, the history of presence, and a read of the values. */
TEST_F(exporter_board, an_empty_port_and_a_module_that_is_not_ready_have_their_own_words)
{
    const auto pm = reading_fact{values_of(0, 500)};
    const unread_fact refused{0, true, "not available"}, late{0, false, "no answer"},
        busy{0, true, "resource busy", true};
    const fact not_ready = presence_fact{0, TESK_CLIENT_PRESENCE_NOT_READY},
               ready = presence_fact{0, TESK_CLIENT_PRESENCE_READY},
               none = presence_fact{0, TESK_CLIENT_PRESENCE_NONE};
    const struct {
        fact happened;
        const char *change, *present, *ready, *celsius; /* null: there is no series */
    } steps[] = {
        {module_in(0, ""), "0 initial; ", "0", nullptr, nullptr},
        {refused, "", "0", nullptr, nullptr},
        {not_ready, "0 not ready; ", "1", "0", nullptr},
        {refused, "", "1", "0", nullptr},
        {ready, "", "1", "0", nullptr}, /* the module's memory can't be read */
        {module_in(0, "A"), "0 inserted; ", "1", "1", nullptr},
        {pm, "", "1", "1", "40"},
        {late, "", "1", "1", "40"}, /* the age of earlier values is shown */
        {refused, "", "1", "1", nullptr},
        {pm, "", "1", "1", "40"},
        {not_ready, "0 not ready; ", "1", "0", nullptr},
        {pm, "", "1", "0", nullptr},
        {none, "0 removed; ", "0", nullptr, nullptr},
        {module_in(0, ""), "", "0", nullptr, nullptr},
        {pm, "0 initial; ", "1", "0", nullptr}, /* values, although the module isn't ready */
        {refused, "0 initial; ", "0", nullptr, nullptr},
        {busy, "0 initial; ", "1", "0", nullptr},
        {refused, "0 initial; ", "0", nullptr, nullptr},
        {not_ready, "0 not ready; ", "1", "0", nullptr},
        {connection_fact{false, ""}, "server initial; ", nullptr, nullptr, nullptr},
        {connection_fact{true, ""}, "server initial; ", "1", "0", nullptr},
        {module_in(0, ""), "0 initial; ", "0", nullptr, nullptr}, /* a new server, a new history */
    };
    apply(connection_fact{true, ""});
    apply(ports_fact{{{0, ""}}});
    for (const auto &step : steps) {
        const uint64_t number = events.next();
        apply(step.happened);
        EXPECT_EQ(changes(number), step.change) << "step " << &step - steps;
        const std::string text = metrics();
        for (const auto &[name, value] :
             {std::pair{"module_present", step.present}, std::pair{"module_ready", step.ready},
              std::pair{"temperature_celsius", step.celsius}}) {
            const std::string series = std::string("\ntesk_port_") + name + "{port=\"0\"} ";
            EXPECT_TRUE(value ? contains(text, series + value + "\n") : !contains(text, series))
                << "step " << &step - steps << " " << series;
        }
    }
    apply(late);
    apply(module_in(0, "A"));
    EXPECT_EQ(board.ports().at(0).unread, "") << "of the former module";
    apply(pm);
    pass(seconds(56)); /* three intervals and ten seconds */
    expect_parts(metrics(), {"reading_age_seconds{port=\"0\"} 56\n"});
    expect_none(metrics(), {"celsius{", "signal_lost{"});
    apply(request_fact{TESK_CLIENT_TIMEOUT, {}, false}); /* a server that doesn't respond */
    expect_none(metrics(), {"module_present{"});
    apply(request_fact{TESK_CLIENT_OK, {}, false});
    expect_parts(metrics(), {"module_present{", "tesk_up 1"});
}

TEST_F(exporter_board, grades_are_refreshed_the_oldest_first_at_the_allowed_pace)
{
    bring_up();
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt);
    pass(seconds(1));
    apply(status_of(0, TESK_CLIENT_LINK_OPERATIONAL)); /* graded after port 7 */
    apply(reading_fact{values_of(0, 500)});
    auto warm_up = [this](int32_t temperature) {
        for (const uint32_t port : {0u, 7u})
            apply(reading_fact{values_of(port, 500, temperature)});
    };
    warm_up(500);
    EXPECT_EQ(board.choose_refresh(now.steady), 7u);
    pass(seconds(6));
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* a refresh is in progress */
    apply(grades_fact{7, true, status_of(7, TESK_CLIENT_LINK_OPERATIONAL, 3)});
    EXPECT_EQ(board.ports().at(7).status->level[TESK_CLIENT_RX_POWER], 3u);
    EXPECT_EQ(board.ports().at(7).graded_at, now.steady);
    EXPECT_EQ(board.choose_refresh(now.steady), 0u);
    apply(grades_fact{0, false, {}});
    warm_up(600); /* the values of both ports have moved */
    pass(seconds(4));
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* too soon after the last refresh */
    pass(seconds(49));
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* too soon for either port */
    pass(seconds(1));
    EXPECT_EQ(board.choose_refresh(now.steady), 7u);
    apply(grades_fact{7, true, status_of(7, TESK_CLIENT_LINK_OPERATIONAL)});
    pass(seconds(60));
    apply(module_in(0, "")); /* no module to grade */
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt);
    warm_up(700);
    EXPECT_EQ(board.choose_refresh(now.steady), 7u);
    apply(gone_fact{7});
    apply(grades_fact{7, false, {}});
    pass(seconds(6));
    apply(module_in(0, "S"));
    for (const int32_t temperature : {400, 700})
        apply(reading_fact{values_of(0, 500, temperature)});
    EXPECT_EQ(board.choose_refresh(now.steady), 0u) << "the refresh of the other port is over";
    apply(grades_fact{0, false, {}});
    pass(seconds(60));
    apply(request_fact{TESK_CLIENT_TIMEOUT, {}});
    EXPECT_EQ(board.choose_refresh(now.steady), std::nullopt); /* the last request has failed */
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
    const std::pair<const char *, uint64_t> next[] = {{"e1-6", 7}, {"e1-5", 6}, {"e1-2", 3}};
    for (const auto &[id, expected] : next)
        EXPECT_EQ(ring.after(id), expected) << id;
    for (const char *id :
         {"e1-1", "e1-7", "e2-5", "", "e1-", "e1-5x", "e1--5", "5", "e1-99999999999999999999"})
        EXPECT_EQ(ring.after(id), std::nullopt) << id;
}

TEST_F(exporter_board, a_stream_gives_state_then_changes_and_says_where_it_has_a_gap)
{
    bring_up();
    event_stream fresh(events, board, "");
    std::string text = all_of(fresh);
    EXPECT_TRUE(text.starts_with("retry: 2000\n\ndata: {\"time\":")) << text;
    expect_none(text, {"missed", "inserted"});
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
    expect_parts(all_of(from_another), {"\"event\":\"missed\"}", "\"port\":0,"});

    for (uint32_t i = 0; i < 5; i++) /* more than the ring holds */
        apply(status_of(0, 1 + i % 2));
    apply(connection_fact{false, ""});
    text = all_of(fresh);
    expect_parts(text, {"\"event\":\"missed\"}", "\"event\":\"lost\"}"});
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
    EXPECT_EQ(kept.hour(start, 0)[plotted_temperature], plots::absent);
    kept.add(values_of(0, 1000, 100), start);
    kept.add(values_of(0, 500, 300), start + 14);
    kept.add(values_of(0, 0, -50), start + 45);
    const std::tuple<uint64_t, size_t, int16_t> hours[] = {
        {start + 45, 0, -50},     {start + 45, 1, plots::absent},     {start + 45, 3, 300},
        {start + 59, 0, -50},     {start + 60, 0, plots::absent},     {start + 60, 1, -50},
        {start + 3599, 239, 300}, {start + 3600, 239, plots::absent},
    };
    for (const auto &[time, age, expected] : hours)
        EXPECT_EQ(kept.hour(time, age)[plotted_temperature], expected) << time << " " << age;
    EXPECT_EQ(kept.hour(start + 45, 0)[plotted_rx_power], plots::absent); /* no light */
    EXPECT_EQ(kept.hour(start + 45, 3)[plotted_rx_power], -301);
    const plots::range day = kept.day(start + 86'399, 143);
    EXPECT_EQ(day.least[plotted_temperature], -50);
    EXPECT_EQ(day.greatest[plotted_temperature], 300);
    EXPECT_EQ(day.greatest[plotted_rx_power], 0);
    kept.add(values_of(0, 1, 1), start + 86'400);
    EXPECT_EQ(kept.day(start + 86'400, 143).least[plotted_temperature], plots::absent);
    EXPECT_EQ(kept.day(start + 86'400, 0).least[plotted_temperature], 1);
    EXPECT_EQ(kept.hour(start + 86'400, 237)[plotted_temperature], plots::absent);
    plots other;
    for (const uint64_t time : {start, start + 7185})
        other.add(values_of(0, 1000, 100), time);
    EXPECT_EQ(other.hour(start + 7185, 239)[plotted_temperature], plots::absent);
    EXPECT_EQ(plots::in_unit(plotted_voltage, kept.hour(start + 86'400, 0)[plotted_voltage]), 3.3);
}

TEST_F(exporter_board, objects_are_valid_whatever_is_absent)
{
    apply(connection_fact{true, ""});
    apply(ports_fact{{{0, "a\\\\b"}, {7, ""}}});
    apply(module_in(0, "\"\xff"));
    apply(status_of(7, 2));
    apply(reading_fact{values_of(7, 0)});
    const forecast_sample ahead[] = {{7, 1, "rx_uw", 3.14}, {7, 0, "temperature_c", 9}};
    const auto object =
        json_object::parse(ports_json(board, events, std::chrono::milliseconds(1500), ahead, now));
    EXPECT_EQ(object["ports"][1]["forecast_days"], 3.1);
    EXPECT_TRUE(object["ports"][0]["forecast_days"].is_null());
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
    *reinterpret_cast<sockaddr_in *>(&v4) = {.sin_family = AF_INET,
                                             .sin_port = htons(9816),
                                             .sin_addr = {htonl(INADDR_LOOPBACK)},
                                             .sin_zero = {}};
    auto *six = reinterpret_cast<sockaddr_in6 *>(&v6);
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(80);
    inet_pton(AF_INET6, "2001:db8::1", &six->sin6_addr);
    local.ss_family = AF_UNIX;
    const strings names = {"fleet.example"};
    const struct {
        const sockaddr_storage &at;
        strings ours, others;
    } cases[] = {{v4,
                  {"127.0.0.1:9816", "localhost:9816", "LocalHost:9816", "fleet.example",
                   "Fleet.example:443"},
                  {"127.0.0.1:9817", "127.0.0.1", "127.0.0.2:9816", "evil.example:9816", "",
                   ":9816", "127.0.0.1:9816x", "127.0.0.1:99999999", "fleet.example.evil"}},
                 {v6,
                  {"[2001:db8::1]", "[2001:db8:0::1]:80"},
                  {"[2001:db8::2]", "localhost", "[2001:db8::1", "["}},
                 {local, {"localhost"}, {"other"}}};
    for (const auto &[at, ours, others] : cases) {
        for (const std::string &host : ours)
            EXPECT_TRUE(is_host_allowed(host, at, names)) << host;
        for (const std::string &host : others)
            EXPECT_FALSE(is_host_allowed(host, at, names)) << host;
    }
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
    /* 0 to 63 are streams; of the other connections the two oldest were ended. */
    EXPECT_TRUE(is_ended(64) && is_ended(65));
    EXPECT_FALSE(is_ended(0) || is_ended(66));
    for (size_t i = 70; i <= 102; i++)
        EXPECT_TRUE(table.take_place(*peers[i], place::metrics, now + seconds(i)));
    EXPECT_TRUE(is_ended(70)); /* it was ended to make room */
    EXPECT_FALSE(is_ended(71));
    EXPECT_EQ(table.taken(place::metrics), 32u);
    table.leave_place(*peers[70], now);
    EXPECT_EQ(table.taken(place::metrics), 32u); /* a second call doesn't count twice */
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
    EXPECT_TRUE(is_ended(2) && is_ended(110));
    EXPECT_FALSE(is_ended(0)); /* it was answered, like a scrape that keeps its connection */
    now += idle_patience;
    table.end_overdue(now);
    EXPECT_TRUE(is_ended(0));
    EXPECT_LT(table.ended(), crowded_connections + 2); /* connection 0 isn't counted */
    for (size_t i = 0; i < pairs.size(); i++) {
        table.remove(peers[i]);
        close(pairs[i][0]);
        close(pairs[i][1]);
    }
    EXPECT_EQ(table.taken(place::metrics) + table.taken(place::page) + table.size(), 0u);
}

TEST(exporter_http, only_files_of_the_page_are_served)
{
    const testkit::directory folder;
    const std::string &path = folder.path;
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
    EXPECT_TRUE(web_files("/nowhere").empty());
}

TEST(exporter_journal, a_record_has_the_fields_of_its_event)
{
    const event down{1, 0, change::down, status_of(3, 1, TESK_CLIENT_LEVEL_LOW_ALARM), "eth3"};
    journal written;
    for (const int result : {0, -1}) {
        std::unique_lock lock(journal_mutex);
        journal_result = result;
        journal_record.clear();
        written.write(down);
        ASSERT_TRUE(
            journal_written.wait_for(lock, seconds(20), [] { return !journal_record.empty(); }));
        expect_parts(journal_record,
                     {"\nPRIORITY=4\n", "\nTESK_EVENT=status\n", "\nTESK_PORT=3\n",
                      "\nTESK_STATE=not operational\n", "\nTESK_CHANGE=down\n",
                      "\nTESK_INTERFACE=eth3\n", "\nTESK_GRADE_RX_POWER=low alarm\n"});
    }
    while (written.lost() == 0)
        std::this_thread::yield();
    for (const event &bad :
         {event{1, 0, change::down, status_of(3, 1), ""},
          event{1, 0, change::removed, module_in(3, ""), ""},
          event{1, 0, change::grades, status_of(3, 2, TESK_CLIENT_LEVEL_HIGH_ALARM), ""}})
        expect_parts(lines_of(journal_fields(bad)), {"\nPRIORITY=4\n"});
    {
        journal stuck; /* its destructor doesn't wait for the journal */
        std::unique_lock lock(journal_mutex);
        journal_result = journal_full;
        journal_record.clear();
        stuck.write(down);
        ASSERT_TRUE(
            journal_written.wait_for(lock, seconds(20), [] { return !journal_record.empty(); }));
    }
    const event inserted{1, 0, change::inserted, module_in(4, "X\n1"), ""};
    expect_parts(lines_of(journal_fields(inserted)),
                 {"\nPRIORITY=6\n", "\nTESK_SERIAL=X\\x0a1\n", "\nTESK_CHANGE=inserted\n"});
    const event gone{1, 0, change::initial, server_change{false}, ""};
    expect_parts(lines_of(journal_fields(gone)), {"\nMESSAGE=tesk-server went away\n"});
}
