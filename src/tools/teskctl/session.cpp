/* SPDX-License-Identifier: Apache-2.0 */
/* Requests are made without waiting. A callback owns its function until the answer comes, which the
   client library promises for each request, at the latest as cancelled when the session closes. */
#include "tools/teskctl/session.h"

#include "tools/teskctl/explain.h"

#include <memory>

session::session(const settings &common, handlers called, bool reconnect)
    : handlers_(std::move(called))
{
    tesk_client_options options{};
    options.deadline_ms = common.timeout_ms;
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
