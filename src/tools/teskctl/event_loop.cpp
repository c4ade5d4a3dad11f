/* SPDX-License-Identifier: Apache-2.0 */
/* A command is one thread and one loop: nothing happens outside of event_loop::wait. A signalfd
   stands in place of signal handlers. */
#include "tools/teskctl/event_loop.h"

#include "tools/common/exit_code.h"

#include <algorithm>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

event_loop::event_loop(const std::vector<int> &signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals)
        sigaddset(&set, number);
    /* Threads inherit the mask: those that a mailbox library starts later take none of them. */
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal_fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signal_fd_ < 0)
        throw tool_error(exit_code::no_server, "signalfd failed: too many open files?");
}

event_loop::~event_loop()
{
    close(signal_fd_);
}

event_loop::wake event_loop::wait(const session &server, std::optional<steady_time> end)
{
    pollfd polled[] = {{tesk_client_fd(server.get()), POLLIN, 0},
                       {signal_fd_, POLLIN, 0},
                       {keys_ ? STDIN_FILENO : -1, POLLIN, 0}};
    int timeout = -1;
    if (end) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*end - std::chrono::steady_clock::now());
        /* At most an hour, since poll counts in an int: the caller looks at the time again. */
        timeout = static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3'600'000));
    }
    if (poll(polled, std::size(polled), timeout) <= 0)
        return wake::time;
    /* A process signal first: a busy session could keep the loop from ever seeing it. */
    signalfd_siginfo info{};
    if (polled[1].revents != 0 && read(signal_fd_, &info, sizeof(info)) == sizeof(info)) {
        signal_ = static_cast<int>(info.ssi_signo);
        return wake::signal;
    }
    if (polled[2].revents != 0) {
        /* At the end of standard input it would be readable for ever. */
        keys_ = read(STDIN_FILENO, &key_, 1) == 1;
        return keys_ ? wake::key : wake::session;
    }
    tesk_client_dispatch(server.get());
    return wake::session;
}
