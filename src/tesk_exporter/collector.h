/* SPDX-License-Identifier: Apache-2.0 */
/* collector - follows the ports through a session of its own thread and reports facts: indications
   as they come, measured values at the interval. A server that has ended or doesn't respond blocks
   only this thread. */
#pragma once

#include "tesk_exporter/facts.h"
#include "tesk_exporter/worker.h"

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <set>

namespace exporter
{

struct collector_settings {
    std::optional<std::vector<uint32_t>> ports; /* see the settings */
    std::chrono::milliseconds interval;
};

class collector
{
  public:
    /* Starts at once. `facts` must outlive the collector. */
    collector(collector_settings given, fact_queue &facts);

    /* Ends the thread; takes up to the timeout of a request if the server doesn't respond. The
       queue must be closed before. */
    void stop()
    {
        thread_.stop();
    }

  private:
    /* The state of one subscription. Only a confirmation proves that indications will be sent. */
    enum class held { requested, confirmed, failed, no_port };
    using subscription_kind = std::pair<tesk_client_kind, uint32_t>; /* the kind and the port */
    struct followed {
        std::string interface;
        bool is_reading = false;             /* a read of the port's values is in progress */
        bool is_empty = false;               /* the server has reported no module */
        std::array<held, 2> subscriptions{}; /* by tesk_client_kind */
        uint64_t next_try = 0; /* the round in which failed subscriptions are requested again */
        uint64_t pause = 1;    /* number of rounds after next_try until the following try */

        bool is_absent() const
        {
            return subscriptions[0] == held::no_port && subscriptions[1] == held::no_port;
        }
    };
    /* A request in progress; its callback owns it. */
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
    void read_names();
    void take(const tesk_client_sfp_info &info);
    void read_at_once(uint32_t port_no);
    void renew_subscriptions(uint32_t port_no, followed &port);
    void update_ports();
    void subscribe(uint32_t port_no, followed &port);
    void unsubscribe(uint32_t port_no);
    void unsubscribe_again();
    bool request(tesk_client_request_type type, uint32_t port_no);
    size_t &under_way(tesk_client_request_type type);
    void look();
    void begin_round();
    void read_next();
    void answered(const tesk_client_answer &answer, const sent_request &sent);
    void subscription_answered(const tesk_client_answer &answer);
    void subscribe_answered(const tesk_client_answer &answer, followed &port);
    void read_answered(const tesk_client_answer &answer, std::chrono::nanoseconds latency);
    void history_answered(const tesk_client_answer &answer);

    const collector_settings settings_;
    fact_queue &facts_;
    tesk_client_session *session_ = nullptr;
    port_map ports_;
    std::deque<uint32_t> to_read_;
    size_t reads_ = 0;         /* under way */
    size_t subscriptions_ = 0; /* subscription requests in progress */
    size_t looks_ = 0;         /* requests for the history of presence in progress */
    bool is_look_due_ = false; /* a module has changed since the last look */
    /* The newest record of the history that was received, an empty one if the history was empty;
       nothing before the first answer. */
    std::optional<tesk_client_history_record> newest_record_;
    std::set<subscription_kind> leaving_; /* unsubscriptions that were not yet answered */
    bool is_in_round_ = false;
    uint64_t rounds_ = 0;                   /* rounds of this connection */
    bool is_probing_ = false;               /* there are no --ports and no port map */
    std::map<uint32_t, std::string> names_; /* names of the last port map that could be read */
    bool has_map_ = false;
    std::string map_error_; /* the last error, which is written once */
    worker thread_;         /* last, so destroyed first: it uses the other members */
};

} // namespace exporter
