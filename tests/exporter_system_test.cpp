/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-exporter with the real server on the simulated board: valid and invalid HTTP requests. */
#include "testkit/processes/processes.h"
#include "testkit/texts.h"
#include "util/local_socket.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

using strings = std::vector<std::string>;
using steady_clock = std::chrono::steady_clock;
using testkit::contains;
using testkit::expect_none;
using testkit::expect_parts;

/* An HTTP connection, closed by the destructor. */
struct http_client {
    void send(const std::string &text) const
    {
        ::send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    void get(const std::string &path, const std::string &headers = "") const
    {
        send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n");
    }
    /* Reads until the text is received, or to the end. */
    std::string read_until(const std::string &text = "")
    {
        char part[65536];
        while (text.empty() || !contains(read, text)) {
            testkit::await(peer.get(), text.c_str());
            const ssize_t got = recv(peer.get(), part, sizeof(part), 0);
            if (got <= 0)
                break;
            read.append(part, static_cast<size_t>(got));
        }
        return read;
    }
    util::descriptor peer;
    std::string read = {};
};

struct exporter_system : testing::Test {
    testkit::directory directory;
    std::string socket_path = directory.path + "/http";
    std::string map_path = directory.path + "/ports";
    std::optional<testkit::server> server;
    pid_t exporter = -1;

