/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_session - the session behind the C functions. One thread. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tesk_client/tesk_client_decode.h"

#include <chrono>
#include <deque>
#include <map>
#include <mbx.h>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using steady_clock = std::chrono::steady_clock;

/* A descriptor that closes itself. */
class owned_fd
{
  public:
    explicit owned_fd(int fd) : fd_(fd)
    {
    }
    ~owned_fd();
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;

    int get() const
    {
        return fd_;
    }

  private:
    int fd_;
};

/* What the wire says about one type of request; one row for each in tesk_client_requests.cpp. */
struct request_row {
    uint32_t req;
    uint32_t cfm;
    uint32_t rej; /* 0: it can't be rejected */
    uint32_t size;
    bool has_port;
    bool has_reference; /* false for the shell protocol, whose answers come in order */
};

struct pending_request {
    tesk_client_request_type type;
    uint32_t port_no;
    uint32_t procedure_ref;
    steady_clock::time_point deadline;
    tesk_client_answered answered;
    void *user;
    bool renewal;   /* our own, of a subscription after a reconnection */
    bool abandoned; /* timed out, and kept so that its late answer isn't taken for the next one's */
};

/* What an answer came to, before it has the form that the callback sees. */
struct outcome {
    tesk_client_result result = TESK_CLIENT_OK;
    int32_t error_code = 0;
    std::string text;
    answer_payload payload;
};

constexpr tesk_client_request_type subscribe_request(tesk_client_kind kind)
{
    return kind == TESK_CLIENT_SFP_INFO ? TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO
                                        : TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS;
}

constexpr tesk_client_request_type unsubscribe_request(tesk_client_kind kind)
{
    return kind == TESK_CLIENT_SFP_INFO ? TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO
                                        : TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS;
}

using subscription_key = std::pair<tesk_client_kind, uint32_t>;

struct tesk_client_session {
  public:
    explicit tesk_client_session(const tesk_client_options &options);
    ~tesk_client_session();

    /* Waits until the server has answered the first establishment. */
    outcome connect();

    tesk_client_result dispatch();
    tesk_client_result run(int timeout_ms);
    void stop();

    tesk_client_result request(tesk_client_request_type type, uint32_t port_no,
                               tesk_client_answered answered, void *user);

    /* Waits for work for at most timeout_ms; false when there was none. */
    bool wait(int timeout_ms) const;

    /* Ends all requests that have no answer. */
    void cancel();

    bool belongs_to_caller() const
    {
        return owner_ == std::this_thread::get_id();
    }
    bool in_callback() const
    {
        return callbacks_ > 0;
    }
    bool connected() const
    {
        return state_ == state::connected;
    }
    int fd() const
    {
        return epoll_.get();
    }

  private:
    enum class state {
        idle,
        establishing, /* phase_end_: when the server must have answered */
        connected,
        waiting, /* phase_end_: the next look for the server */
        ended,
    };

    /* The connection: tesk_client_session.cpp */
    outcome begin_connection();
    void end_connection();
    void lose_server();
    void retry_later();
    void receive(const mbx_signal *signal);
    void receive_establishment(const mbx_signal *signal);
    void receive_indication(const mbx_signal *signal);
    void handle_time();
    void arm_timer();
    void tell(const tesk_client_event &event);
    bool holds(tesk_client_kind kind, uint32_t port_no) const;

    /* The requests: tesk_client_requests.cpp */
    void receive_answer(const mbx_signal *signal);
    void send_what_fits();
    void send_request(pending_request request);
    void expire_requests(steady_clock::time_point now);
    void fail_sent_requests();
    void complete(const pending_request &request, const outcome &outcome);
    void note_subscription(const pending_request &request, const outcome &outcome);
    size_t in_flight() const;
    std::optional<steady_clock::time_point> next_deadline() const;

    template <typename callback_type, typename... argument_types>
    void call(callback_type callback, argument_types... arguments)
    {
        if (callback != nullptr) {
            callbacks_++;
            callback(arguments...);
            callbacks_--;
        }
    }

    const tesk_client_options options_;
    const std::thread::id owner_ = std::this_thread::get_id();
    const owned_fd epoll_;
    const owned_fd timer_;
    const owned_fd stop_event_;

    state state_ = state::idle;
    steady_clock::time_point phase_end_{};
    std::chrono::milliseconds retry_;
    outcome establishment_; /* how the last one ended */
    uint32_t mailbox_ = MBX_NO_MAILBOX;
    int mailbox_fd_ = -1;
    uint32_t server_ = MBX_NO_MAILBOX;
    uint32_t monitor_ = 0;
    uint32_t conn_ref_;
    uint32_t client_id_ = 0;
    uint32_t last_procedure_ref_ = 0;

    std::deque<pending_request> waiting_;
    std::vector<pending_request> sent_;
    std::map<subscription_key, bool> subscriptions_; /* true once the server has confirmed it */
    std::deque<subscription_key> renewals_;

    std::optional<steady_clock::time_point> armed_;
    bool stopped_ = false;
    bool was_connected_ = false;
    int callbacks_ = 0;
};
