/* Every call that can fail, made to fail once at every place where it is made, while the real
   server starts, while it serves, and while it ends: how it ends is told, nothing hangs, and the
   next start takes the name over. A few places of each by default; all with FAULTS_ALL in the
   environment. */
#include "fault_plan.h"
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#include "tesk_signals.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int patience_ms = 10000;
constexpr uint32_t nobody = 0xffffffff;
constexpr int failed_start = 242, bad_lock = 255, bad_unlock = 254, bad_source = 255;

enum phase { starting, serving, ending };

struct sweep {
    std::vector<const char *> calls;
    bool by_program_only;
    phase when;
    std::vector<int> ends; /* exit statuses, and minus the signals, that may follow */
};

class faults_test : public testing::Test
{
  protected:
    void SetUp() override
    {
        char path[] = "/tmp/faults-XXXXXX";
        directory = mkdtemp(path);
        const std::string file = directory / "plan";
        const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(ftruncate(fd, sizeof(fault_plan)), 0);
        void *page = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        plan = static_cast<fault_plan *>(page);
        setenv("MBX_DIR", (directory / "names").c_str(), 1);
        setenv("DOLM_RIC_SOCKET", (directory / "board").c_str(), 1);
        setenv("FAULTS", file.c_str(), 1);
        setenv("ZEL_SINK", "stderr", 1);
        ASSERT_EQ(mbx_init(5, 0, 0, 0, 0), 0);
    }

    void TearDown() override
    {
        mbx_exit();
        std::filesystem::remove_all(directory);
    }

    void start()
    {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        server = fork();
        if (server == 0) {
            dup2(ends[1], STDERR_FILENO);
            setenv("LD_PRELOAD", TESK_LIB_DIR "/libfaults.so", 1);
            execl(TESK_BIN_DIR "/tesk-server", "tesk-server", nullptr);
            _exit(127);
        }
        close(ends[1]);
        traces = ends[0];
        said.clear();
    }

    /* False when the server has ended without having said so. */
    bool await_trace(const char *wanted)
    {
        while (said.find(wanted) == std::string::npos) {
            pollfd readable = {traces, POLLIN, 0};
            char text[4096];
            if (poll(&readable, 1, patience_ms) != 1) {
                ADD_FAILURE() << "the server hangs before " << wanted;
                kill(server, SIGKILL);
            }
            const ssize_t size = read(traces, text, sizeof(text));
            if (size <= 0)
                return false;
            said.append(text, static_cast<size_t>(size));
        }
        return true;
    }

