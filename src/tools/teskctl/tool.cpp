/* SPDX-License-Identifier: Apache-2.0 */
/* Everything goes through one poll: the session's descriptor, a signalfd in place of handlers, and
   standard input where keys are wanted. So a command is one thread and one loop, and nothing
   happens but in event_loop::wait.

   Requests are made without waiting. A callback owns its function until the answer comes, which the
   client library promises for each request, if only as cancelled when the session is closed. */
#include "tools/teskctl/tool.h"

#include "tools/common/socket_group.h"
#include "tools/teskctl/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <memory>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

static constexpr char server_name[] = "tesk-server";

static std::string mailbox_directory()
{
    const char *directory = std::getenv("MBX_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "/run/mbx";
}

/* A terminal on a serial line tells no size: it is taken for one of the usual size. */
static winsize window()
{
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    if (size.ws_col == 0)
        size.ws_col = 80;
    if (size.ws_row == 0)
        size.ws_row = 24;
    return size;
}

size_t terminal_width(const settings &settings)
{
    return settings.terminal ? window().ws_col : 0;
}

size_t terminal_height()
{
    return window().ws_row;
}

exit_code exit_code_of(tesk_client_result result)
{
    switch (result) {
    case TESK_CLIENT_OK:
        return exit_done;
    case TESK_CLIENT_REJECTED:
        return exit_rejected;
    case TESK_CLIENT_MISUSE:
        return exit_usage;
    case TESK_CLIENT_TIMEOUT:
        return exit_no_answer;
    default:
        return exit_no_server;
    }
}

std::string explain(tesk_client_result result, const std::string &text)
{
    switch (result) {
    case TESK_CLIENT_NO_SERVER:
        return fmt::format("no server: nobody answers to the name \"{0}\" in {1}; start it with "
                           "\"MBX_DIR={1} {0}\", or set MBX_DIR to the directory of the one that "
                           "runs",
                           server_name, mailbox_directory());
    case TESK_CLIENT_NO_ACCESS:
        return fmt::format("no access to \"{}\" in {}: become a member of group {}, or use sudo",
                           server_name, mailbox_directory(),
                           socket_group(mailbox_directory() + "/" + server_name));
    case TESK_CLIENT_TIMEOUT:
        return fmt::format("{}: is {} stopped or busy? --timeout gives it longer", text,
                           server_name);
    case TESK_CLIENT_REJECTED:
        return "rejected by the server: " + escape(text);
    default:
        return text;
    }
}

session::session(const settings &settings, handlers called, bool reconnect)
    : handlers_(std::move(called))
{
    tesk_client_options options{};
    options.deadline_ms = settings.timeout_ms;
    options.reconnect = reconnect;
    options.user = &handlers_;
    /* C callbacks know only a pointer; it leads to the functions of this object. */
    options.on_sfp_info = [](const tesk_client_sfp_info *info, void *user) {
        if (auto *to = static_cast<session::handlers *>(user); to->sfp_info)
            to->sfp_info(*info);
    };
    options.on_port_status = [](const tesk_client_port_status *status, void *user) {
        if (auto *to = static_cast<session::handlers *>(user); to->port_status)
            to->port_status(*status);
    };
    options.on_event = [](const tesk_client_event *event, void *user) {
        if (auto *to = static_cast<session::handlers *>(user); to->event)
            to->event(*event);
    };
    const tesk_client_result result = tesk_client_connect(&options, &session_);
    if (result != TESK_CLIENT_OK)
        throw tool_error(exit_code_of(result), explain(result, tesk_client_error()));
}

/* Closing cancels what is open, and those who asked hear of it; the handlers' owner is already on
   its way out and hears of nothing more. */
session::~session()
{
    handlers_ = {};
    tesk_client_close(session_);
}

void session::request(tesk_client_request_type type, uint32_t port_no, answered called)
{
    auto owned = std::make_unique<session::answered>(std::move(called));
    const tesk_client_result result = tesk_client_request(
        session_, type, port_no,
        [](const tesk_client_answer *answer, void *user) {
            std::unique_ptr<session::answered> call(static_cast<session::answered *>(user));
            (*call)(*answer);
        },
        owned.get());
    if (result != TESK_CLIENT_OK)
        throw tool_error(exit_code_of(result), explain(result, tesk_client_error()));
    static_cast<void>(owned.release()); /* the callback has it now */
}

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
        throw tool_error(exit_no_server, "signalfd failed: too many open files?");
}

event_loop::~event_loop()
{
    close(signal_fd_);
}

event_loop::wake event_loop::wait(const session &session, std::optional<steady_time> end)
{
    pollfd polled[] = {{tesk_client_fd(session.get()), POLLIN, 0},
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
    tesk_client_dispatch(session.get());
    return wake::session;
}

std::vector<port_request> requests_for(tesk_client_request_type type,
                                       const std::vector<uint32_t> &ports)
{
    std::vector<port_request> requests;
    requests.reserve(ports.size());
    for (const uint32_t port : ports)
        requests.push_back({type, port});
    return requests;
}

void request_all(event_loop &loop, session &session, const std::vector<port_request> &requests,
                 const session::answered &answered)
{
    /* A process signal or a failed request ends this call before all answers are there: they come
       later, the last of them when the session is closed. The callbacks hold what they touch
       weakly, so that they find nothing once this call is over. */
    struct batch {
        size_t open;
        const session::answered &answered;
    };
    const auto all = std::make_shared<batch>(batch{requests.size(), answered});
    for (const port_request &request : requests)
        session.request(request.type, request.port_no,
                        [weak = std::weak_ptr(all)](const tesk_client_answer &answer) {
                            const auto waiting = weak.lock();
                            if (!waiting)
                                return;
                            --waiting->open;
                            waiting->answered(answer);
                        });
    while (all->open > 0 && loop.wait(session, std::nullopt) != event_loop::wake::signal) {
    }
}

std::vector<port_request> subscribe_all(event_loop &loop, session &session,
                                        const std::vector<port_request> &wanted,
                                        const session::answered &failed)
{
    std::vector<port_request> held;
    request_all(loop, session, wanted, [&](const tesk_client_answer &answer) {
        if (answer.result == TESK_CLIENT_OK) {
            /* Each unsubscribe stands behind its subscribe. */
            held.push_back(
                {static_cast<tesk_client_request_type>(answer.request + 1), answer.port_no});
        } else {
            failed(answer);
        }
    });
    return held;
}
