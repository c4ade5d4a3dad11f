/* SPDX-License-Identifier: Apache-2.0 */
/* SIGTERM before and after each system call of the start, and a second SIGTERM at each call of the
   end: the server starts, stops in order, reports that and leaves nothing; before it blocks signals
   it ends by the signal and has created nothing. TESK_LONG=1 tries all places, otherwise each n-th
   one. */
#include "testkit/processes/processes.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/* The places of a run, counted as stops at entries and exits of the main thread's system calls. */
struct places {
    long masked = 0;  /* the entry that blocks all signals: one sent there comes after it */
    long waiting = 0; /* the first stop in the main loop's wait */
    long last = 0;
};

class stop_signals : public testing::Test
{
  protected:
    testkit::directory directory;
    const std::string traces = directory.path + "/traces";
    pid_t server = -1;

    void start()
    {
        std::filesystem::remove(traces);
        server = fork();
        if (server == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            setenv("ZEL_SINK", "stderr", 1);
            if (freopen(traces.c_str(), "w", stderr) == nullptr)
                _exit(127);
            execl(TESK_BIN_DIR "/tesk-server", "tesk-server", nullptr);
            _exit(127);
        }
        int status = 0;
        ASSERT_EQ(waitpid(server, &status, 0), server);
        ASSERT_TRUE(WIFSTOPPED(status)) << "no permission to trace a child";
        ptrace(PTRACE_SETOPTIONS, server, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    }

    /* Continues to the next entry or exit of a system call; false if the process has ended. */
    bool run_to_call(__ptrace_syscall_info &info) const
    {
        int status = 0;
        for (long signal = 0;; signal = WSTOPSIG(status)) {
            ptrace(PTRACE_SYSCALL, server, nullptr, signal);
            if (waitpid(server, &status, 0) != server || !WIFSTOPPED(status)) {
                EXPECT_EQ(status, 0);
                return false;
            }
            if (WSTOPSIG(status) == (SIGTRAP | 0x80))
                break;
        }
        info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, server, sizeof(info), &info);
        return true;
    }

    /* Sends SIGTERM at the place `first`, or in the main loop's wait if that is earlier, and
       another one at `second` (0: none; -1: tracing ends after the first). */
    places run(long first, long second)
    {
        places found;
        __ptrace_syscall_info info;
        bool is_sent = false;
        start();
        for (; run_to_call(info); found.last++) {
            const uint64_t call = info.op == PTRACE_SYSCALL_INFO_ENTRY ? info.entry.nr : UINT64_MAX;
            if (call == SYS_rt_sigprocmask && found.masked == 0)
                found.masked = found.last;
            bool is_waiting = call == SYS_epoll_pwait;
#ifdef SYS_epoll_wait
            is_waiting = is_waiting || call == SYS_epoll_wait;
#endif
            if (is_waiting && found.waiting == 0)
                found.waiting = found.last;
            if (!is_sent && (found.last == first || found.waiting != 0)) {
                is_sent = true;
                kill(server, SIGTERM);
                if (second < 0)
                    break;
            } else if (second > 0 && found.last >= second) {
                kill(server, SIGTERM);
                break;
            }
        }
        return found;
    }

    void expect_orderly_end(bool is_masked)
    {
        if (kill(server, 0) == 0) {
            ptrace(PTRACE_DETACH, server, nullptr, nullptr);
            const int end = testkit::wait_for_end(server);
            EXPECT_EQ(end, is_masked ? 0 : -SIGTERM);
        }
        const std::string mbx = directory.path + "/mbx";
        EXPECT_TRUE(!std::filesystem::exists(mbx) || std::filesystem::is_empty(mbx));
        EXPECT_FALSE(std::filesystem::exists(directory.path + "/board.sock"));
        std::ifstream file(traces);
        const std::string said{std::istreambuf_iterator<char>(file), {}};
        for (const char *line : {"TESK server started!", "TESK server terminated"})
            EXPECT_EQ(said.find(line) != std::string::npos, is_masked) << line << "\n" << said;
    }
};

TEST_F(stop_signals, at_any_system_call_stop_it_in_order)
{
    const places all = run(-1, 0);
    expect_orderly_end(true);
    ASSERT_GT(all.masked, 0);
    ASSERT_GT(all.waiting, all.masked);
    ASSERT_GT(all.last, all.waiting);
    const long step = getenv("TESK_LONG") != nullptr ? 1 : 17;
    for (long place = all.masked % step; place <= all.waiting; place += step) {
        SCOPED_TRACE("start, place " + std::to_string(place));
        const places found = run(place, -1);
        expect_orderly_end(found.masked != 0 && found.last >= found.masked);
    }
    for (long place = all.waiting + 1; place <= all.last; place += step / 2 + 1) {
        SCOPED_TRACE("end, place " + std::to_string(place));
        run(-1, place);
        expect_orderly_end(true);
    }
}
