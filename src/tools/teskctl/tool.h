/* SPDX-License-Identifier: Apache-2.0 */
/* tool - what all commands of teskctl share: the settings, exit codes, the session and the loop
   that waits for it, for process signals and for keys. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

enum exit_code : int {
    exit_done = 0,
    exit_rejected = 1,
    exit_usage = 2,
    exit_no_server = 3,
    exit_no_answer = 4,
    exit_no_output = 5,
    exit_fault = 70, /* EX_SOFTWARE: our own */
};

/* Ends the command with a code and one line that says what to do. */
class tool_error : public std::runtime_error
{
  public:
    tool_error(exit_code code, const std::string &text) : std::runtime_error(text), code_(code)
    {
    }
    exit_code code() const
    {
        return code_;
    }

  private:
    exit_code code_;
};

struct settings {
    bool json = false;
    bool colour = false;
    bool terminal = false; /* standard output is one */
    uint32_t timeout_ms = 2000;
};

/* The columns of the terminal, 0 where output goes elsewhere and lines may be of any length. Asked
   each time, since a window changes. */
size_t terminal_width(const settings &settings);
size_t terminal_height();

exit_code exit_code_of(tesk_client_result result);

/* What is wrong and what to do about it, for one line on standard error. */
std::string explain(tesk_client_result result, const std::string &text);

using steady_time = std::chrono::steady_clock::time_point;

/* A connection to the server for as long as it stands in scope. */
class session
{
  public:
    struct handlers {
        std::function<void(const tesk_client_sfp_info &)> sfp_info;
        std::function<void(const tesk_client_port_status &)> port_status;
        std::function<void(const tesk_client_event &)> event;
    };

    /* Throws a tool_error where there is no server. With `reconnect` it comes back by itself. */
    session(const settings &settings, handlers called, bool reconnect);
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    tesk_client_session *get() const
    {
        return session_;
    }
    bool connected() const
    {
        return tesk_client_connected(session_);
    }

    /* `called` is called once, at the latest when the session goes: what it captures by reference
       must be older than the session. */
    using answered = std::function<void(const tesk_client_answer &)>;
    void request(tesk_client_request_type type, uint32_t port_no, answered called);

  private:
    handlers handlers_;
    tesk_client_session *session_ = nullptr;
};

/* Blocks the signals that end a command, or that it must hear of, and takes them from a descriptor:
   no handler runs anywhere. Made before the session. */
class event_loop
{
  public:
    enum class wake { session, signal, key, time };

    explicit event_loop(const std::vector<int> &signals = {SIGINT, SIGTERM, SIGHUP});
    ~event_loop();
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;

    /* Lets keys of standard input wake the loop. */
    void watch_keys()
    {
        keys_ = true;
    }

    /* Waits for one thing, for a session's work that is done at once, or until `end`. */
    wake wait(const session &session, std::optional<steady_time> end);

    /* Of the last wake of that kind. */
    int signal() const
    {
        return signal_;
    }
    char key() const
    {
        return key_;
    }

  private:
    int signal_fd_;
    bool keys_ = false;
    int signal_ = 0;
    char key_ = 0;
};

struct port_request {
    tesk_client_request_type type;
    uint32_t port_no;
};

/* One request of this type for each port. */
std::vector<port_request> requests_for(tesk_client_request_type type,
                                       const std::vector<uint32_t> &ports);

/* Makes all requests at once and waits for their answers. A process signal ends the wait;
   `answered` hears of nothing after that. */
void request_all(event_loop &loop, session &session, const std::vector<port_request> &requests,
                 const session::answered &answered);

/* Subscribes to all of them and gives the requests that end what succeeded. `failed` hears of the
   others. */
std::vector<port_request> subscribe_all(event_loop &loop, session &session,
                                        const std::vector<port_request> &wanted,
                                        const session::answered &failed);
