/* SPDX-License-Identifier: Apache-2.0 */
/* Start, failed starts and stop of the unchanged executable on scripted libraries, and the end of a
   process caused by a broken mutex. */
#include "tesk_server/tesk_client_data.h"
#include "testkit/fake_platform/client_fixture.h"

#include <algorithm>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using lines = std::vector<std::string>;

static const lines starting = {
    "mbx_init",      "zel_init",         "thread tesk-server", "mbx_create_mailbox tesk-server",
    "dolm_ric_init", "tmo_service_init", "mbx_get_fd",         "[4] TESK server started!"};
static const lines stopping = {"tmo_service_stop", "dolm_ric_shutdown", "mbx_delete_mailbox",
                               "mbx_exit", "[4] TESK server terminated"};

struct outcome {
    lines log;
    int status;
};

static void stop_process(pid_t process)
{
    kill(process, SIGTERM);
}

/* Runs the executable. `stop` is called when the line `stop_at` and the line of the event thread
   were logged; a signal may be delivered to either thread. */
static outcome run_server(const char *failing, const std::string &stop_at, bool pending = false,
                          void (*stop)(pid_t process) = stop_process)
{
    int out[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        setenv("LD_LIBRARY_PATH", TESK_LIB_DIR "/fake_platform", 1);
        setenv("SCRIPTED_LOG", "1", 1);
        setenv("SCRIPTED_FAIL", failing, 1);
        dup2(out[1], STDOUT_FILENO);
        dup2(out[1], STDERR_FILENO);
        if (pending) {
            sigset_t blocked;
            sigemptyset(&blocked);
            sigaddset(&blocked, SIGTERM);
            sigprocmask(SIG_BLOCK, &blocked, nullptr);
            raise(SIGTERM);
        }
        execl(TESK_BIN_DIR "/tesk-server", "tesk-server", nullptr);
        _exit(127);
    }
    close(out[1]);
    outcome result;
    FILE *stream = fdopen(out[0], "r");
    char line[512];
    bool thread_started = false;
    while (fgets(line, sizeof(line), stream) != nullptr) {
        std::string text(line, strcspn(line, "\n"));
        if (text == "thread tesk-s-dolm-e")
            thread_started = true; /* logged in parallel, so at any place */
        else
            result.log.push_back(text);
        if (thread_started && !result.log.empty() && result.log.back() == stop_at)
            stop(child);
    }
    fclose(stream);
    int status;
    waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return result;
}

static lines operator+(lines left, const lines &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/* Both threads block all signals but SIGTERM and SIGINT. ThreadSanitizer has a thread of its own,
   with the name of the process. */
static void stop_event_thread(pid_t process)
{
    std::map<std::string, pid_t> threads;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        const int id = std::stoi(task.path().filename());
        std::ifstream status(task.path() / "status");
        std::string word, name;
        for (status >> word >> name; word != "SigBlk:";)
            status >> word;
        uint64_t blocked;
        status >> std::hex >> blocked;
        if (name == "tesk-server" && id != process)
            continue;
        threads[name] = id;
        for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM,
                           SIGCHLD, SIGTSTP, SIGWINCH, SIGIO, SIGRTMIN, SIGRTMAX})
            EXPECT_EQ(blocked >> (number - 1) & 1, number != SIGINT && number != SIGTERM)
                << name << ", " << number;
    }
    ASSERT_EQ(threads.count("tesk-server"), 1u);
    syscall(SYS_tgkill, process, threads.at("tesk-s-dolm-e"), SIGTERM);
}

static void interrupt_process(pid_t process)
{
    kill(process, SIGINT);
}

TEST(process, a_stop_signal_to_the_event_thread_alone_stops_the_server)
{
    for (const auto stop : {stop_event_thread, interrupt_process}) {
        const outcome run = run_server("", "[4] TESK server started!", false, stop);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.log.size(), starting.size() + 1 + stopping.size());
        EXPECT_EQ(run.log.at(starting.size()).substr(0, 20), "[4] Received signal ");
    }
}

TEST(process, a_stop_signal_from_before_the_start_stops_the_server_cleanly)
{
    const outcome run = run_server("", "", true);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.log.at(4), "[4] Received signal 15, terminating...");
    EXPECT_EQ(run.log.at(8), "[4] TESK server started!");
    EXPECT_EQ(run.log.back(), stopping.back());
}

TEST(process, starts_and_stops_in_order_or_reports_why_it_ends)
{
    const lines without_hardware = {"tmo_service_stop", "mbx_delete_mailbox", "mbx_exit",
                                    "[4] TESK server terminated"};
    static const struct {
        const char *call;
        size_t started;
        lines said;
        int status;
    } cases[] = {
        {"", 8, {}, 0},
        {"tmo_service_init", 6, {"[1] Timer Service failed to start!"}, 0},
        {"mbx_init", 1, {"Unable to initialize MBX!"}, 242},
        {"zel_init", 2, {"Unable to initialize ZEL!"}, 242},
        {"mbx_create_mailbox", 4, {"[1] Unable to create TESK-server mailbox!"}, 242},
        {"dolm_ric_init",
         5,
         {"[1] dolm_ric_init: -11 (internal error)", "[1] pthread_create: -11 (Unknown error -11)"},
         242},
        {"mbx_get_fd", 7, {"[1] epoll_ctl: 9 (Bad file descriptor)"}, 255}};
    for (const auto &[call, started, said, status] : cases) {
        const outcome run = run_server(call, starting.back());
        const auto failed = starting.begin() + static_cast<long>(started);
        lines expected = lines(starting.begin(), failed) + said;
        if (status == 0)
            expected = expected + lines(failed, starting.end()) +
                       lines{"[4] Received signal 15, terminating..."};
        expected = expected + (status == 242 ? without_hardware : stopping);
        if (started == 1) /* the mask isn't set yet */
            expected.pop_back();
        EXPECT_EQ(run.log, expected);
        EXPECT_EQ(run.status, status);
    }
}

