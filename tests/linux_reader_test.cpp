/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-module-reader: which requests it carries out, and the process as it ships. */
#include "tesk_module_reader/requests.h"
#include "testkit/network/network.h"
#include "testkit/processes/processes.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static constexpr char program[] = TESK_BIN_DIR "/tesk-module-reader";

static std::vector<uint8_t> packet_of(const std::vector<reader_request> &requests)
{
    std::vector<uint8_t> packet(requests.size() * sizeof(reader_request));
    if (!packet.empty())
        memcpy(packet.data(), requests.data(), packet.size());
    return packet;
}

TEST(reader_requests_test, only_short_readings_of_a_modules_memory_are_made)
{
    struct row {
        reader_request request; /* port, address, bank, page, offset, length, zero */
        bool valid;
    };
    static constexpr row rows[] = {
        {{1, 0x50, 0, 0, 0, 1, 0}, true},       {{1, 0x51, 0, 0, 96, 32, 0}, true},
        {{1, 0x50, 1, 0x11, 224, 32, 0}, true}, {{1, 0x50, 0, 0, 127, 1, 0}, true},
        {{1, 0x50, 0, 0, 0, 0, 0}, false},      {{1, 0x50, 0, 0, 0, 33, 0}, false},
        {{1, 0x50, 0, 0, 127, 2, 0}, false},    {{1, 0x50, 0, 0, 225, 32, 0}, false},
        {{1, 0x50, 0, 1, 127, 1, 0}, false},    {{1, 0x50, 1, 0, 0, 1, 0}, false},
        {{1, 0x51, 0, 1, 128, 1, 0}, false},    {{1, 0x52, 0, 0, 0, 1, 0}, false},
        {{1, 0x4f, 0, 0, 0, 1, 0}, false},      {{1, 0x50, 0, 0, 0, 1, 1}, false},
        {{1, 0xd0, 0, 0, 0, 1, 0}, false},      {{1, 0x50, 0, 0, 255, 255, 0}, false},
    };
    for (const row &one : rows) {
        int made = 0;
        const auto answers =
            module_reader::answer_packet(packet_of({one.request}), [&](const reader_request &) {
                made++;
                return reader_answer{.error = 0, .interface = 3, .bytes = {9}};
            });
        ASSERT_EQ(1u, answers.size());
        EXPECT_EQ(one.valid ? 1 : 0, made) << +one.request.offset;
        EXPECT_EQ(one.valid ? 0 : EINVAL, answers[0].error) << +one.request.offset;
    }
}

TEST(reader_requests_test, a_packet_is_whole_requests_and_a_failing_port_is_left_alone)
{
    const auto fails_on_port_2 = [](const reader_request &request) {
        return reader_answer{
            .error = request.port == 2 ? EIO : 0, .interface = request.port, .bytes = {9, 9}};
    };
    const std::vector<uint8_t> most(sizeof(reader_request) * READER_MOST_REQUESTS);
    for (const size_t size : std::array<size_t, 4>{0, 7, 9, most.size() + 8})
        EXPECT_TRUE(
            module_reader::answer_packet(std::vector<uint8_t>(size), fails_on_port_2).empty())
            << size;
    EXPECT_EQ(size_t{READER_MOST_REQUESTS},
              module_reader::answer_packet(most, fails_on_port_2).size());
    const reader_request of_2 = {2, 0x50, 0, 0, 0, 1, 0};
    const reader_request of_3 = {3, 0x50, 0, 0, 0, 1, 0};
    const auto answers =
        module_reader::answer_packet(packet_of({of_2, of_3, of_2}), fails_on_port_2);
    ASSERT_EQ(3u, answers.size());
    EXPECT_EQ(EIO, answers[0].error);
    EXPECT_EQ(0, answers[0].bytes[0]) << "no byte of a failed reading gets out";
    EXPECT_EQ(2, answers[0].interface);
    EXPECT_EQ(0, answers[1].error);
    EXPECT_EQ(9, answers[1].bytes[1]);
    EXPECT_EQ(ECANCELED, answers[2].error);
}

namespace
{

class reader_process_test : public testing::Test
{
  protected:
    ~reader_process_test() override
    {
        if (client >= 0)
            close(client);
    }
    void write_config(const std::string &text)
    {
        std::ofstream(place.path + "/ports") << text;
    }
    void start_on_pair()
    {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
        client = ends[0];
        process = testkit::start(
            {program, "--fd", "3"},
            {"DOLM_RIC_PORTS=" + place.path + "/ports", "RUNTIME_DIRECTORY=" + place.path}, ends[1],
            log());
        close(ends[1]);
    }
    /* The error of a one-byte reading; -1 if the reader hangs up. */
    int ask(uint16_t port)
    {
        const reader_request request = {port, 0x50, 0, 0, 0, 1, 0};
        return ask_raw(&request, sizeof(request));
    }
    int ask_raw(const void *bytes, size_t size)
    {
        send(client, bytes, size, MSG_NOSIGNAL);
        testkit::await(client, "answer of the reader");
        reader_answer answer = {};
        return recv(client, &answer, sizeof(answer), 0) == sizeof(answer) ? answer.error : -1;
    }
    std::string log() const
    {
        return place.path + "/log";
    }
    std::string log_text() const
    {
        std::ifstream file(log());
        return {std::istreambuf_iterator<char>(file), {}};
    }

    testkit::directory place;
    pid_t process = -1;
    int client = -1;
};

} // namespace

