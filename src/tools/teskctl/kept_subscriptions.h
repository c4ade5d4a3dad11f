/* SPDX-License-Identifier: Apache-2.0 */
/* kept_subscriptions - the subscriptions that a running command wants, and that are made again
   after a failure: a late answer, a port that was away, a renewal that was refused. After a
   reconnection the session renews the subscriptions that it knows; this object repeats the others.
   One thread. */
#pragma once

#include "tools/teskctl/port_requests.h"

#include <functional>
#include <map>
#include <utility>
#include <vector>

class kept_subscriptions
{
  public:
    /* The session must outlive all calls but the destructor. */
    explicit kept_subscriptions(session &server) : session_(server)
    {
    }

    /* Adds a subscription that is wanted, unless it is there; send_due() sends the request. */
    void add(tesk_client_kind kind, uint32_t port_no)
    {
        entries_.try_emplace({kind, port_no});
    }
    /* Adds both kinds of subscription of the port. */
    void add(uint32_t port_no);
    /* Removes the subscriptions of the port, as it doesn't exist. */
    void remove(uint32_t port_no)
    {
        for (const tesk_client_kind kind : {TESK_CLIENT_SFP_INFO, TESK_CLIENT_PORT_STATUS})
            entries_.erase({kind, port_no});
    }
    /* Adds subscriptions that the server has confirmed; `unsubscribes` are the requests that would
       end them. */
    void confirm(const std::vector<port_request> &unsubscribes);

    /* Ends the subscription to the port's status and subscribes again, for an indication with
       present grades. `ended` is called once with the last answer, unless the port is removed or
       the server is lost before. */
    using ended = std::function<void(const tesk_client_answer &)>;
    void renew(uint32_t port_no, ended called);

    /* Reports a subscription that the session has lost. */
    void take(const tesk_client_event &event);

    /* Whether a wanted subscription is missing. */
    bool is_due() const;

    /* Sends due requests, at most as many as can be answered in time. To be called once per
       interval. */
    void send_due();

    /* The requests that end all subscriptions that the server has. */
    std::vector<port_request> unsubscribes() const;

  private:
    enum class state : uint8_t {
        none,    /* not subscribed */
        held,    /* subscribed */
        unknown, /* an answer is missing: to be unsubscribed before the next subscribe */
    };
    struct entry {
        state is = state::none;
        bool is_asking = false; /* a request is in progress */
        ended called = {};
    };
    using key = std::pair<tesk_client_kind, uint32_t>;

    void send(const key &wanted, entry &to);
    void take_answer(const key &wanted, bool subscribes, const tesk_client_answer &answer);

    session &session_;
    std::map<key, entry> entries_;
    size_t open_ = 0;
};
