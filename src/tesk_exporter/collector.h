/* SPDX-License-Identifier: Apache-2.0 */
/* collector - follows the ports through a session of its own thread and reports facts: indications
   as they come, measured values at the interval. A server that is gone or doesn't respond blocks
   this thread only. */
#pragma once

#include "tesk_exporter/facts.h"
#include "tesk_exporter/worker.h"

#include <deque>
#include <map>
#include <optional>

namespace exporter
{

struct collector_settings {
    std::optional<std::vector<uint32_t>> ports; /* as in settings */
    std::chrono::milliseconds interval;
};

class collector
{
  public:
    /* Starts at once. `facts` must outlive it. */
    collector(collector_settings given, fact_queue &facts);

    /* Ends the thread; takes up to the deadline of a request if the server doesn't respond. The
       queue must be closed before. */
    void stop()
    {
        thread_.stop();
    }

  private:
    struct followed {
        std::string interface;
        bool is_reading = false; /* a request for its values is under way */
        bool is_empty = false;   /* without a module, and so without values to read */
        bool is_absent = false;  /* the server refused to subscribe to it */
        bool is_unsure = false;  /* a subscription was not answered in time */
    };
    /* A request under way; the callback owns it. */
    struct sent_request {
        collector &self;
        uint32_t port_no;
        steady_time start;
    };
    using port_map = std::map<uint32_t, followed>;

    void run();
    bool connect();
    void follow();
    port_map wanted_ports();
    std::map<uint32_t, std::string> interface_names(bool &has_map);
    void take(const tesk_client_sfp_info &info);
    void read_at_once(uint32_t port_no);
    void renew_subscription(uint32_t port_no, followed &port);
    void update_ports();
    void subscribe(uint32_t port_no);
    void unsubscribe(uint32_t port_no);
    void resubscribe(uint32_t port_no);
    void request(tesk_client_request_type type, uint32_t port_no);
    void begin_round();
    void read_next();
    void answered(const tesk_client_answer &answer, const sent_request &sent);
    void subscription_answered(const tesk_client_answer &answer, followed &port);
    void read_answered(const tesk_client_answer &answer, const sent_request &sent);

    const collector_settings settings_;
    fact_queue &facts_;
    tesk_client_session *session_ = nullptr;
    port_map ports_;
    std::deque<uint32_t> to_read_;
    size_t reads_ = 0;         /* under way */
    size_t subscriptions_ = 0; /* requests for them under way */
    bool is_in_round_ = false;
    uint64_t rounds_ = 0;     /* of this connection */
    bool is_probing_ = false; /* there are no --ports and no port map */
    std::string map_error_;   /* the last one, which is written once */
    worker thread_;           /* the last: it uses all the others */
};

} // namespace exporter
