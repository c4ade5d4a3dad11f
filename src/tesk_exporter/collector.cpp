/* SPDX-License-Identifier: Apache-2.0 */
/* For each connection the port map is read again, and every port is subscribed to. The session
   therefore doesn't reconnect by itself: a connection after a loss is made as the first one.

   At most `reads_at_once` reads are under way, fewer than the session's window, and none while
   subscriptions are: a read then never waits in the session, and its latency is that of the server.
   A port is read once more right after an indication of its status, so that its grades have values
   to compare with. */
#include "tesk_exporter/collector.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <utility>

namespace exporter
{

using std::chrono::milliseconds;

static constexpr size_t reads_at_once = 8;
static constexpr uint32_t deadline_ms = 2000;
static constexpr milliseconds first_pause{100};
static constexpr milliseconds longest_pause{2000};
static constexpr uint32_t probed_ports = 128; /* without --ports and port map */
/* The rounds after which a port of the command line that was refused is subscribed to again: the
   server writes a trace for each refusal. */
static constexpr uint64_t rounds_between_tries = 20;

static milliseconds until(steady_time end)
{
    return std::chrono::ceil<milliseconds>(end - steady_clock::now());
}

collector::collector(collector_settings given, fact_queue &facts)
    : settings_(std::move(given)), facts_(facts)
{
    thread_.start([this] { run(); });
}

/* The names of the port map; none where there is no usable one. */
std::map<uint32_t, std::string> collector::interface_names(bool &has_map)
{
    std::map<uint32_t, std::string> names;
    const auto each = [](uint32_t port_no, const char *name, void *user) {
        static_cast<std::map<uint32_t, std::string> *>(user)->emplace(port_no, name);
    };
    const tesk_client_result result = tesk_client_read_port_map(nullptr, each, &names);
    has_map = result == TESK_CLIENT_OK;
    const std::string error =
        has_map || result == TESK_CLIENT_NO_PORT_MAP ? "" : tesk_client_error();
    if (!error.empty() && error != map_error_)
        std::fprintf(stderr, "tesk-exporter: port map: %s\n", error.c_str());
    map_error_ = error;
    return names;
}

collector::port_map collector::wanted_ports()
{
    bool has_map = false;
    const auto names = interface_names(has_map);
    port_map wanted;
    is_probing_ = !settings_.ports && !has_map;
    if (settings_.ports)
        for (const uint32_t port_no : *settings_.ports)
            wanted[port_no];
    else if (has_map)
        for (const auto &[port_no, name] : names)
            wanted[port_no];
    else
        for (uint32_t port_no = 0; port_no < probed_ports; port_no++)
            wanted[port_no];
    for (auto &[port_no, port] : wanted)
        if (const auto name = names.find(port_no); name != names.end())
            port.interface = name->second;
    return wanted;
}

/* Every request but a read counts as a subscription, also one that ends it. */
void collector::request(tesk_client_request_type type, uint32_t port_no)
{
    auto owned = std::make_unique<sent_request>(sent_request{*this, port_no, steady_clock::now()});
    const auto called = [](const tesk_client_answer *answer, void *user) {
        const std::unique_ptr<sent_request> made(static_cast<sent_request *>(user));
        made->self.answered(*answer, *made);
    };
    if (tesk_client_request(session_, type, port_no, called, owned.get()) != TESK_CLIENT_OK)
        return;                         /* the session has ended */
    static_cast<void>(owned.release()); /* owned by the callback now */
    (type == TESK_CLIENT_REQUEST_PM ? reads_ : subscriptions_)++;
}

/* The module first, so that it is known before the status that belongs to it. */
void collector::subscribe(uint32_t port_no)
{
    request(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, port_no);
    request(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, port_no);
}

void collector::unsubscribe(uint32_t port_no)
{
    request(TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS, port_no);
    request(TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO, port_no);
}

/* An unanswered subscribe may have reached the server, which would refuse a second one. */
void collector::resubscribe(uint32_t port_no)
{
    unsubscribe(port_no);
    subscribe(port_no);
}

/* Brings the subscriptions to what is wanted now, and reports the ports where that changes
   something. */
void collector::update_ports()
{
    port_map wanted = wanted_ports();
    const auto is_same = [](const auto &one, const auto &other) {
        return one.first == other.first && one.second.interface == other.second.interface;
    };
    if (std::ranges::equal(wanted, ports_, is_same))
        return;
    ports_fact reported;
    for (auto &[port_no, port] : wanted) {
        reported.ports.push_back({port_no, port.interface});
        if (const auto known = ports_.find(port_no); known != ports_.end()) {
            known->second.interface = port.interface;
            port = known->second;
        }
    }
    facts_.post(std::move(reported)); /* before the indications of the new ones */
    const port_map former = std::exchange(ports_, std::move(wanted));
    for (const auto &[port_no, port] : former)
        if (!ports_.contains(port_no) && !port.is_absent)
            unsubscribe(port_no);
    for (const auto &[port_no, port] : ports_)
        if (!former.contains(port_no))
            subscribe(port_no);
}

void collector::renew_subscription(uint32_t port_no, followed &port)
{
    const bool is_tried_again =
        port.is_absent && !is_probing_ && rounds_ % rounds_between_tries == 0;
    if (!port.is_unsure && !is_tried_again)
        return;
    port.is_unsure = port.is_absent = false;
    resubscribe(port_no);
}

void collector::begin_round()
{
    is_in_round_ = true;
    rounds_++;
    to_read_.clear(); /* left of a round slower than the interval */
    for (auto &[port_no, port] : ports_) {
        to_read_.push_back(port_no);
        renew_subscription(port_no, port);
    }
    read_next();
}

void collector::read_next()
{
    while (subscriptions_ == 0 && reads_ < reads_at_once && !to_read_.empty()) {
        const uint32_t port_no = to_read_.front();
        to_read_.pop_front();
        const auto port = ports_.find(port_no);
        if (port == ports_.end() || port->second.is_reading || port->second.is_absent ||
            port->second.is_empty)
            continue;
        port->second.is_reading = true;
        request(TESK_CLIENT_REQUEST_PM, port_no);
    }
    if (subscriptions_ == 0 && reads_ == 0 && std::exchange(is_in_round_, false))
        facts_.post(round_fact{});
}

void collector::subscription_answered(const tesk_client_answer &answer, followed &port)
{
    const bool subscribes = answer.request == TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO ||
                            answer.request == TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS;
    if (subscribes && answer.result == TESK_CLIENT_TIMEOUT)
        port.is_unsure = true;
    if (subscribes && answer.result == TESK_CLIENT_REJECTED && !std::exchange(port.is_absent, true))
        facts_.post(gone_fact{answer.port_no});
}

void collector::read_answered(const tesk_client_answer &answer, const sent_request &sent)
{
    facts_.post(request_fact{answer.result, steady_clock::now() - sent.start});
    const auto port = ports_.find(answer.port_no);
    if (port == ports_.end())
        return;
    port->second.is_reading = false;
    if (answer.pm != nullptr)
        facts_.post(reading_fact{*answer.pm});
}

void collector::read_at_once(uint32_t port_no)
{
    to_read_.push_front(port_no);
    read_next();
}

void collector::take(const tesk_client_sfp_info &info)
{
    facts_.post(info);
    const auto port = ports_.find(info.port_no);
    if (port == ports_.end())
        return;
    port->second.is_empty = info.type == TESK_CLIENT_SFP_NOT_PRESENT;
    read_at_once(info.port_no);
}

void collector::answered(const tesk_client_answer &answer, const sent_request &sent)
{
    const bool is_read = answer.request == TESK_CLIENT_REQUEST_PM;
    (is_read ? reads_ : subscriptions_)--;
    if (answer.result == TESK_CLIENT_CANCELLED)
        return; /* the session is being closed */
    if (is_read)
        read_answered(answer, sent);
    else if (const auto port = ports_.find(answer.port_no); port != ports_.end())
        subscription_answered(answer, port->second);
    read_next();
}

bool collector::connect()
{
    tesk_client_options options{};
    options.deadline_ms = deadline_ms;
    options.user = this;
    options.on_sfp_info = [](const tesk_client_sfp_info *info, void *user) {
        static_cast<collector *>(user)->take(*info);
    };
    options.on_port_status = [](const tesk_client_port_status *status, void *user) {
        auto *self = static_cast<collector *>(user);
        self->facts_.post(*status);
        self->read_at_once(status->port_no);
    };
    if (tesk_client_connect(&options, &session_) == TESK_CLIENT_OK)
        return true;
    facts_.post(connection_fact{false, tesk_client_error()});
    return false;
}

/* Follows the ports until the server is lost or the thread is stopped. */
void collector::follow()
{
    facts_.post(connection_fact{true, ""});
    steady_time next_round = steady_clock::now();
    while (!thread_.must_stop()) {
        if (steady_clock::now() >= next_round) {
            update_ports();
            begin_round();
            next_round = std::max(next_round + settings_.interval, steady_clock::now());
        }
        thread_.wait(tesk_client_fd(session_), until(next_round));
        if (tesk_client_dispatch(session_) != TESK_CLIENT_OK) {
            facts_.post(connection_fact{false, tesk_client_error()});
            return;
        }
    }
}

void collector::run()
{
    milliseconds pause = first_pause;
    while (!thread_.must_stop()) {
        if (connect()) {
            pause = first_pause;
            follow();
            ports_.clear();
            to_read_.clear();
            is_in_round_ = false;
            rounds_ = 0;
            tesk_client_close(std::exchange(session_, nullptr));
        }
        thread_.wait(-1, pause);
        pause = std::min(2 * pause, longest_pause);
    }
}

} // namespace exporter
