/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-exporter against the real server on the simulated board, asked by HTTP as others would, well
   and badly. */
#include "testkit/processes/processes.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using strings = std::vector<std::string>;
using steady_clock = std::chrono::steady_clock;

/* A connection by HTTP, closed at its end. */
class http_client
{
  public:
    explicit http_client(const std::string &path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        connected = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }
    ~http_client()
    {
        close(fd_);
    }
    http_client(const http_client &) = delete;
    http_client &operator=(const http_client &) = delete;

    void send(const std::string &text) const
    {
        ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
    }
    void get(const std::string &path, const std::string &headers = "Connection: close\r\n") const
    {
        send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n");
    }
    /* Reads on until the text has come, or all of it where that is empty. */
    std::string read_until(const std::string &text)
    {
        const auto end = steady_clock::now() + testkit::deadline;
        char part[65536];
        while (text.empty() || read_.find(text) == std::string::npos) {
            pollfd polled{fd_, POLLIN, 0};
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now());
            if (left.count() <= 0 || poll(&polled, 1, static_cast<int>(left.count())) <= 0)
                throw std::runtime_error("no \"" + text + "\" in " + read_);
            const ssize_t got = recv(fd_, part, sizeof(part), 0);
            if (got <= 0)
                return read_;
            read_.append(part, static_cast<size_t>(got));
        }
        return read_;
    }
    bool connected = false;

  private:
    int fd_;
    std::string read_;
};

class exporter_system : public testing::Test
{
  protected:
    testkit::directory directory;
    std::string socket_path = directory.path + "/http";
    std::string map_path = directory.path + "/ports";
    std::optional<testkit::server> server;
    pid_t exporter = -1;

