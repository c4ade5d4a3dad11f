/* SPDX-License-Identifier: Apache-2.0 */
/* Start, failed starts, stop: the unchanged executable on scripted libraries, and the ends of a
   process that a broken mutex brings about. */
#include "tesk_server/tesk_client_data.h"
#include "testkit/fake_platform/server_fixture.h"

#include <csignal>
#include <fcntl.h>
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

/* Runs the executable. `stop_at`: SIGTERM is sent when this line and that of the event thread,
   which may be the one that it hits, have come. */
static outcome run_server(const char *failing, const std::string &stop_at, bool pending = false)
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
            sigset_t stop;
            sigemptyset(&stop);
            sigaddset(&stop, SIGTERM);
            sigprocmask(SIG_BLOCK, &stop, nullptr);
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
            thread_started = true; /* beside the main thread, at any place of the log */
        else
            result.log.push_back(text);
        if (thread_started && !result.log.empty() && result.log.back() == stop_at)
            kill(child, SIGTERM);
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

TEST(life, starts_and_stops_in_order)
{
    const lines signalled = {"[4] Received signal 15, terminating..."};
    const outcome run = run_server("", "[4] TESK server started!");
    EXPECT_EQ(run.log, starting + signalled + stopping);
    EXPECT_EQ(run.status, 0);
}

TEST(life, a_stop_that_came_before_the_start_is_an_orderly_stop)
{
    const outcome run = run_server("", "", true);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.log.at(4), "[4] Received signal 15, terminating...");
    EXPECT_EQ(run.log.at(8), "[4] TESK server started!");
    EXPECT_EQ(run.log.back(), stopping.back());
}

TEST(life, a_failed_start_says_why_and_ends_in_the_same_order)
{
    const lines without_hardware = {"tmo_service_stop", "mbx_delete_mailbox", "mbx_exit",
                                    "[4] TESK server terminated"};
    static const struct {
        const char *call;
        lines said;
        size_t started;
        int status;
    } cases[] = {
        {"mbx_init", {"Unable to initialize MBX!"}, 1, 242},
        {"zel_init", {"Unable to initialize ZEL!"}, 2, 242},
        {"mbx_create_mailbox", {"[1] Unable to create TESK-server mailbox!"}, 4, 242},
        {"dolm_ric_init",
         {"[1] dolm_ric_init: -11 (internal error)", "[1] pthread_create: -11 (Unknown error -11)"},
         5,
         242},
        {"mbx_get_fd", {"[1] epoll_ctl: 9 (Bad file descriptor)"}, 7, 255},
    };
    for (const auto &failure : cases) {
        const outcome run = run_server(failure.call, "");
        const lines begun(starting.begin(), starting.begin() + static_cast<long>(failure.started));
        lines expected =
            begun + failure.said + (failure.status == 255 ? stopping : without_hardware);
        if (failure.started == 1) /* the trace library has not told a mask yet */
            expected.pop_back();
        EXPECT_EQ(run.log, expected);
        EXPECT_EQ(run.status, failure.status);
    }
}

TEST(life, a_timer_service_that_fails_does_not_stop_the_start)
{
    const outcome run = run_server("tmo_service_init", "[4] TESK server started!");
    EXPECT_EQ(run.log.at(6), "[1] Timer Service failed to start!");
    EXPECT_EQ(run.log.at(8), "[4] TESK server started!");
    EXPECT_EQ(run.status, 0);
}

/* The linker sends the server's own calls here. */
static bool lock_fails, unlock_fails;

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    return lock_fails ? EINVAL : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    return unlock_fails ? EPERM : __real_pthread_mutex_unlock(mutex);
}
}

TEST(life, a_broken_mutex_ends_the_process)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static void (*const uses[])() = {
        [] { tesk_client_find(0, 0); },
        [] { tesk_client_find_by_sender(0); },
        [] { tesk_client_data_reset(); },
        [] { tesk_event_queue_shutdown(); },
    };
    for (const auto use : uses) {
        EXPECT_EXIT((lock_fails = true, use()), testing::ExitedWithCode(255), "");
        EXPECT_EXIT((unlock_fails = true, use()), testing::ExitedWithCode(254), "");
    }
}