    void start(const strings &options = {})
    {
        strings words = {TESK_BIN_DIR "/tesk-exporter", "--listen", "unix:" + socket_path,
                         "--interval", "0.2"};
        words.insert(words.end(), options.begin(), options.end());
        exporter = testkit::start(words, {"DOLM_RIC_PORT_MAP=" + map_path, "MBX_LOCATE_MS=1000"});
    }
    void start_with_server(const strings &options = {})
    {
        server.emplace();
        start(options);
        await("/readyz", "200 OK");
    }
    void TearDown() override
    {
        if (exporter == -1)
            return;
        kill(exporter, SIGTERM);
        EXPECT_EQ(testkit::wait_for_end(exporter), 0);
        EXPECT_NE(access(socket_path.c_str(), F_OK), 0);
    }
    http_client connect() const
    {
        return {util::connect_to(socket_path, SOCK_STREAM)};
    }
    http_client open_stream() const
    {
        http_client stream = connect();
        stream.get("/events");
        return stream;
    }
    std::string get(const std::string &path, const std::string &headers = "") const
    {
        http_client client = connect();
        client.get(path, "Connection: close\r\n" + headers);
        return client.peer.is_open() ? client.read_until() : "";
    }
    /* Repeats the request until the answer contains the text or, with `wanted` false, doesn't. */
    void await(const std::string &path, const std::string &text, bool wanted = true) const
    {
        const auto end = steady_clock::now() + testkit::deadline;
        std::string answer = get(path);
        for (; answer.empty() || contains(answer, text) != wanted; answer = get(path)) {
            ASSERT_LT(steady_clock::now(), end) << path << ": " << text << "\n" << answer;
            usleep(10'000);
        }
    }
};

TEST_F(exporter_system, a_pulled_module_is_in_the_stream_and_in_the_metrics)
{
    server.emplace(); /* the server writes its own map */
    std::ofstream(map_path) << "# tesk-ports 1\n0\teth0\n1\teth1\n";
    start({"--history", socket_path + ".history"});
    await("/readyz", "200 OK");
    http_client stream = open_stream();
    expect_parts(stream.read_until("\n\nid: "), {"text/event-stream", "\"serial\":\"EX10G0001\""});
    testkit::board("remove 0");
    expect_none(stream.read_until("\"change\":\"removed\"}"), {"inserted"});
    await("/metrics", "tesk_port_module_present{port=\"0\",interface=\"eth0\"} 0\n");
    await("/api/events?port=0", "\"change\":\"removed\"}");
    await("/api/modules", "\"present\":false");
    std::string modules, trend;
    EXPECT_EQ(testkit::run(TESK_BIN_DIR "/teskctl modules --exporter unix:" + socket_path, modules),
              0);
    expect_parts(modules, {" present\n", " gone\n"});
    EXPECT_EQ(testkit::run(TESK_BIN_DIR "/teskctl trend eth1 --json --exporter unix:" + socket_path,
                           trend),
              0);
    expect_parts(trend, {"\"port\":1,"});
    await("/api/plot?port=1&range=day", "]]");
    expect_parts(
        get("/metrics"),
        {"tesk_port_lane_receive_power_dbm{port=\"1\",interface=\"eth1\",lane=\"0\"} -3.77\n",
         "tesk_port_receive_power_limit_dbm{port=\"1\",interface=\"eth1\",limit=\"low_alarm\"} "
         "-15.23\n",
         "tesk_port_admin_up{port=\"1\",interface=\"eth1\"} 1\n"});
    for (const char *port : {"1", "eth1"})
        expect_parts(get(std::string("/api/ports/") + port), {"\"port\":1,", "\"lane_limits\":"});
    for (const char *port : {"2", "eth2", ""})
        expect_parts(get(std::string("/api/ports/") + port), {"404"});
    expect_parts(get("/metrics", "Accept: application/openmetrics-text\r\n"), {"\n# EOF\n"});
    /* A port is removed from the map. */
    std::ofstream(map_path + ".new") << "# tesk-ports 1\n0\teth0\n";
    rename((map_path + ".new").c_str(), map_path.c_str());
    await("/metrics", "port=\"1\"", false);
}

TEST_F(exporter_system, a_server_that_goes_is_said_at_once_and_one_that_comes_back_is_followed)
{
    start({"--ports", "12-15"}); /* without a module: no value is read */
    await("/metrics", "tesk_up 0\n");
    await("/readyz", "no process has");
    server.emplace();
    await("/readyz", "200 OK");
    http_client stream = open_stream();
    stream.read_until("\n\nid: ");
    kill(server->pid, SIGKILL);
    stream.read_until("\"event\":\"lost\"}");
    const std::string gone = get("/metrics");
    expect_parts(gone, {"tesk_up 0\n"});
    expect_none(gone, {"tesk_port_link_up{"});
    server.reset();
    server.emplace();
    stream.read_until("\"event\":\"restored\"}");
    await("/metrics", "tesk_connections_total 2\n");
    await("/readyz", "200 OK");
    expect_none(stream.read_until("\"port\":15"), {"inserted"});
    /* A stopped server delays no answer. */
    kill(server->pid, SIGSTOP);
    await("/healthz", "ok, but: tesk-server doesn't answer in time");
    await("/metrics", "tesk_up 0\n");
    kill(server->pid, SIGCONT);
    await("/metrics", "tesk_up 1\n");
}

TEST_F(exporter_system, a_laser_that_warms_up_is_graded_again)
{
    start_with_server({"--ports", "1"});
    testkit::board("set 1 temperature=90C");
    await("/metrics", "interface=\"port1\",measurement=\"temperature\",grade=\"high_alarm\"} 1\n");
    await("/metrics", "grade_refreshes_total{result=\"done\"} 1\n");
    await("/api/events?port=1", "\"change\":\"grades\"}");
}

TEST_F(exporter_system, bad_requests_get_their_status)
{
    start_with_server({"--host", "fleet.example"});
    const std::string host = "Host: localhost\r\n", end = "Connection: close\r\n\r\n";
    const std::pair<std::string, const char *> cases[] = {
        {"POST /metrics HTTP/1.1\r\n" + host + "Content-Length: 9\r\n" + end, " 405 "},
        {"DELETE / HTTP/1.1\r\n" + host + end, "Allow: GET, HEAD\r\n"},
        {"HEAD /metrics HTTP/1.1\r\n" + host + end, " 200 "},
        {"HEAD /events HTTP/1.1\r\n" + host + end, " 200 "},
        {"GET /metrics HTTP/1.1\r\nHost: fleet.example\r\n" + end, " 200 "},
        {"GET /metrics HTTP/1.1\r\nHost: evil.example\r\n" + end, " 421 "},
        {"GET /metrics HTTP/1.1\r\n" + host + "Host: evil.example\r\n" + end, " 421 "},
        {"GET /metrics HTTP/1.1\r\n" + end, " 400 "},
        {"GET /metrics HTTP/1.0\r\n" + end, " 421 "},
        {"\r\n\r\nnonsense\r\n\r\n", ""},
    };
    for (const auto &[request, expected] : cases) {
        SCOPED_TRACE(request.substr(0, 100));
        http_client client = connect();
        client.send(request);
        const std::string answer = client.read_until();
        expect_parts(answer, {expected});
        EXPECT_TRUE(!request.starts_with("HEAD") || answer.ends_with("\r\n\r\n")) << answer;
    }
    for (const char *path : {"/nothing", "/../../etc/passwd", "/api/events?port=99"})
        expect_parts(get(path), {" 404 "});
    for (const char *path : {"/api/plot?port=1x", "/api/plot", "/api/plot?port=1&range=year"})
        expect_parts(get(path), {" 400 "});
    const std::string longest(40'000, 'x');
    expect_parts(get("/" + longest), {" 414 "});
    expect_parts(get("/metrics", "X: " + longest + "\r\n"), {" 431 "});
    expect_parts(get("/metrics"), {"default-src 'none'; script-src 'self'"});
}

TEST_F(exporter_system, a_crowd_and_slow_readers_keep_nobody_from_the_metrics)
{
    rlimit files = {4096, 4096};
    setrlimit(RLIMIT_NOFILE, &files);
    start_with_server();
    get("/metrics");
    const long before = testkit::status_of(exporter, "VmRSS");
    std::vector<http_client> crowd;
    /* 64 readers that never read, and more readers, which find no place. */
    for (int i = 0; i < 64; i++) {
        crowd.push_back(open_stream());
        crowd.back().read_until("retry:");
    }
    expect_parts(get("/events"), {" 503 ", "Retry-After: "});
    for (int i = 0; i < 1000; i++) {
        crowd.push_back(connect());
        if (i % 3 == 0)
            crowd.back().get("/api/ports");
        else if (i % 3 == 1)
            crowd.back().send("GET /met");
    }
    for (int i = 0; i < 10; i++)
        expect_parts(get("/metrics"), {"tesk_up 1\n"});
    for (int i = 0; i < 50; i++) {
        testkit::board("set 0 link=down");
        testkit::board("set 0 link=up");
    }
    expect_parts(get("/metrics"), {"tesk_up 1\n"});
    EXPECT_LE(testkit::descriptors_of(exporter), 300u);
    const long most = testkit::sanitized ? 1 << 20 : 8192;
    EXPECT_LE(testkit::status_of(exporter, "VmRSS") - before, most);
    /* The places are free again once these readers have disconnected. */
    crowd.clear();
    await("/healthz", "ok");
    const auto deadline = steady_clock::now() + testkit::deadline;
    while (!contains(open_stream().read_until("\r\n"), " 200 "))
        ASSERT_LT(steady_clock::now(), deadline);
}

TEST(exporter_tool, wrong_usage_says_what_to_do)
{
    testkit::directory directory;
    std::ofstream(directory.path + "/file") << "kept";
    testkit::expect_runs(TESK_BIN_DIR "/tesk-exporter",
                         {{"--help", 0, "--no-refresh"},
                          {"--version", 0, "tesk-exporter 1."},
                          {"--interval 0", 2, "interval"},
                          {"--ports 3-1", 2, "a range goes upwards"},
                          {"extra", 2, "tesk-exporter: 'extra' is one word too many"},
                          {"--lsten ::1", 2,
                           "tesk-exporter: there is no option '--lsten': did you mean '--listen'?"},
                          {"--print-drop-in any", 2, "that others can reach"},
                          {"--listen [::]:80 --print-drop-in any,1.2.3.4/33", 2, "or networks"},
                          {"--listen [::]:80 --print-drop-in any", 0, "Allow=any\n"},
                          {"--listen 192.0.2.7:80 --print-drop-in 10.0.0.0/8,::1", 0,
                           "--listen 192.0.2.7:80\nIPAddressAllow=192.0.2.7 10.0.0.0/8 ::1\n"},
                          {"--listen 9816", 1, "write ADDRESS:PORT"},
                          {"--listen host.example:80", 1, "no numeric address"},
                          {"--listen 127.0.0.1:99999", 1, "no numeric address"},
                          {"--listen unix:", 1, "the path must have 1 to 107 bytes"},
                          {"--listen unix:" + directory.path + "/file", 1, "in use"}});
}
