/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-module-reader: the requests that it accepts, and the process as it ships. */
#include "platform/linux_interfaces/module_leases.h"
#include "tesk_module_reader/requests.h"
#include "testkit/network/network.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"
#include "util/boot_clock.h"
#include "util/local_socket.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using testkit::expect_parts;

static constexpr char program[] = TESK_BIN_DIR "/tesk-module-reader";

/* Readings of port 2 fail. */
static std::vector<reader_answer> answers_to(const std::vector<reader_request> &requests,
                                             size_t size)
{
    std::vector<uint8_t> packet(size);
    if (!requests.empty())
        memcpy(packet.data(), requests.data(), size);
    return module_reader::answer_packet(packet, [](const reader_request &made) {
        return reader_answer{
            .error = made.port == 2 ? EIO : 0, .interface = made.port, .bytes = {9, 9}};
    });
}

TEST(reader_requests_test, only_short_readings_of_a_modules_memory_are_made)
{
    /* port, address, bank, page, offset, length, zero */
    static constexpr reader_request valid[] = {{1, 0x50, 0, 0, 0, 1, 0},
                                               {1, 0x51, 0, 0, 96, 32, 0},
                                               {1, 0x50, 1, 0x11, 224, 32, 0},
                                               {1, 0x50, 0, 0, 127, 1, 0},
                                               {0, READER_ITSELF, 0, 0, READER_END, 8, 0}};
    static constexpr reader_request refused[] = {
        {1, 0x50, 0, 0, 0, 0, 0},    {1, 0x50, 0, 0, 0, 33, 0},  {1, 0x50, 0, 0, 127, 2, 0},
        {1, 0x50, 0, 0, 225, 32, 0}, {1, 0x50, 0, 1, 127, 1, 0}, {1, 0x50, 1, 0, 0, 1, 0},
        {1, 0x51, 0, 1, 128, 1, 0},  {1, 0x52, 0, 0, 0, 1, 0},   {1, 0x4f, 0, 0, 0, 1, 0},
        {1, 0x50, 0, 0, 0, 1, 1},    {1, 0xd0, 0, 0, 0, 1, 0},   {1, 0x50, 0, 0, 255, 255, 0},
        {1, 0, 0, 0, 0, 8, 0},       {0, 0, 0, 0, 2, 8, 0},      {0, 0, 0, 0, 0, 9, 0}};
    const auto expect_each = [](std::span<const reader_request> requests, int error) {
        for (const reader_request &one : requests) {
            const auto answers = answers_to({one}, sizeof(one));
            ASSERT_EQ(1u, answers.size());
            EXPECT_EQ(error, answers[0].error) << +one.offset;
            EXPECT_EQ(error == 0 ? 9 : 0, answers[0].bytes[0]) << "read, or not";
        }
    };
    expect_each(valid, 0);
    expect_each(refused, EINVAL);
}

TEST(reader_requests_test, a_packet_is_whole_requests_and_a_failing_port_is_left_alone)
{
    constexpr size_t most = sizeof(reader_request) * READER_MOST_REQUESTS;
    for (const size_t size : {size_t{0}, size_t{7}, size_t{9}, most + 8})
        EXPECT_TRUE(answers_to({}, size).empty()) << size;
    EXPECT_EQ(size_t{READER_MOST_REQUESTS}, answers_to({}, most).size());
    const reader_request of_2 = {2, 0x50, 0, 0, 0, 1, 0}, of_3 = {3, 0x50, 0, 0, 0, 1, 0};
    const auto answers = answers_to({of_2, of_3, of_2}, 3 * sizeof(of_2));
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

struct reader_process_test : testing::Test {
    ~reader_process_test() override
    {
        close(client);
    }
    void write_config(const std::string &text) const
    {
        std::ofstream(config) << text;
    }
    void start_on_pair()
    {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
        client = ends[0];
        process = testkit::start({program, "--fd", "3"},
                                 {"DOLM_RIC_PORTS=" + config, "RUNTIME_DIRECTORY=" + place.path,
                                  "STATE_DIRECTORY=" + place.path},
                                 ends[1], log);
        close(ends[1]);
    }
    /* The errno of a one-byte reading; -1 if the reader disconnects. */
    int ask(uint16_t port) const
    {
        const reader_request request = {port, 0x50, 0, 0, 0, 1, 0};
        return ask_raw(&request, sizeof(request));
    }
    int ask_raw(const void *bytes, size_t size) const
    {
        send(client, bytes, size, MSG_NOSIGNAL);
        testkit::await(client, "answer of the reader");
        reader_answer answer = {};
        return recv(client, &answer, sizeof(answer), 0) == sizeof(answer) ? answer.error : -1;
    }

    const testkit::directory place;
    const std::string config = place.path + "/ports", log = place.path + "/log";
    pid_t process = -1;
    int client = -1;
};

struct reader_network_test : reader_process_test {
    void SetUp() override
    {
        if (!testkit::enter_own_network())
            GTEST_SKIP() << "no namespaces of its own for this user";
    }
};

} // namespace

