/* SPDX-License-Identifier: Apache-2.0 */
/* For each connection the port map is read again and every port is subscribed to. The session
   therefore doesn't reconnect by itself: this source connects again, as it did first.

   At most `reads_at_once` reads are in progress, fewer than the session's window, and none while
   subscriptions are in progress: a read is then never queued in the session, and its latency is
   that of the server. A port is read once more right after an indication of its status, so that its
   grades have values to compare with.

   Failures are repaired: an unconfirmed subscription or unsubscription is requested again, and
   after a refused read the port has no values. If the port map can't be read, nothing changes. */
#include "tesk_exporter/collector.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <span>
#include <utility>

namespace exporter
{

using std::chrono::milliseconds;

static constexpr size_t reads_at_once = 8;
static constexpr uint32_t deadline_ms = 2000;
static constexpr milliseconds first_pause{100};
static constexpr milliseconds longest_pause{2000};
static constexpr uint32_t probed_ports = 128; /* if there are neither --ports nor a port map */
/* The most rounds after which a failed subscription is requested again, and after which an empty
   port is read. */
static constexpr uint64_t rounds_between_tries = 20;
static constexpr uint64_t probing_factor = 12; /* for a port that may not exist */
/* The longest time between two requests that don't involve the board. */
static constexpr std::chrono::seconds look_pause{10};

namespace
{
struct subscription_requests {
    tesk_client_kind kind;
    tesk_client_request_type begin;
    tesk_client_request_type end;
};
} // namespace

/* In the order of tesk_client_kind. */
static constexpr subscription_requests subscription_rows[] = {
    {TESK_CLIENT_SFP_INFO, TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO,
     TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO},
    {TESK_CLIENT_PORT_STATUS, TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS,
     TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS},
};

static milliseconds until(steady_time end)
{
    return std::chrono::ceil<milliseconds>(end - steady_clock::now());
}

collector::collector(collector_settings given, fact_queue &facts)
    : settings_(std::move(given)), facts_(facts)
{
    thread_.start([this] { run(); });
}

/* If the port map can't be read, the previous names are kept, since the ports still exist. */
void collector::read_names()
{
    std::map<uint32_t, std::string> names;
    const auto each = [](uint32_t port_no, const char *name, void *user) {
        static_cast<std::map<uint32_t, std::string> *>(user)->emplace(port_no, name);
    };
    const tesk_client_result result = tesk_client_read_port_map(nullptr, each, &names);
    const bool is_known = result == TESK_CLIENT_OK || result == TESK_CLIENT_NO_PORT_MAP;
    const std::string error = is_known ? "" : tesk_client_error();
    if (!error.empty() && error != map_error_)
        std::fprintf(stderr, "tesk-exporter: port map: %s\n", error.c_str());
    map_error_ = error;
    if (!is_known)
        return;
    has_map_ = result == TESK_CLIENT_OK;
    names_ = std::move(names);
}

collector::port_map collector::wanted_ports()
{
    read_names();
    port_map wanted;
    is_probing_ = !settings_.ports && !has_map_;
    if (settings_.ports)
        for (const uint32_t port_no : *settings_.ports)
            wanted[port_no];
    else if (has_map_)
        for (const auto &[port_no, name] : names_)
            wanted[port_no];
    else
        for (uint32_t port_no = 0; port_no < probed_ports; port_no++)
            wanted[port_no];
    for (auto &[port_no, port] : wanted)
        if (const auto name = names_.find(port_no); name != names_.end())
            port.interface = name->second;
    return wanted;
}

/* The number of requests in progress, by group. An unsubscription counts as a subscription. */
size_t &collector::under_way(tesk_client_request_type type)
{
    if (type == TESK_CLIENT_REQUEST_PM)
        return reads_;
    return type == TESK_CLIENT_REQUEST_HISTORY_SFP_INFO ? looks_ : subscriptions_;
}

/* False if the request can't be sent; then no answer follows. */
bool collector::request(tesk_client_request_type type, uint32_t port_no)
{
    auto owned = std::make_unique<sent_request>(sent_request{*this, port_no, steady_clock::now()});
    const auto called = [](const tesk_client_answer *answer, void *user) {
        const std::unique_ptr<sent_request> made(static_cast<sent_request *>(user));
        made->self.answered(*answer, *made);
    };
    if (tesk_client_request(session_, type, port_no, called, owned.get()) != TESK_CLIENT_OK)
        return false;
    static_cast<void>(owned.release()); /* the callback owns the request now */
    under_way(type)++;
    return true;
}

/* Requests SFP info first, so that the module is known before the status that belongs to it. */
void collector::subscribe(uint32_t port_no, followed &port)
{
    for (const subscription_requests &row : subscription_rows)
        port.subscriptions[row.kind] = request(row.begin, port_no) ? held::requested : held::failed;
}

void collector::unsubscribe(uint32_t port_no)
{
    for (const subscription_requests &row : subscription_rows)
        if (!request(row.end, port_no))
            leaving_.insert({row.kind, port_no});
}

/* Changes the subscriptions to those wanted now, and reports the list of ports if it changed. */
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
    facts_.post(std::move(reported)); /* before the indications of new ports */
    const port_map former = std::exchange(ports_, std::move(wanted));
    for (const auto &[port_no, port] : former)
        if (!ports_.contains(port_no) && !port.is_absent())
            unsubscribe(port_no);
    for (auto &[port_no, port] : ports_)
        if (!former.contains(port_no))
            subscribe(port_no, port);
}

