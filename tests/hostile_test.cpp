/* SPDX-License-Identifier: Apache-2.0 */
/* The whole server, with its own trace sink, in hostile surroundings: a reader of its traces that
   doesn't read, outputs that accept nothing, and a process-id namespace in which it sees none of
   its peers. */
#include "tesk_server/tesk_signals.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono;

static constexpr char executable[] = TESK_BIN_DIR "/tesk-server";

static milliseconds time_of(const auto &action)
{
    const auto began = steady_clock::now();
    action();
    return duration_cast<milliseconds>(steady_clock::now() - began);
}

static void expect_answer(testkit::test_client &client, uint32_t id)
{
    EXPECT_EQ(client.ask(TESK_GET_CAPABILITIES_REQ, {1, id}).number(),
              uint32_t{TESK_GET_CAPABILITIES_CFM});
}

/* Reads until the text is found; throws after the deadline. */
static void await_text(int fd, const std::string &text)
{
    std::string all;
    char part[4096];
    while (all.find(text) == all.npos) {
        testkit::await(fd, text.c_str());
        const ssize_t size = read(fd, part, sizeof(part));
        all.append(part, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    }
}

/* Fills the pipe completely. */
static void fill(int pipe)
{
    while (write(pipe, "x", 1) == 1) {
    }
    ASSERT_EQ(errno, EAGAIN);
}

/* All groups in which a flood of requests causes traces. */
TEST(hostile, a_stalled_reader_of_the_traces_holds_up_nobody)
{
    const testkit::directory directory;
    const std::string path = directory.path + "/traces";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    fcntl(reader, F_SETPIPE_SZ, 4096);
    testkit::server server({"ZEL_SINK=stderr", "ZEL_GROUPS=1,4,17,18"},
                           {"/bin/sh", "-c", "exec \"$0\" 2>\"$1\"", executable, path});
    testkit::test_client witness;
    const uint32_t id = witness.connect(1);
    fill(reader);
    testkit::test_client floods[] = {testkit::test_client("flood"), testkit::test_client("crave")};
    for (testkit::test_client &flood : floods)
        for (int batch = 0; batch < 20; batch++)
            flood.receive();
    const milliseconds answer = time_of([&] { expect_answer(witness, id); });
    EXPECT_LT(answer, seconds(5));
    await_text(reader, "lines lost: the output did not take them");
    fill(reader);
    const milliseconds end = time_of([&] { EXPECT_EQ(server.stop(), 0); });
    EXPECT_LT(end, seconds(5));
    printf("an answer in %ld ms, the end in %ld ms\n", static_cast<long>(answer.count()),
           static_cast<long>(end.count()));
    close(reader);
}

/* The server starts, answers and ends although its outputs accept nothing. */
TEST(hostile, a_full_disk_and_a_fifo_without_reader_hold_up_nobody)
{
    const testkit::directory directory;
    const std::string full = directory.path + "/full", fifo = directory.path + "/fifo";
    ASSERT_EQ(mkdir(full.c_str(), 0700), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto expect_service = [](const std::vector<std::string> &outputs) {
        testkit::server server(outputs);
        testkit::test_client flood("flood");
        testkit::test_client witness;
        const uint32_t id = witness.connect(1);
        for (int batch = 0; batch < 20; batch++)
            flood.receive();
        EXPECT_LT(time_of([&] { expect_answer(witness, id); }), seconds(5)) << outputs[0];
        EXPECT_LT(time_of([&] { EXPECT_EQ(server.stop(), 0); }), seconds(5)) << outputs[0];
    };
    expect_service({"ZEL_SINK=file:" + fifo, "ZEL_GROUPS=1,4,17,18"});
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_PRIVATE | MS_REC, nullptr) != 0 ||
        mount("tesk", full.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "a full disk needs root and a mount of our own";
    std::ofstream(full + "/fill") << std::string(size_t{1} << 20, ' ');
    expect_service({"ZEL_SINK=file:" + full + "/traces", "ZEL_GROUPS=1,4,17,18",
                    "DOLM_RIC_PORT_MAP=" + full + "/ports"});
    EXPECT_NE(access((full + "/ports").c_str(), F_OK), 0);
    umount(full.c_str());
}

/* The server then sees no process id of its peers. Twelve peers counted as one process would exceed
   its quarter of the descriptors. */
TEST(hostile, in_a_namespace_of_its_own_the_server_takes_its_peers_for_several_processes)
{
    std::string output;
    if (testkit::run("unshare -pf true", output) != 0)
        GTEST_SKIP() << "a namespace of process ids needs root, and the right to make one";
    const testkit::directory directory;
    testkit::server parent({},
                           {"/bin/sh", "-c", "ulimit -n 128; exec unshare -pf \"$0\"", executable});
    pid_t server = 0;
    const std::string id = std::to_string(parent.pid);
    std::ifstream("/proc/" + id + "/task/" + id + "/children") >> server;
    ASSERT_GT(server, 0);
    const size_t before = testkit::descriptors_of(server);
    {
        std::vector<std::unique_ptr<testkit::test_client>> all;
        for (uint32_t index = 0; index < 12; index++) {
            all.push_back(std::make_unique<testkit::test_client>());
            expect_answer(*all.back(), all.back()->connect(index));
        }
        all.front()->kill();
        expect_answer(*all.back(), 11);
    }
    EXPECT_LE(testkit::await_descriptors(server, before), before);
    kill(server, SIGTERM);
    EXPECT_EQ(testkit::wait_for_end(parent.pid), 0);
    parent.pid = -1;
}