TEST_F(reader_network_test, it_serves_its_ports_keeps_one_right_and_ends_with_its_client)
{
    testkit::network net;
    net.add_pair("a0", "a1");
    write_config("0 a0\n1 missing\n2 a1 poll=off\n3 a1 module=/etc/passwd\nnonsense\n");
    start_on_pair();
    EXPECT_EQ(EOPNOTSUPP, ask(0)) << "an interface without modules";
    EXPECT_EQ(ENODEV, ask(1));
    EXPECT_EQ(ENOENT, ask(2));
    EXPECT_EQ(ENOENT, ask(3)) << "a file is not read here";
    EXPECT_EQ(ENOENT, ask(4));
    expect_parts(testkit::read_file(log), {"ports:5: "});
    const auto status = testkit::read_file("/proc/" + std::to_string(process) + "/status");
    expect_parts(status, {"CapPrm:\t0000000000001000\n", "CapEff:\t0000000000001000\n",
                          "CapInh:\t0000000000000000\n", "CapAmb:\t0000000000000000\n",
                          "NoNewPrivs:\t1\n"});
#ifndef TESK_UNCONFINED
    expect_parts(status, {"Seccomp:\t2\n"});
#endif
    net.remove("a0");
    EXPECT_EQ(ENODEV, ask(0));
    EXPECT_EQ(-1, ask_raw("rubbish", 7)) << "who breaks the protocol is dropped";
    EXPECT_EQ(0, testkit::wait_for_end(process));
}

TEST_F(reader_network_test, interfaces_are_handed_on_to_the_next_reader_of_the_same_server)
{
    testkit::network net;
    net.add_pair("a0", "a1");
    write_config("0 a0\n");
    start_on_pair();
    EXPECT_EQ(EOPNOTSUPP, ask(0));
    net.rename("a0", "wan");
    constexpr int asked = -1;
    const std::tuple<int, const char *, int> rows[] = {
        {SIGKILL, "0 a0\n", EOPNOTSUPP},       {asked, "0 a0\n2 lo\n", EOPNOTSUPP},
        {SIGTERM, "1 lo\n0 a0\n", EOPNOTSUPP}, {SIGKILL, "0 a2\n", ENODEV},
        {SIGKILL, "0 a0\n", EOPNOTSUPP},       {0, "0 a0\n", ENODEV}};
    for (const auto &[ended_by, text, error] : rows) {
        constexpr reader_request end = {0, READER_ITSELF, 0, 0, READER_END, 8, 0};
        if (ended_by == asked) {
            EXPECT_EQ(0, ask_raw(&end, sizeof(end)));
            EXPECT_EQ(0, testkit::wait_for_end(process)) << "though its client is still there";
        } else {
            kill(process, ended_by);
        }
        close(client);
        if (ended_by != asked)
            testkit::wait_for_end(process);
        write_config(text);
        start_on_pair();
        EXPECT_EQ(error, ask(0)) << ended_by << text;
    }
}

TEST_F(reader_network_test, without_a_configuration_the_numbers_are_those_of_the_last_start)
{
    testkit::network net;
    net.add_pair("a0", "a1");
    std::ofstream(place.path + "/numbers") << "3 a0\n5 gone\n";
    start_on_pair();
    EXPECT_EQ(ENOENT, ask(0));
    EXPECT_EQ(EOPNOTSUPP, ask(3)) << "an empty cage of some drivers is a port";
    EXPECT_EQ(ENODEV, ask(5));
}

