/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_session - the session behind the C functions. One thread. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tesk_client/tesk_client_decode.h"
#include "util/descriptor.h"
#include "util/event.h"

#include <chrono>
#include <deque>
#include <map>
#include <mbx.h>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using steady_clock = std::chrono::steady_clock;

/* The signals of one type of request; tesk_client_requests.cpp has the table. */
struct request_row {
    uint32_t req;
    uint32_t cfm;
    uint32_t rej; /* 0: the request can't be rejected */
    uint32_t size;
    bool has_port;
    bool has_reference; /* false for the history's requests, which are answered in order */
};

struct pending_request {
    tesk_client_request_type type;
    uint32_t port_no;
    uint32_t procedure_ref;
    steady_clock::time_point deadline;
    tesk_client_answered answered;
    void *user;
    bool renewal; /* sent by the session itself, after a reconnection */
    /* Not 0: this entry stands for so many history requests that timed out, kept so that a late
       answer isn't taken for that of the next request. procedure_ref is that of the last one. */
    uint32_t abandoned;
};

/* The result of a connection, or of another step that allocates its text. */
struct outcome {
    tesk_client_result result = TESK_CLIENT_OK;
    std::string text;
};

/* How a request ended. Allocates nothing, so that a request always completes. */
struct completion {
    tesk_client_result result;
    const char *text; /* valid during the callback */
    int32_t error_code = 0;
    const answer_payload *payload = nullptr;
};

/* The effect of a request on the subscriptions. */
struct subscription_effect {
    tesk_client_kind kind;
    bool subscribes;
};
std::optional<subscription_effect> effect_of(tesk_client_request_type type);

/* Makes the descriptor wake the epoll descriptor; -1 with errno. */
int add_to_epoll(int epoll, int fd);

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

/* The procedure_ref shows whether a late answer is about this subscription or about an earlier one
   of the port. */
struct subscription {
    bool confirmed;         /* by the server */
    uint32_t procedure_ref; /* of the last subscribe that was sent */
};

struct tesk_client_session {
  public:
    explicit tesk_client_session(const tesk_client_options &options);
    ~tesk_client_session();

    /* Connects, and waits for the answer to the establishment. */
    outcome connect();

    /* The functions of tesk_client.h, called after the caller was checked. */
    tesk_client_result dispatch();
    tesk_client_result run(int timeout_ms);
    void stop();

    tesk_client_result request(tesk_client_request_type type, uint32_t port_no,
                               tesk_client_answered answered, void *user);

    /* Waits for work for at most timeout_ms; false if there was none. */
    bool wait(int timeout_ms) const;

    /* Completes all open requests as cancelled. */
    void cancel();

    bool belongs_to_caller() const
    {
        return owner_ == std::this_thread::get_id() && conn_ref_ == static_cast<uint32_t>(getpid());
    }
    bool in_callback() const
    {
        return callbacks_ > 0;
    }
    bool is_connected() const
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
        establishing, /* phase_end_: deadline of the server's answer */
        connected,
        waiting, /* phase_end_: time of the next attempt */
        ended,
    };

    /* The sources in order of use: tesk_client_session.cpp uses tesk_client_connection.cpp, that
       tesk_client_requests.cpp, and that tesk_client_subscriptions.cpp. */

    void receive(const mbx_signal *signal);
    void receive_indication(const mbx_signal *signal);
    void handle_time();
    void arm_timer();

    /* tesk_client_connection.cpp */
    outcome begin_connection();
    void end_connection();
    void lose_server();
    void retry_later();
    void receive_establishment(const mbx_signal *signal);

    /* tesk_client_requests.cpp */
    void add_request(tesk_client_request_type type, uint32_t port_no, tesk_client_answered answered,
                     void *user);
    void receive_answer(const mbx_signal *signal);
    void send_what_fits();
    void send_request(pending_request request);
    bool expire_one(steady_clock::time_point now);
    void fail_sent_requests();
    void complete_all(tesk_client_result result);
    void complete(const pending_request &request, const completion &end);
    void complete_renewal(const pending_request &request, const completion &end);
    size_t in_flight() const;
    std::optional<steady_clock::time_point> next_deadline() const;

    /* tesk_client_subscriptions.cpp */
    bool is_subscribed(tesk_client_kind kind, uint32_t port_no) const;
    void note_subscription(const pending_request &request, const completion &end);
    std::optional<subscription_key> next_renewal();
    void forget_unconfirmed_subscriptions();

    void report(const tesk_client_event &event)
    {
        call(options_.on_event, &event, options_.user);
    }

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
    const util::descriptor epoll_;
    const util::descriptor timer_;
    const util::event stop_event_;

    state state_ = state::idle;
    steady_clock::time_point phase_end_{};
    std::chrono::milliseconds retry_;
    outcome establishment_; /* result of the last attempt */
    uint32_t mailbox_ = MBX_NO_MAILBOX;
    int mailbox_fd_ = -1;
    uint32_t server_ = MBX_NO_MAILBOX;
    uint32_t monitor_ = 0;
    const uint32_t conn_ref_; /* the process */
    uint32_t client_id_ = 0;
    uint32_t last_procedure_ref_ = 0;

    std::deque<pending_request> waiting_;
    std::vector<pending_request> sent_;
    std::map<subscription_key, subscription> subscriptions_;
    bool renewing_ = false;
    std::optional<subscription_key> last_renewal_; /* those up to this key have been renewed */

    std::optional<steady_clock::time_point> armed_;
    bool stopped_ = false;
    bool was_connected_ = false;
    int callbacks_ = 0;
};
