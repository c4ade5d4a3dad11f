/* SPDX-License-Identifier: Apache-2.0 */
/* session - the connection of a command to the server, for as long as the object lives. One thread.
 */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tools/teskctl/event_loop.h"
#include "tools/teskctl/settings.h"

#include <functional>

class session
{
  public:
    struct handlers {
        std::function<void(const tesk_client_sfp_info &)> sfp_info;
        std::function<void(const tesk_client_port_status &)> port_status;
        std::function<void(const tesk_client_event &)> event;
    };

    /* Throws a tool_error if there is no server; with --wait only after that time, or when the loop
       receives a process signal. With `reconnect` the session reconnects after a loss. */
    session(event_loop &loop, const settings &common, handlers called, bool reconnect);
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    tesk_client_session *get() const
    {
        return session_;
    }
    bool is_connected() const
    {
        return tesk_client_connected(session_);
    }

    /* `called` is called exactly once, at the latest when the session closes: references that it
       captures must outlive the session. It must not throw. */
    using answered = std::function<void(const tesk_client_answer &)>;
    void request(tesk_client_request_type type, uint32_t port_no, answered called);

  private:
    handlers handlers_;
    tesk_client_session *session_ = nullptr;
};
