/* SPDX-License-Identifier: Apache-2.0 */
/* Each call that can fail is made to fail once at each place, while the real server starts, serves
   and ends: the end is reported, nothing hangs, a server that continues leaks nothing, and the next
   start takes over the name. */
#include "platform/mbx/mbx.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/fault_injection/fault_plan.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int failed_start = 242, bad_lock = 255, bad_unlock = 254, bad_source = 255;

enum class phase { starting, serving, ending };
enum class made_by { program, anybody };

class faults : public testing::Test
{
  protected:
    testkit::directory directory;
    const std::string plan_file = directory.path + "/plan",
                      traces_file = directory.path + "/traces";
    fault_plan *plan = nullptr;
    int traces = -1;
    std::string said;

    void SetUp() override
    {
        const int fd = open(plan_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(ftruncate(fd, sizeof(fault_plan)), 0);
        void *page = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        plan = static_cast<fault_plan *>(page);
        ASSERT_EQ(mkfifo(traces_file.c_str(), 0600), 0);
    }

    /* False if the server has ended without reporting that. */
    bool await_trace(const char *wanted)
    {
        while (said.find(wanted) == std::string::npos) {
            pollfd readable = {traces, POLLIN, 0};
            char text[4096];
            const bool in_time = poll(&readable, 1, 20000) == 1;
            EXPECT_TRUE(in_time) << "the server hangs before " << wanted;
            const ssize_t size = in_time ? read(traces, text, sizeof(text)) : 0;
            if (size <= 0)
                return false;
            said.append(text, static_cast<size_t>(size));
        }
        return true;
    }

    static void ask(testkit::test_client &client, uint32_t number, uint32_t reference)
    {
        client.send(number, {3, reference, 0, 0});
        for (uint32_t got = 0; got - number - 1 >= 2;) {
            got = client.receive().number();
            if (got == MBX_MONITOR_DEFAULT_NO)
                throw std::runtime_error("the server is gone");
        }
    }

    /* Performs the step as far as the server permits; only silence is a fault. */
    static void attempt(const auto &perform)
    {
        try {
            perform();
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(strstr(error.what(), "deadline"), nullptr) << error.what();
        }
    }

    /* A client's whole life; a request after its death shows that the death has been handled. */
    void serve()
    {
        bool connected = false;
        attempt([&] {
            testkit::test_client client;
            const uint32_t reference = client.connect(2);
            connected = true;
            for (uint32_t number : {TESK_GET_CAPABILITIES_REQ, TESK_SUBSCRIBE_SFP_INFO_REQ,
                                    TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_GET_PM_COUNTERS_REQ,
                                    TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
                                    TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_SUBSCRIBE_SFP_INFO_REQ,
                                    TESK_SHELL_GET_ACTIONS_CACHE_REQ})
                ask(client, number, reference);
            /* If the library is out of memory, the board can't be controlled any more. */
            if (plan->by_program_only) {
                testkit::board("set 0 link=down");
                testkit::board("remove 0");
                testkit::board("wait idle");
            }
            ask(client, TESK_GET_CAPABILITIES_REQ, reference);
        });
        if (connected && await_trace("client lost"))
            attempt([] {
                testkit::test_client witness;
                if (witness.located == 0)
                    ask(witness, TESK_SHELL_GET_ACTIONS_CACHE_REQ, 0);
            });
    }

    /* At most as many descriptors as before (fewer, if processes that had located the server were
       still counted), and no subscription except one that the board refused to end. Throws if the
       server has ended. */
    void expect_nothing_kept(pid_t server, size_t descriptors)
    {
        const bool refused = strncmp(plan->call, "dolm_ric_ri_unsubs", 18) == 0 && plan->nth != 0 &&
                             plan->nth == plan->seen;
        for (const char *kind : {"port", "link"})
            if (!refused)
                testkit::board(std::string("wait unsubscribed 0 ") + kind);
        const auto board = testkit::board("board");
        EXPECT_EQ(std::stoi(board.at("subscribed_port")) + std::stoi(board.at("subscribed_link")),
                  refused ? 1 : 0);
        EXPECT_LE(testkit::await_descriptors(server, descriptors), descriptors);
    }

    /* The fault that was found; also that the server has ended. */
    std::string serve_and_look(pid_t server)
    try {
        /* For its first peer the mailbox library opens an epoll and two inotify instances, and
           keeps them. */
        const size_t descriptors = testkit::descriptors_of(server) + 3;
        serve();
        plan->armed = false;
        expect_nothing_kept(server, descriptors);
        return "";
    } catch (const std::runtime_error &error) {
        return error.what();
    }

    int run(const char *call, uint32_t nth, phase when, made_by caller)
    {
        strncpy(plan->call, call, sizeof(plan->call) - 1);
        plan->nth = nth;
        plan->by_program_only = caller == made_by::program;
        plan->seen = 0;
        plan->armed = when == phase::starting;
        said.clear();
        traces = open(traces_file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        const pid_t server = testkit::start({TESK_BIN_DIR "/tesk-server"},
                                            {"LD_PRELOAD=" TESK_LIB_DIR "/libfault_injection.so",
                                             "FAULTS=" + plan_file, "ZEL_SINK=stderr"},
                                            -1, traces_file);
        std::string trouble;
        if (await_trace("TESK server started!")) {
            /* The board's answer shows that its thread has made its first allocations. */
            if (when == phase::serving)
                testkit::board("board");
            plan->armed = when == phase::serving;
            if (when != phase::starting)
                trouble = serve_and_look(server);
            plan->armed = when == phase::ending;
            kill(server, SIGTERM);
        }
        const int end = testkit::wait_for_end(server);
        EXPECT_TRUE(trouble.empty() || end != 0) << trouble;
        close(traces);
        return end;
    }

    /* After a clean end nothing is left, and otherwise the rest doesn't prevent the next start. */
    void expect_a_way_back(int end)
    {
        if (end == 0 || end == failed_start) {
            EXPECT_TRUE(std::filesystem::is_empty(directory.path + "/mbx"));
            EXPECT_FALSE(std::filesystem::exists(directory.path + "/board.sock"));
        } else
            EXPECT_EQ(run("none", 0, phase::starting, made_by::anybody), 0);
    }

    /* Makes the first call fail, then the second, and so on. `ends` are the permitted exit
       statuses, and the permitted signals as negative numbers. */
    void try_every(const char *call, phase when, made_by caller, const std::vector<int> &ends)
    {
        ASSERT_EQ(run(call, 0, when, caller), 0) << call;
        const uint32_t count = plan->seen;
        EXPECT_GT(count, 0u) << call;
        for (uint32_t nth = 1; nth <= count; nth++) {
            SCOPED_TRACE(std::string(call) + ", call " + std::to_string(nth));
            const int end = run(call, nth, when, caller);
            /* A run may need one call less than the previous one. */
            if (plan->seen < nth)
                EXPECT_EQ(end, 0);
            else
                EXPECT_EQ(std::count(ends.begin(), ends.end(), end), 1) << end;
            expect_a_way_back(end);
        }
    }

    void try_all(phase when, made_by caller, const std::vector<int> &ends,
                 const std::vector<const char *> &calls)
    {
        for (const char *call : calls)
            try_every(call, when, caller, ends);
    }
};

TEST_F(faults, a_start_that_fails_says_so_with_its_status)
{
    try_all(phase::starting, made_by::program, {failed_start},
            {"mbx_init", "zel_init", "mbx_create_mailbox", "eventfd", "dolm_ric_init",
             "pthread_create", "epoll_create1"});
    try_all(phase::starting, made_by::program, {bad_source}, {"mbx_get_fd", "epoll_ctl"});
    try_all(phase::starting, made_by::program, {0}, {"tmo_service_init"});
}

TEST_F(faults, a_start_on_failing_libraries_ends_or_goes_on)
{
    try_all(phase::starting, made_by::anybody, {0, failed_start},
            {"pthread_create", "eventfd", "epoll_create1", "open", "socket", "bind", "listen"});
    try_all(phase::starting, made_by::anybody, {0, failed_start, bad_source}, {"epoll_ctl"});
    try_all(phase::starting, made_by::anybody, {0}, {"timerfd_create"});
    try_all(phase::starting, made_by::anybody, {0, failed_start, -SIGABRT, -SIGTRAP}, {"malloc"});
}

TEST_F(faults, procedures_survive_or_end_the_process_as_described)
{
    try_all(phase::serving, made_by::program, {0},
            {"calloc", "epoll_wait", "read", "write", "dolm_ric_waitevent", "dolm_ric_freeevent",
             "dolm_ric_ri_subsport", "dolm_ric_ri_unsubsport", "dolm_ric_ri_subslink",
             "dolm_ric_ri_unsubslink", "dolm_ric_ri_getportstatus", "dolm_ric_ri_getlinkstatus",
             "dolm_ric_ri_getmoduleinfo", "dolm_ric_ri_getmodstatus", "dolm_ric_ri_getmodulediag"});
    try_all(phase::serving, made_by::program, {0, -SIGABRT}, {"malloc"});
    try_all(phase::serving, made_by::program, {bad_lock}, {"pthread_mutex_lock"});
    try_all(phase::serving, made_by::program, {bad_unlock}, {"pthread_mutex_unlock"});
    try_all(phase::serving, made_by::anybody, {0},
            {"epoll_ctl", "epoll_wait", "accept4", "memfd_create", "ftruncate", "eventfd",
             "setsockopt", "sendmsg", "recvmsg"});
    try_all(phase::serving, made_by::anybody, {0, -SIGABRT, -SIGTRAP},
            {"malloc", "realloc", "mmap"});
}

TEST_F(faults, the_end_is_orderly_or_tells_what_broke)
{
    try_all(phase::ending, made_by::program, {bad_lock}, {"pthread_mutex_lock"});
    try_all(phase::ending, made_by::program, {bad_unlock}, {"pthread_mutex_unlock"});
    try_all(phase::ending, made_by::program, {0},
            {"epoll_wait", "dolm_ric_shutdown", "dolm_ric_freeevent", "pthread_join"});
    try_all(phase::ending, made_by::anybody, {0, -SIGABRT, -SIGTRAP}, {"malloc"});
}