    /* What the server ended with: its exit status, or minus the signal. */
    int await_end()
    {
        int status;
        EXPECT_FALSE(await_trace("its end"));
        close(traces);
        waitpid(server, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    /* Asks and waits for the answer. False when the server has gone instead. */
    bool ask(uint32_t number, std::initializer_list<uint32_t> words)
    {
        mbx_signal *request = mbx_alloc(4 + words.size() * 4, number);
        std::transform(words.begin(), words.end(), reinterpret_cast<uint32_t *>(request + 1),
                       htonl);
        mbx_send(&request, mailbox, MBX_OWN_MAILBOX);
        for (;;) {
            mbx_signal *signal = mbx_receive(nullptr, patience_ms, MBX_ANY_SENDER);
            EXPECT_NE(signal, nullptr) << "no answer to " << std::hex << number;
            const uint32_t got = signal == nullptr ? MBX_MONITOR_DEFAULT_NO : signal->number;
            if (got == TESK_CONN_ESTABLISH_CFM)
                reference =
                    ntohl(reinterpret_cast<tesk_conn_establish_cfm *>(signal)->connection_ref);
            mbx_free(&signal);
            if (got == MBX_MONITOR_DEFAULT_NO)
                return false;
            if (got - number - 1 < 2)
                return true;
        }
    }

    void subscribe_and_ask()
    {
        mailbox = mbx_locate(TESK_SERVER_NAME);
        if (mailbox == MBX_NO_MAILBOX)
            return;
        mbx_monitor(mailbox, nullptr);
        if (!ask(TESK_CONN_ESTABLISH_REQ, {1, 2, 1, 1}) || reference == nobody)
            return;
        for (uint32_t number : {TESK_GET_CAPABILITIES_REQ, TESK_SUBSCRIBE_SFP_INFO_REQ,
                                TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_GET_PM_COUNTERS_REQ,
                                TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
                                TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_SUBSCRIBE_SFP_INFO_REQ,
                                TESK_SHELL_GET_ACTIONS_CACHE_REQ})
            if (!ask(number, {3, reference, 0, 0}))
                return;
        /* Down and up on the board, and what it leads to. */
        if (system(TESK_BIN_DIR "/teskboard link 0 down >/dev/null 2>&1 && " TESK_BIN_DIR
                                "/teskboard remove 0 >/dev/null 2>&1") == 0)
            ask(TESK_GET_CAPABILITIES_REQ, {3, reference});
    }

    /* One client's life; the server sees its end. */
    void serve()
    {
        ASSERT_NE(mbx_create_mailbox(nullptr, 0), MBX_NO_MAILBOX);
        reference = nobody;
        subscribe_and_ask();
        mbx_delete_mailbox(mbx_own_mailbox());
        if (reference != nobody)
            await_trace("client lost");
    }

    int run(const char *call, uint32_t nth, const sweep &what)
    {
        strncpy(plan->call, call, sizeof(plan->call) - 1);
        plan->nth = nth;
        plan->by_program_only = what.by_program_only;
        plan->seen = 0;
        plan->armed = what.when == starting;
        start();
        if (await_trace("TESK server started!")) {
            plan->armed = what.when == serving;
            if (what.when != starting)
                serve();
            plan->armed = what.when == ending;
            kill(server, SIGTERM);
        }
        return await_end();
    }

    /* Nothing is left of an orderly end, and nothing that is left keeps the next one from starting.
     */
    void expect_a_way_back(int end)
    {
        if (end == 0 || end == failed_start) {
            EXPECT_TRUE(std::filesystem::is_empty(directory / "names"));
            EXPECT_FALSE(std::filesystem::exists(directory / "board"));
        } else
            EXPECT_EQ(run("none", 0, {{}, false, starting, {}}), 0);
    }

    /* Lets the first call fail, then the second, and so on. */
    void try_every(const char *call, const sweep &what)
    {
        ASSERT_EQ(run(call, 0, what), 0) << call;
        const uint32_t count = plan->seen;
        EXPECT_GT(count, 0u) << call;
        for (uint32_t nth = 1; nth <= count; nth++) {
            SCOPED_TRACE(std::string(call) + ", call " + std::to_string(nth));
            const int end = run(call, nth, what);
            /* A run may get by with a call less than the one before. */
            if (plan->seen < nth)
                EXPECT_EQ(end, 0);
            else
                EXPECT_EQ(std::count(what.ends.begin(), what.ends.end(), end), 1) << end;
            expect_a_way_back(end);
        }
    }

    void try_all(const std::vector<sweep> &sweeps)
    {
        for (const sweep &what : sweeps)
            for (const char *call : what.calls)
                try_every(call, what);
    }

    std::filesystem::path directory;
    fault_plan *plan;
    pid_t server;
    int traces;
    std::string said;
    uint32_t mailbox, reference;
};

TEST_F(faults_test, a_start_that_fails_says_so_with_its_status)
{
    try_all({
        {{"mbx_init", "zel_init", "mbx_create_mailbox", "eventfd", "dolm_ric_init",
          "pthread_create", "epoll_create1"},
         true,
         starting,
         {failed_start}},
        {{"mbx_get_fd", "epoll_ctl"}, true, starting, {bad_source}},
        {{"tmo_service_init", "dolm_ric_waitevent"}, true, starting, {0}},
    });
}

TEST_F(faults_test, a_start_on_failing_libraries_ends_or_goes_on)
{
    try_all({
        {{"pthread_create", "eventfd", "epoll_create1", "open", "socket", "bind", "listen"},
         false,
         starting,
         {0, failed_start}},
        {{"epoll_ctl"}, false, starting, {0, failed_start, bad_source}},
        {{"timerfd_create"}, false, starting, {0}},
        {{"malloc"}, false, starting, {0, failed_start, -SIGABRT, -SIGTRAP}},
    });
}

TEST_F(faults_test, procedures_survive_or_end_the_process_as_described)
{
    try_all({
        {{"calloc", "epoll_wait", "read", "write", "dolm_ric_waitevent", "dolm_ric_ri_subsport",
          "dolm_ric_ri_unsubsport", "dolm_ric_ri_subslink", "dolm_ric_ri_unsubslink",
          "dolm_ric_ri_getportstatus", "dolm_ric_ri_getlinkstatus", "dolm_ric_ri_getmoduleinfo",
          "dolm_ric_ri_getmodstatus", "dolm_ric_ri_getmodulediag"},
         true,
         serving,
         {0}},
        {{"malloc"}, true, serving, {0, -SIGABRT}},
        {{"pthread_mutex_lock"}, true, serving, {bad_lock}},
        {{"pthread_mutex_unlock"}, true, serving, {bad_unlock}},
    });
}

TEST_F(faults_test, procedures_survive_failing_libraries)
{
    try_all({
        {{"epoll_ctl", "epoll_wait", "accept4", "socketpair", "setsockopt", "send", "sendmsg",
          "recv", "recvmsg", "recvmmsg", "timerfd_settime"},
         false,
         serving,
         {0}},
        {{"malloc", "mmap"}, false, serving, {0, -SIGABRT, -SIGTRAP}},
    });
}

TEST_F(faults_test, the_end_is_orderly_or_tells_what_broke)
{
    try_all({
        {{"pthread_mutex_lock"}, true, ending, {bad_lock}},
        {{"pthread_mutex_unlock"}, true, ending, {bad_unlock}},
        {{"epoll_wait"}, true, ending, {0}},
        {{"malloc"}, false, ending, {0, -SIGABRT, -SIGTRAP}},
    });
}

} // namespace