TEST_F(reader_network_test, a_configuration_that_others_can_write_gives_no_port)
{
    write_config("0 lo\n");
    std::filesystem::permissions(config, std::filesystem::perms{0664});
    start_on_pair();
    EXPECT_EQ(ENOENT, ask(0));
    expect_parts(testkit::read_file(log), {"can be written by others"});
}

TEST_F(reader_process_test, a_passed_socket_lets_in_its_owner_alone)
{
    for (const uid_t owner : {getuid(), uid_t{12345}}) {
        const std::string path = place.path + "/socket";
        unlink(path.c_str());
        const auto listener = util::listen_at(path, SOCK_SEQPACKET, 0600, getegid(), 4);
        ASSERT_TRUE(listener.is_open());
        if (chown(path.c_str(), owner, static_cast<gid_t>(-1)) != 0)
            GTEST_SKIP() << "only root can give a socket away";
        write_config("");
        client = testkit::connect_to(path);
        ASSERT_GE(client, 0);
        process = testkit::start(
            {"/bin/sh", "-c", std::string("LISTEN_FDS=1 LISTEN_PID=$$ exec ") + program},
            {"DOLM_RIC_PORTS=" + config}, listener.get(), log);
        EXPECT_EQ(owner == getuid() ? ENOENT : -1, ask(0));
        if (owner == getuid()) { /* a reader whose last client has left accepts no other */
            kill(process, SIGSTOP);
            waitpid(process, nullptr, WUNTRACED);
            close(client);
            client = testkit::connect_to(path);
            kill(process, SIGCONT);
        }
        EXPECT_EQ(0, testkit::wait_for_end(process));
        close(std::exchange(client, -1));
    }
    expect_parts(testkit::read_file(log), {"is not allowed to ask"});
}

TEST_F(reader_process_test, a_lease_holds_until_its_end_or_until_it_is_taken_back)
{
    setenv("DOLM_RIC_READER", (place.path + "/socket").c_str(), 1);
    linux_board::module_leases leases(place.path);
    const auto left = [&] { return leases.end_of(1) - util::boot_time(); }; /* 1 is lo */
    testkit::expect_runs(program, {{"--lease lo", 2, "as in \"--lease eth3 300\""},
                                   {"--lease lo 3601", 2, "0 to 3600 seconds"},
                                   {"--lease nowhere 5", 1, "interface nowhere: No such device"}});
    EXPECT_FALSE(leases.has_changed());
    testkit::expect_runs(program, {{"--lease lo 3600", 0, ""}});
    EXPECT_TRUE(leases.has_changed());
    EXPECT_GT(left(), std::chrono::seconds(3500));
    testkit::expect_runs(program, {{"--lease lo 0", 0, ""}});
    EXPECT_TRUE(leases.has_changed());
    EXPECT_LT(left(), std::chrono::seconds(0));
    const auto later =
        std::to_string((util::boot_time() + std::chrono::hours(2)).time_since_epoch().count());
    for (const std::string &wrong : {later, std::string("x"), std::string("-1")}) {
        std::ofstream(place.path + "/lease.1") << wrong;
        EXPECT_LT(left(), std::chrono::seconds(0)) << wrong;
    }
    setenv("DOLM_RIC_READER", "/nowhere/socket", 1);
    testkit::expect_runs(program, {{"--lease lo 5", 1, "/nowhere/lease.1"}});
    unsetenv("DOLM_RIC_READER");
}

TEST_F(reader_process_test, options_say_what_they_do_and_wrong_ones_are_refused)
{
    write_config("7 lo\n2 nowhere module=/m\n");
    setenv("DOLM_RIC_PORTS", config.c_str(), 1);
    testkit::expect_runs(program, {{"--help", 0, "--print-ports"},
                                   {"--version", 0, "tesk-module-reader "},
                                   {"--fd x", 2, "takes the number of a descriptor, not x"},
                                   {"--nonsense", 2, "unrecognized option"},
                                   {"port", 2, "no argument port"},
                                   {"", 1, "there is no socket"},
                                   {"--write-ports", 1, "is there already"},
                                   {"--print-ports", 0, "2 nowhere module=/m\n7 lo\n"}});
    write_config("7\n");
    testkit::expect_runs(program, {{"--print-ports", 1, "has no right line"}});
}
