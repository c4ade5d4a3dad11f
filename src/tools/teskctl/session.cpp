/* SPDX-License-Identifier: Apache-2.0 */
/* Requests don't block. A callback owns its function until the answer: the client library calls it
   for each request, at the latest as cancelled when the session closes. */
#include "tools/teskctl/session.h"

#include "tools/teskctl/event_loop.h"
#include "tools/teskctl/explain.h"

#include <memory>

using std::chrono::steady_clock;

static constexpr std::chrono::milliseconds retry_interval{100};

/* Connects; without a server, tries again while time is left. */
static tesk_client_result connect(event_loop &loop, const settings &common,
                                  const tesk_client_options &options, tesk_client_session **made)
{
    const double wait_seconds = common.wait_seconds;
    const steady_time end =
        steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(
                                  std::chrono::duration<double>(wait_seconds));
    while (true) {
        const tesk_client_result result = tesk_client_connect(&options, made);
        const bool is_away = result == TESK_CLIENT_NO_SERVER || result == TESK_CLIENT_TIMEOUT ||
                             result == TESK_CLIENT_LOST;
        if (!is_away || steady_clock::now() >= end || !loop.sleep(retry_interval))
            return result;
    }
}

session::session(event_loop &loop, const settings &common, handlers called, bool reconnect)
    : handlers_(std::move(called))
{
    tesk_client_options options{};
    options.deadline_ms = common.timeout_ms;
    options.reconnect = reconnect;
    options.user = &handlers_;
    /* C callbacks have one pointer: it points to the functions of this object. */
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
    const tesk_client_result result = connect(loop, common, options, &session_);
    if (result != TESK_CLIENT_OK)
        throw tool_error(exit_code_of(result), explain(result, tesk_client_error()));
}

/* Closing cancels open requests, and their functions are called. The handlers are not called: their
   owner is being destroyed. */
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
    static_cast<void>(owned.release()); /* the callback owns the function now */
}