/* Repeats unconfirmed subscriptions. The request may have reached the server, which then refuses a
   second one; so the subscription is ended first. A port that doesn't exist is tried rarely, as the
   server writes a trace for each refusal. */
void collector::renew_subscriptions(uint32_t port_no, followed &port)
{
    if (rounds_ < port.next_try)
        return;
    for (const subscription_requests &row : subscription_rows) {
        held &state = port.subscriptions[row.kind];
        if (state == held::requested || state == held::confirmed)
            continue;
        const bool is_sent = request(row.end, port_no) && request(row.begin, port_no);
        state = is_sent ? held::requested : held::failed;
        port.next_try = rounds_ + port.pause;
        port.pause = std::min(2 * port.pause, rounds_between_tries);
    }
}

void collector::unsubscribe_again()
{
    for (const auto &[kind, port_no] : std::exchange(leaving_, {}))
        if (!ports_.contains(port_no) && !request(subscription_rows[kind].end, port_no))
            leaving_.insert({kind, port_no});
}

void collector::begin_round()
{
    is_in_round_ = true;
    rounds_++;
    unsubscribe_again();
    /* If a round takes longer than the interval, it is finished before the next one begins, since
       otherwise its last ports would never be read. */
    const bool is_new = to_read_.empty();
    for (auto &[port_no, port] : ports_) {
        /* A module that isn't ready is reported as "no module", but may have values. A board may
           need long to find that a port is empty, so such ports are read rarely. */
        if (is_new && (!port.is_empty || rounds_ % rounds_between_tries == 0))
            to_read_.push_back(port_no);
        renew_subscriptions(port_no, port);
    }
    read_next();
}

void collector::read_next()
{
    while (subscriptions_ == 0 && reads_ < reads_at_once && !to_read_.empty()) {
        const uint32_t port_no = to_read_.front();
        to_read_.pop_front();
        const auto port = ports_.find(port_no);
        if (port == ports_.end() || port->second.is_reading || port->second.is_absent())
            continue;
        port->second.is_reading = request(TESK_CLIENT_REQUEST_PM, port_no);
    }
    if (subscriptions_ == 0 && reads_ == 0 && to_read_.empty() &&
        std::exchange(is_in_round_, false))
        facts_.post(round_fact{});
}

void collector::subscribe_answered(const tesk_client_answer &answer, followed &port)
{
    const bool is_module = answer.request == TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO;
    held &state = port.subscriptions[is_module ? TESK_CLIENT_SFP_INFO : TESK_CLIENT_PORT_STATUS];
    const bool was_absent = port.is_absent();
    if (answer.result == TESK_CLIENT_OK)
        state = held::confirmed;
    else
        state = answer.rejection == TESK_CLIENT_REJECTION_NO_PORT ? held::no_port : held::failed;
    if (state == held::confirmed)
        port.pause = 1;
    if (was_absent || !port.is_absent())
        return;
    facts_.post(gone_fact{answer.port_no});
    port.pause = rounds_between_tries * (is_probing_ ? probing_factor : 1);
    port.next_try = rounds_ + port.pause;
}

