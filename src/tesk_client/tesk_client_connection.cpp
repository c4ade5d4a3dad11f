/* SPDX-License-Identifier: Apache-2.0 */
/* The connection to the server: establishment, loss and retry.

   Each connection has a mailbox of its own, created before the establishment and deleted when the
   server is lost or doesn't answer. A signal for an earlier connection therefore can't arrive, and
   a server that confirms an establishment too late sees that client die. */
#include "tesk_client/tesk_client_session.h"

#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>
#include <system_error>
#include <utility>

static outcome failure(tesk_client_result result, std::string text)
{
    outcome failed;
    failed.result = result;
    failed.text = std::move(text);
    return failed;
}

static std::string system_text(const char *what, int error)
{
    return std::string(what) + ": " + std::generic_category().message(error);
}

static outcome locate_failure(int error)
{
    const std::string name = std::string("mailbox \"") + TESK_SERVER_NAME + "\"";
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return failure(TESK_CLIENT_NO_SERVER, "no process has the " + name);
    case EACCES:
    case EPERM:
        return failure(TESK_CLIENT_NO_ACCESS, "no permission for " + name);
    case EUSERS:
        return failure(TESK_CLIENT_FAILED, name + " has no place for more connections of this "
                                                  "user or process: end some of them");
    case ETIMEDOUT:
        return failure(TESK_CLIENT_TIMEOUT, name + " doesn't accept a connection in time");
    default:
        return failure(TESK_CLIENT_FAILED, system_text("mbx_locate", error));
    }
}

int add_to_epoll(int epoll, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

outcome tesk_client_session::begin_connection()
{
    end_connection(); /* an attempt that ran out of memory didn't delete its mailbox */
    mailbox_ = mbx_create_mailbox(nullptr, 0);
    if (mailbox_ == MBX_NO_MAILBOX)
        return failure(TESK_CLIENT_FAILED, system_text("mbx_create_mailbox", errno));
    server_ = mbx_locate(TESK_SERVER_NAME);
    if (server_ == MBX_NO_MAILBOX) {
        const int error = errno;
        end_connection();
        return locate_failure(error);
    }
    if (add_to_epoll(epoll_.get(), mbx_get_fd()) != 0) {
        const int error = errno;
        end_connection();
        return failure(TESK_CLIENT_FAILED, system_text("epoll_ctl", error));
    }
    mailbox_fd_ = mbx_get_fd();
    /* Starts before the first signal is sent, so that the server's death right after the signal is
       reported, too. */
    monitor_ = mbx_monitor(server_, nullptr);

    const size_t size = sizeof(tesk_conn_establish_req) + sizeof(uint32_t);
    mbx_signal *signal = mbx_alloc(size, TESK_CONN_ESTABLISH_REQ);
    auto *request = reinterpret_cast<tesk_conn_establish_req *>(signal);
    request->procedure_ref = ++last_procedure_ref_;
    request->connection_ref = conn_ref_;
    request->number_of_rev = 1;
    request->protocol_rev[0] = TESK_PROTOCOL_REVISION;
    tesk_swap_byte_order(*request);
    tesk_swap_words(request->protocol_rev[0]);
    mbx_send(&signal, server_, MBX_OWN_MAILBOX);

    state_ = state::establishing;
    phase_end_ = steady_clock::now() + std::chrono::milliseconds(options_.deadline_ms);
    return {};
}

void tesk_client_session::end_connection()
{
    if (mailbox_ == MBX_NO_MAILBOX)
        return;
    if (mailbox_fd_ >= 0) {
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, mailbox_fd_, nullptr);
        mbx_unmonitor(monitor_);
    }
    mbx_delete_mailbox(mailbox_);
    mailbox_ = server_ = MBX_NO_MAILBOX;
    mailbox_fd_ = -1;
}

/* After a failed attempt or the loss of the server: schedules the next attempt if the session
   reconnects. The first connection is not retried: tesk_client_connect reports its failure. */
void tesk_client_session::retry_later()
{
    end_connection();
    if (!options_.reconnect || !was_connected_) {
        state_ = state::ended;
        return;
    }
    state_ = state::waiting;
    phase_end_ = steady_clock::now() + retry_;
    retry_ = std::min(retry_ * 2, std::chrono::milliseconds(options_.longest_retry_ms));
}

void tesk_client_session::lose_server()
{
    const bool had_connection = state_ == state::connected;
    /* Before the callbacks, so that their requests wait for the next connection. */
    retry_later();
    if (!had_connection) { /* the connection was never reported */
        establishment_ = failure(TESK_CLIENT_LOST, "the server went away while connecting");
        return;
    }
    tesk_client_event event{};
    event.type = TESK_CLIENT_EVENT_LOST;
    event.result = TESK_CLIENT_LOST;
    event.text = tesk_client_result_text(TESK_CLIENT_LOST);
    report(event);
    fail_sent_requests();
}

/* The confirmation has the server's reference instead of ours, so that only the procedure_ref shows
   that it belongs to this establishment. */
void tesk_client_session::receive_establishment(const mbx_signal *signal)
{
    if (state_ != state::establishing)
        return;
    if (signal->number == TESK_CONN_ESTABLISH_REJ) {
        const auto rej = host_copy_of<tesk_conn_establish_rej>(signal);
        if (!rej || rej->procedure_ref != last_procedure_ref_)
            return;
        retry_later();
        establishment_ = failure(TESK_CLIENT_REJECTED, decode_error_text(rej->error_description));
        return;
    }
    const auto cfm = host_copy_of<tesk_conn_establish_cfm>(signal);
    if (!cfm || cfm->procedure_ref != last_procedure_ref_ ||
        cfm->protocol_rev != TESK_PROTOCOL_REVISION)
        return;
    client_id_ = cfm->connection_ref;
    state_ = state::connected;
    retry_ = std::chrono::milliseconds(options_.retry_ms);
    if (!std::exchange(was_connected_, true))
        return; /* the first connection: nothing to report and nothing to renew */
    renewing_ = true;
    tesk_client_event event{};
    event.type = TESK_CLIENT_EVENT_RESTORED;
    event.text = "the server is back";
    report(event);
}
