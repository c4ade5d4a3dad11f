/* SPDX-License-Identifier: Apache-2.0 */
/* cost - programs that the server's own costs are compared with:

     nothing          does nothing and waits to be killed
     board            the same with a simulated board, whose memory is no cost of the server
     start COMMAND    starts the server, and prints the nanoseconds until a client has its first
                      answer
     run COMMAND      runs a program to its end, and prints the nanoseconds
     empty            ends at once */
#include "benchmarks/tesk_link.h"
#include "platform/dolm_ric/dolm_ric.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace bench;

static constexpr int64_t patience_ns = 10'000'000'000;

static pid_t start(char *const *command)
{
    pid_t pid;
    if (posix_spawn(&pid, command[0], nullptr, nullptr, command, environ) != 0)
        fail(std::string("can't run ") + command[0]);
    return pid;
}

static int64_t time_first_answer(char *const *command)
{
    const int64_t begin = now_ns();
    const pid_t pid = start(command);
    tesk_link link(waiting::in_epoll, patience_ns);
    link.connect();
    link.send(TESK_GET_CAPABILITIES_REQ);
    link.await(TESK_GET_CAPABILITIES_CFM);
    const int64_t time = now_ns() - begin;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return time;
}

static int64_t time_run(char *const *command)
{
    const int64_t begin = now_ns();
    waitpid(start(command), nullptr, 0);
    return now_ns() - begin;
}

[[noreturn]] static void wait_to_be_killed()
{
    std::puts("[]");
    std::fflush(stdout);
    for (;;)
        pause();
}

static int run(std::span<char *> words)
{
    const std::string what = words.size() > 1 ? words[1] : "";
    uintptr_t handle;
    if (what == "start" && words.size() > 2)
        print_list({{time_first_answer(&words[2])}});
    else if (what == "run" && words.size() > 2)
        print_list({{time_run(&words[2])}});
    else if (what == "board" && dolm_ric_init(&handle, 0) == 0)
        wait_to_be_killed();
    else if (what == "nothing")
        wait_to_be_killed();
    else if (what != "empty")
        fail("nothing | board | start COMMAND | run COMMAND | empty");
    return 0;
}

int main(int count, char **words)
{
    return report_failures(run, count, words);
}