/* The linker redirects the server's calls to these. */
static bool lock_fails, unlock_fails;
static bool was_queue_open_at_join;
static std::deque<int (*)(epoll_event *events)> wake_ups;

extern "C" {
decltype(pthread_mutex_lock) __real_pthread_mutex_lock, __wrap_pthread_mutex_lock;
decltype(pthread_mutex_unlock) __real_pthread_mutex_unlock, __wrap_pthread_mutex_unlock;
decltype(pthread_join) __real_pthread_join, __wrap_pthread_join;
decltype(epoll_wait) __wrap_epoll_wait;

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) noexcept
{
    return lock_fails ? EINVAL : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) noexcept
{
    return unlock_fails ? EPERM : __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_join(pthread_t thread, void **result)
{
    const int code = __real_pthread_join(thread, result);
    was_queue_open_at_join = fcntl(tesk_event_queue_get_fd(), F_GETFD) != -1;
    return code;
}

int __wrap_epoll_wait(int, epoll_event *events, int size, int timeout)
{
    EXPECT_TRUE(size == 2 && timeout == -1);
    const auto wake_up = wake_ups.front();
    wake_ups.pop_front();
    return wake_up(events);
}
}

using life = client_fixture;

TEST_F(life, a_broken_mutex_ends_the_process)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static void (*const uses[])() = {
        [] { tesk_client_find(0, 0); },
        [] { tesk_client_find_by_sender(0); },
        [] { tesk_client_add(7, 7); },
        [] { tesk_client_remove(tesk_client_first()); },
        [] { tesk_client_data_reset(); },
        [] {
            tesk_event_queue_put(static_cast<tesk_hw_event *>(calloc(1, sizeof(tesk_hw_event))));
        },
        [] { tesk_event_queue_take_all(); },
        [] { tesk_event_queue_shutdown(); }};
    connect(alice);
    tesk_event_queue_put(static_cast<tesk_hw_event *>(calloc(1, sizeof(tesk_hw_event))));
    for (const auto use : uses) {
        EXPECT_EXIT((lock_fails = true, use()), testing::ExitedWithCode(255), "");
        EXPECT_EXIT((unlock_fails = true, use()), testing::ExitedWithCode(254), "");
    }
    /* No mutex is locked when an operation has returned. */
    tesk_client_data_reset();
    free(tesk_event_queue_take_all());
}

/* While the library shuts down, its thread can still add events to the queue. */
TEST_F(life, the_queue_outlives_the_event_thread)
{
    fake_platform::last_events = {port_event(3, 1), link_event(3, 2)};
    fake_platform::take_log();
    tesk_server_shutdown();
    EXPECT_EQ(fake_platform::freed_events(), 3);
    EXPECT_TRUE(was_queue_open_at_join);
    EXPECT_EQ(tesk_event_queue_get_fd(), -1);
    start({});
    pollfd fd = {tesk_event_queue_get_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&fd, 1, 0), 0) << "nothing is left of the events at the end";
    /* If a wait fails while the library stops, the thread ends, too. */
    fake_platform::last_wait = DOLM_RICERR_SHUTDOWN;
    tesk_server_shutdown();
    EXPECT_EQ(fake_platform::freed_events(), 0);
}

/* An interrupted wait is repeated; if the first of two events of one wake-up stops the server, the
   second isn't handled. */
TEST_F(life, the_loop_ends_with_the_exit_signal_and_handles_nothing_after_it)
{
    tesk_server_shutdown();
    fake_platform::reset({1, 4});
    sigset_t mask;
    struct sigaction terminate, interrupt;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigaction(SIGTERM, nullptr, &terminate);
    sigaction(SIGINT, nullptr, &interrupt);
    fake_platform::failing["zel_init"] = 4;
    wake_ups = {};
    wake_ups.push_back([](epoll_event *) { return -1; });
    wake_ups.push_back([](epoll_event *events) {
        fake_platform::deliver(stranger, TESK_EXIT_SIGNAL, {});
        events[0] = {.events = EPOLLIN, .data = {.u32 = 1}};
        return 1;
    });
    wake_ups.push_back([](epoll_event *events) {
        auto *event = static_cast<tesk_hw_event *>(calloc(1, sizeof(tesk_hw_event)));
        event->type = 7;
        tesk_event_queue_put(event);
        fake_platform::deliver(fake_platform::own_mailbox, TESK_EXIT_SIGNAL, {});
        events[0] = {.events = EPOLLIN, .data = {.u32 = 1}};
        events[1] = {.events = EPOLLIN, .data = {.u32 = 0}};
        return 2;
    });
    EXPECT_EQ(tesk_run(), 0);
    EXPECT_TRUE(wake_ups.empty());
    const auto found = fake_platform::take_log();
    EXPECT_EQ(std::ranges::count(found, "[1] Unknown event: 7"), 0);
    EXPECT_EQ(std::ranges::count(found, "[4] TESK server terminated"), 1);
    sigaction(SIGTERM, &terminate, nullptr);
    sigaction(SIGINT, &interrupt, nullptr);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}