void collector::subscription_answered(const tesk_client_answer &answer)
{
    const auto port = ports_.find(answer.port_no);
    for (const subscription_requests &row : subscription_rows) {
        if (answer.request == row.begin && port != ports_.end())
            subscribe_answered(answer, port->second);
        /* Without one of these answers the server may still send indications. */
        const bool is_over = answer.result == TESK_CLIENT_OK ||
                             answer.rejection == TESK_CLIENT_REJECTION_NOT_SUBSCRIBED ||
                             answer.rejection == TESK_CLIENT_REJECTION_NO_PORT;
        if (answer.request == row.end && port == ports_.end() && !is_over)
            leaving_.insert({row.kind, answer.port_no});
    }
}

void collector::read_answered(const tesk_client_answer &answer, std::chrono::nanoseconds latency)
{
    const auto port = ports_.find(answer.port_no);
    const bool is_empty = port != ports_.end() && port->second.is_empty &&
                          answer.rejection == TESK_CLIENT_REJECTION_NO_MODULE;
    const bool is_failure = answer.result != TESK_CLIENT_OK && !is_empty;
    facts_.post(request_fact{answer.result, latency, true, is_failure});
    if (port == ports_.end())
        return;
    port->second.is_reading = false;
    if (answer.pm != nullptr)
        facts_.post(reading_fact{*answer.pm});
    else if (answer.result != TESK_CLIENT_LOST)
        facts_.post(unread_fact{answer.port_no, answer.result == TESK_CLIENT_REJECTED, answer.text,
                                answer.rejection == TESK_CLIENT_REJECTION_BUSY});
}

/* Requests the history of presence, which the server has in its memory: the answer proves that the
   server works, without a request to the board, and shows modules that aren't ready, for which no
   indication is sent. */
void collector::look()
{
    if (looks_ == 0)
        is_look_due_ = !request(TESK_CLIENT_REQUEST_HISTORY_SFP_INFO, 0);
}

static bool is_same(const tesk_client_history_record &one, const tesk_client_history_record &other)
{
    return one.time_us == other.time_us && one.port_no == other.port_no &&
           one.presence == other.presence;
}

/* The records of the first answer are older than the subscriptions. Of later answers only the last
   record of each port counts: the indications of the others were received already. */
void collector::history_answered(const tesk_client_answer &answer)
{
    if (answer.result != TESK_CLIENT_OK)
        return;
    const std::span records(answer.history, answer.count);
    auto next = records.begin();
    for (auto record = records.begin(); record != records.end(); ++record)
        if (newest_record_ && is_same(*newest_record_, *record))
            next = record + 1;
    std::map<uint32_t, uint32_t> changed;
    for (; newest_record_ && next != records.end(); ++next)
        changed[next->port_no] = next->presence;
    for (const auto &[port_no, presence] : changed)
        facts_.post(presence_fact{port_no, presence});
    newest_record_ = records.empty() ? tesk_client_history_record{} : records.back();
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
    is_look_due_ = true;
    read_at_once(info.port_no);
}

void collector::answered(const tesk_client_answer &answer, const sent_request &sent)
{
    const auto latency = steady_clock::now() - sent.start;
    under_way(answer.request)--;
    if (answer.result == TESK_CLIENT_CANCELLED)
        return; /* the session is being closed */
    if (answer.request == TESK_CLIENT_REQUEST_PM) {
        read_answered(answer, latency);
    } else {
        facts_.post(request_fact{answer.result, latency, false, false});
        if (answer.request == TESK_CLIENT_REQUEST_HISTORY_SFP_INFO)
            history_answered(answer);
        else
            subscription_answered(answer);
    }
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
    steady_time next_round = steady_clock::now(), next_look = next_round;
    while (!thread_.must_stop()) {
        const steady_time now = steady_clock::now();
        if (now >= next_look || is_look_due_) {
            look(); /* the first look comes before all subscriptions */
            next_look = now + std::min<steady_clock::duration>(settings_.interval, look_pause);
        }
        if (now >= next_round) {
            update_ports();
            begin_round();
            next_round = std::max(next_round + settings_.interval, steady_clock::now());
        }
        thread_.wait(tesk_client_fd(session_), until(std::min(next_round, next_look)));
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
            leaving_.clear();
            newest_record_.reset();
            is_in_round_ = is_look_due_ = false;
            rounds_ = 0;
            tesk_client_close(std::exchange(session_, nullptr));
        }
        thread_.wait(-1, pause);
        pause = std::min(2 * pause, longest_pause);
    }
}

} // namespace exporter