TEST_F(reader_process_test, it_serves_its_ports_keeps_one_right_and_ends_with_its_client)
{
    if (!testkit::enter_own_network())
        GTEST_SKIP() << "no namespaces of its own for this user";
    testkit::network net;
    net.add_pair("a0", "a1");
    write_config("0 a0\n1 missing\n2 a1 poll=off\n3 a1 module=/etc/passwd\nnonsense\n");
    start_on_pair();
    EXPECT_EQ(EOPNOTSUPP, ask(0)) << "an interface without modules";
    EXPECT_EQ(ENODEV, ask(1));
    EXPECT_EQ(ENOENT, ask(2));
    EXPECT_EQ(ENOENT, ask(3)) << "a file is not read here";
    EXPECT_EQ(ENOENT, ask(4));
    EXPECT_NE(std::string::npos, log_text().find("ports:5: "));
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    const std::string text{std::istreambuf_iterator<char>(status), {}};
    for (const char *line :
         {"CapPrm:\t0000000000001000\n", "CapEff:\t0000000000001000\n",
          "CapInh:\t0000000000000000\n", "CapAmb:\t0000000000000000\n", "NoNewPrivs:\t1\n"})
        EXPECT_NE(std::string::npos, text.find(line)) << line << text;
#ifndef TESK_UNCONFINED
    EXPECT_NE(std::string::npos, text.find("Seccomp:\t2\n"));
#endif
    net.remove("a0");
    EXPECT_EQ(ENODEV, ask(0));
    EXPECT_EQ(-1, ask_raw("rubbish", 7)) << "who breaks the protocol is dropped";
    EXPECT_EQ(0, testkit::wait_for_end(process));
}

TEST_F(reader_process_test, interfaces_are_handed_on_to_the_next_reader_of_the_same_server)
{
    if (!testkit::enter_own_network())
        GTEST_SKIP() << "no namespaces of its own for this user";
    testkit::network net;
    net.add_pair("a0", "a1");
    write_config("0 a0\n");
    start_on_pair();
    EXPECT_EQ(EOPNOTSUPP, ask(0));
    net.rename("a0", "wan");
    struct row {
        int ended_by;
        const char *config;
        int error;
    };
    for (const row &one : {row{SIGKILL, "0 a0\n", EOPNOTSUPP},
                           row{SIGTERM, "1 lo\n0 a0\n", EOPNOTSUPP}, row{SIGKILL, "0 a2\n", ENODEV},
                           row{SIGKILL, "0 a0\n", EOPNOTSUPP}, row{0, "0 a0\n", ENODEV}}) {
        kill(process, one.ended_by);
        close(client);
        testkit::wait_for_end(process);
        write_config(one.config);
        start_on_pair();
        EXPECT_EQ(one.error, ask(0)) << one.ended_by << one.config;
    }
}

TEST_F(reader_process_test, a_configuration_that_others_can_write_gives_no_port)
{
    if (!testkit::enter_own_network())
        GTEST_SKIP() << "no namespaces of its own for this user";
    write_config("0 lo\n");
    std::filesystem::permissions(place.path + "/ports", std::filesystem::perms{0664});
    start_on_pair();
    EXPECT_EQ(ENOENT, ask(0));
    EXPECT_NE(std::string::npos, log_text().find("can be written by others"));
}

TEST_F(reader_process_test, a_passed_socket_lets_in_its_owner_alone)
{
    for (const uid_t owner : {getuid(), uid_t{12345}}) {
        const std::string path = place.path + "/socket";
        unlink(path.c_str());
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
        ASSERT_EQ(0, listen(listener, 4));
        if (chown(path.c_str(), owner, static_cast<gid_t>(-1)) != 0)
            GTEST_SKIP() << "only root can give a socket away";
        write_config("");
        client = testkit::connect_to(path);
        ASSERT_GE(client, 0);
        process = testkit::start(
            {"/bin/sh", "-c", std::string("LISTEN_FDS=1 LISTEN_PID=$$ exec ") + program},
            {"DOLM_RIC_PORTS=" + place.path + "/ports"}, listener, log());
        EXPECT_EQ(owner == getuid() ? ENOENT : -1, ask(0));
        if (owner == getuid()) { /* a reader whose last client has left lets in nobody */
            kill(process, SIGSTOP);
            waitpid(process, nullptr, WUNTRACED);
            close(client);
            client = testkit::connect_to(path);
            kill(process, SIGCONT);
        }
        EXPECT_EQ(0, testkit::wait_for_end(process));
        close(std::exchange(client, -1));
        close(listener);
    }
    EXPECT_NE(std::string::npos, log_text().find("is not allowed to ask"));
}

TEST_F(reader_process_test, options_say_what_they_do_and_wrong_ones_are_refused)
{
    struct row {
        const char *arguments;
        int status;
        const char *text;
    };
    for (const row &one :
         {row{"--help", 0, "--print-ports"}, row{"--version", 0, "tesk-module-reader "},
          row{"--fd x", 2, "takes the number of a descriptor, not x"},
          row{"--nonsense", 2, "unrecognized option"}, row{"port", 2, "no argument port"},
          row{"", 1, "there is no socket"}}) {
        std::string output;
        EXPECT_EQ(one.status, testkit::run(std::string(program) + " " + one.arguments, output));
        EXPECT_NE(std::string::npos, output.find(one.text)) << output;
    }
    write_config("7 lo\n2 nowhere module=/m\n");
    std::string output;
    EXPECT_EQ(0,
              testkit::run("DOLM_RIC_PORTS=" + place.path + "/ports " + program + " --print-ports",
                           output));
    EXPECT_NE(std::string::npos, output.find("2 nowhere module=/m\n7 lo\n")) << output;
}