    void start(const strings &options = {})
    {
        setenv("DOLM_RIC_PORT_MAP", map_path.c_str(), 1);
        setenv("MBX_LOCATE_MS", "1000", 1);
        strings words = {TESK_BIN_DIR "/tesk-exporter", "--listen", "unix:" + socket_path,
                         "--interval", "0.2"};
        words.insert(words.end(), options.begin(), options.end());
        exporter = testkit::start(words);
    }
    void TearDown() override
    {
        if (exporter != -1) {
            kill(exporter, SIGTERM);
            EXPECT_EQ(testkit::wait_for_end(exporter), 0);
            EXPECT_NE(access(socket_path.c_str(), F_OK), 0);
        }
    }
    std::string get(const std::string &path, const std::string &headers = "")
    {
        http_client client(socket_path);
        client.get(path, "Connection: close\r\n" + headers);
        return client.connected ? client.read_until("") : "";
    }
    /* Asks until the answer has the text, or, with `wanted` false, hasn't. */
    bool await(const std::string &path, const std::string &text, bool wanted = true)
    {
        const auto end = steady_clock::now() + testkit::deadline;
        std::string answer;
        do {
            answer = get(path);
            if (!answer.empty() && (answer.find(text) != std::string::npos) == wanted)
                return true;
            usleep(10'000);
        } while (steady_clock::now() < end);
        ADD_FAILURE() << path << ": " << text << "\n" << answer;
        return false;
    }
};

TEST_F(exporter_system, a_pulled_module_is_in_the_stream_and_in_the_metrics)
{
    server.emplace();
    std::ofstream(map_path) << "# tesk-ports 1\n0\teth0\n1\teth1\n";
    start();
    ASSERT_TRUE(await("/readyz", "200 OK"));
    http_client stream(socket_path);
    stream.get("/events", "");
    const std::string state = stream.read_until("\n\nid: ");
    EXPECT_NE(state.find("text/event-stream"), std::string::npos);
    EXPECT_NE(state.find("\"serial\":\"EX10G0001\""), std::string::npos);
    testkit::board("remove 0");
    const std::string seen = stream.read_until("\"change\":\"removed\"}");
    EXPECT_EQ(seen.find("inserted"), std::string::npos);
    EXPECT_TRUE(await("/metrics", "tesk_port_module_present{port=\"0\",interface=\"eth0\"} 0\n"));
    EXPECT_TRUE(await("/api/events?port=0", "\"change\":\"removed\"}"));
    EXPECT_TRUE(await("/api/plot?port=1&range=day", "]]"));
    EXPECT_NE(get("/metrics", "Accept: application/openmetrics-text\r\n").find("\n# EOF\n"),
              std::string::npos);
    /* A port leaves the map. */
    std::ofstream(map_path + ".new") << "# tesk-ports 1\n0\teth0\n";
    rename((map_path + ".new").c_str(), map_path.c_str());
    EXPECT_TRUE(await("/metrics", "port=\"1\"", false));
}

TEST_F(exporter_system, a_server_that_goes_is_said_at_once_and_one_that_comes_back_is_followed)
{
    start();
    ASSERT_TRUE(await("/metrics", "tesk_up 0\n"));
    EXPECT_TRUE(await("/readyz", "nobody answers"));
    server.emplace();
    ASSERT_TRUE(await("/readyz", "200 OK"));
    http_client stream(socket_path);
    stream.get("/events", "");
    stream.read_until("\n\nid: ");
    kill(server->pid, SIGKILL);
    stream.read_until("\"event\":\"lost\"}");
    const std::string gone = get("/metrics");
    EXPECT_NE(gone.find("tesk_up 0\n"), std::string::npos);
    EXPECT_EQ(gone.find("tesk_port_link_up{"), std::string::npos);
    server.reset();
    server.emplace();
    const std::string back = stream.read_until("\"event\":\"restored\"}");
    EXPECT_TRUE(await("/metrics", "tesk_connections_total 2\n"));
    ASSERT_TRUE(await("/readyz", "200 OK"));
    EXPECT_EQ(stream.read_until("\"port\":15").find("inserted"), std::string::npos);
    /* One that doesn't move holds up nobody. */
    kill(server->pid, SIGSTOP);
    EXPECT_TRUE(await("/healthz", "ok, but: tesk-server doesn't answer in time"));
    EXPECT_TRUE(await("/metrics", "tesk_up 0\n"));
    kill(server->pid, SIGCONT);
    EXPECT_TRUE(await("/metrics", "tesk_up 1\n"));
}

TEST_F(exporter_system, a_laser_that_warms_up_is_graded_again)
{
    server.emplace();
    start({"--ports", "1"});
    ASSERT_TRUE(await("/readyz", "200 OK"));
    testkit::board("set 1 temperature=90C");
    EXPECT_TRUE(await(
        "/metrics",
        "{port=\"1\",interface=\"port1\",measurement=\"temperature\",grade=\"high_alarm\"} 1\n"));
    EXPECT_TRUE(await("/metrics", "grade_refreshes_total{result=\"done\"} 1\n"));
    EXPECT_TRUE(await("/api/events?port=1", "\"change\":\"grades\"}"));
}

TEST_F(exporter_system, bad_requests_get_their_status)
{
    server.emplace();
    start({"--host", "fleet.example"});
    ASSERT_TRUE(await("/readyz", "200 OK"));
    const std::string host = "Host: localhost\r\n", end = "Connection: close\r\n\r\n";
    const std::pair<std::string, const char *> cases[] = {
        {"GET /nothing HTTP/1.1\r\n" + host + end, " 404 "},
        {"GET /../../etc/passwd HTTP/1.1\r\n" + host + end, " 404 "},
        {"POST /metrics HTTP/1.1\r\n" + host + "Content-Length: 9\r\n" + end, " 405 "},
        {"DELETE / HTTP/1.1\r\n" + host + end, "Allow: GET, HEAD\r\n"},
        {"HEAD /metrics HTTP/1.1\r\n" + host + end, " 200 "},
        {"HEAD /events HTTP/1.1\r\n" + host + end, " 200 "},
        {"GET /metrics HTTP/1.1\r\nHost: fleet.example\r\n" + end, " 200 "},
        {"GET /metrics HTTP/1.1\r\nHost: evil.example\r\n" + end, " 421 "},
        {"GET /metrics HTTP/1.1\r\n" + host + "Host: evil.example\r\n" + end, " 421 "},
        {"GET /metrics HTTP/1.1\r\n" + end, " 400 "},
        {"GET /metrics HTTP/1.0\r\n" + end, " 421 "},
        {"GET /api/plot?port=1x HTTP/1.1\r\n" + host + end, " 400 "},
        {"GET /api/plot HTTP/1.1\r\n" + host + end, " 400 "},
        {"GET /api/plot?port=1&range=year HTTP/1.1\r\n" + host + end, " 400 "},
        {"GET /api/events?port=99 HTTP/1.1\r\n" + host + end, " 404 "},
        {"GET /metrics HTTP/1.1\r\n" + host + "X: " + std::string(40'000, 'x') + "\r\n" + end,
         " 431 "},
        {"GET /" + std::string(40'000, 'x') + " HTTP/1.1\r\n" + host + end, " 414 "},
        {"\r\n\r\nnonsense\r\n\r\n", ""},
    };
    for (const auto &[request, expected] : cases) {
        http_client client(socket_path);
        client.send(request);
        const std::string answer = client.read_until("");
        EXPECT_NE(answer.find(expected), std::string::npos) << request.substr(0, 100) << "\n"
                                                            << answer.substr(0, 300);
        EXPECT_TRUE(!request.starts_with("HEAD") || answer.ends_with("\r\n\r\n")) << answer;
    }
    EXPECT_NE(get("/metrics").find("default-src 'none'; script-src 'self'"), std::string::npos);
}

TEST_F(exporter_system, a_crowd_and_slow_readers_keep_nobody_from_the_metrics)
{
    rlimit files = {4096, 4096};
    setrlimit(RLIMIT_NOFILE, &files);
    server.emplace();
    start();
    ASSERT_TRUE(await("/readyz", "200 OK"));
    get("/metrics");
    const long before = testkit::status_of(exporter, "VmRSS");
    std::vector<std::unique_ptr<http_client>> crowd;
    /* 64 readers that never read, and those for whom there is no place. */
    for (int i = 0; i < 64; i++) {
        crowd.push_back(std::make_unique<http_client>(socket_path));
        crowd.back()->get("/events", "");
        crowd.back()->read_until("retry:");
    }
    const std::string refused = get("/events");
    EXPECT_NE(refused.find(" 503 "), std::string::npos);
    EXPECT_NE(refused.find("Retry-After: "), std::string::npos);
    for (int i = 0; i < 1000; i++) {
        crowd.push_back(std::make_unique<http_client>(socket_path));
        if (i % 3 == 0)
            crowd.back()->get("/api/ports", "");
        else if (i % 3 == 1)
            crowd.back()->send("GET /met");
    }
    for (int i = 0; i < 10; i++)
        EXPECT_NE(get("/metrics").find("tesk_up 1\n"), std::string::npos);
    for (int i = 0; i < 50; i++) {
        testkit::board("set 0 link=down");
        testkit::board("set 0 link=up");
    }
    EXPECT_NE(get("/metrics").find("tesk_up 1\n"), std::string::npos);
    EXPECT_LE(testkit::descriptors_of(exporter), 300u);
    const long most = testkit::sanitized ? 1 << 20 : 8192;
    EXPECT_LE(testkit::status_of(exporter, "VmRSS") - before, most);
    /* Their places are found again once they have gone. */
    crowd.clear();
    EXPECT_TRUE(await("/healthz", "ok"));
    const auto deadline = steady_clock::now() + testkit::deadline;
    std::string first;
    do {
        http_client stream(socket_path);
        stream.get("/events", "");
        first = stream.read_until("\r\n");
    } while (first.find(" 200 ") == std::string::npos && steady_clock::now() < deadline);
    EXPECT_NE(first.find(" 200 "), std::string::npos);
}

TEST(exporter_tool, wrong_usage_says_what_to_do)
{
    testkit::directory directory;
    std::ofstream(directory.path + "/file") << "kept";
    const std::string program = TESK_BIN_DIR "/tesk-exporter ";
    const std::tuple<std::string, int, const char *> cases[] = {
        {"--help", 0, "--no-refresh"},
        {"--version", 0, "tesk-exporter 1."},
        {"--interval 0", 2, "interval"},
        {"--ports 3-1", 2, "comes before"},
        {"extra", 2, "extra"},
        {"--listen 9816", 1, "write ADDRESS:PORT"},
        {"--listen host.example:80", 1, "no numeric address"},
        {"--listen 127.0.0.1:99999", 1, "no numeric address"},
        {"--listen unix:", 1, "a path of"},
        {"--listen unix:" + directory.path + "/file", 1, "in use"},
    };
    for (const auto &[arguments, code, text] : cases) {
        std::string output;
        EXPECT_EQ(testkit::run(program + arguments, output), code) << arguments << output;
        EXPECT_NE(output.find(text), std::string::npos) << arguments << "\n" << output;
    }
}
