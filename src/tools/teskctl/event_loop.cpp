/* SPDX-License-Identifier: Apache-2.0 */
/* A command is one thread and one loop: nothing happens outside of event_loop::wait. A signalfd
   replaces signal handlers. */
#include "tools/teskctl/event_loop.h"

#include "program/exit_code.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

static int new_signalfd(const std::vector<int> &signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals)
        sigaddset(&set, number);
    /* Threads inherit the mask, so threads that a mailbox library starts later receive none of
       these signals. */
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

event_loop::event_loop(const std::vector<int> &signals) : signals_(new_signalfd(signals))
{
    if (!signals_.is_open())
        throw tool_error(exit_code::fault,
                         fmt::format("process signals can't be read: {}", std::strerror(errno)));
}

bool event_loop::read_signal()
{
    signalfd_siginfo info{};
    if (read(signals_.get(), &info, sizeof(info)) != sizeof(info))
        return false;
    signal_ = static_cast<int>(info.ssi_signo);
    return true;
}

/* `events` are poll's for standard output; poll reports an error or a hang-up even if not
   requested. */
bool event_loop::has_lost_reader(short events)
{
    if ((events & (POLLERR | POLLHUP)) == 0)
        return false;
    signal_ = SIGPIPE;
    return true;
}

event_loop::wake event_loop::wait(tesk_client_session *server, std::optional<steady_time> end)
{
    pollfd polled[] = {{tesk_client_fd(server), POLLIN, 0},
                       {signals_.get(), POLLIN, 0},
                       {has_keys_ ? STDIN_FILENO : -1, POLLIN, 0},
                       {STDOUT_FILENO, 0, 0}};
    int timeout = -1;
    if (end) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*end - std::chrono::steady_clock::now());
        /* At most an hour, since poll takes an int: the caller checks the time again. */
        timeout = static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3'600'000));
    }
    if (poll(polled, std::size(polled), timeout) <= 0)
        return wake::time;
    /* Signals and keys come first: a busy session must not delay them without limit. */
    if ((polled[1].revents != 0 && read_signal()) || has_lost_reader(polled[3].revents))
        return wake::signal;
    if (polled[2].revents != 0) {
        char bytes[64];
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
        /* At its end, standard input stays readable, so it is no longer polled. */
        has_keys_ = count > 0;
        keys_.assign(bytes, has_keys_ ? static_cast<size_t>(count) : 0);
        return has_keys_ ? wake::key : wake::session;
    }
    tesk_client_dispatch(server);
    return wake::session;
}

bool event_loop::sleep(std::chrono::milliseconds duration)
{
    pollfd polled[] = {{signals_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    if (poll(polled, std::size(polled), static_cast<int>(duration.count())) <= 0)
        return true;
    return !(polled[0].revents != 0 && read_signal()) && !has_lost_reader(polled[1].revents);
}
