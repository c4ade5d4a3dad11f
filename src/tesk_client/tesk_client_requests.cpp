/* SPDX-License-Identifier: Apache-2.0 */
/* A request waits in `waiting_` until the connection stands and the window has room, then in
   `sent_` until its answer, its deadline or the loss of the server. Both are in the order of the
   calls.

   An answer is matched by its procedure_ref, and then its number and port must be those of the
   request. The history's answers carry no reference: the server answers in order, so the oldest
   request of that type is meant. For this one that has timed out keeps its place without a
   callback, until its answer or that of any later request shows that it has had its turn. */
#include "tesk_client/tesk_client_session.h"

#include <algorithm>
#include <iterator>

/* In the order of tesk_client_request_type. */
static constexpr request_row rows[] = {
    {TESK_SUBSCRIBE_SFP_INFO_REQ, TESK_SUBSCRIBE_SFP_INFO_CFM, TESK_SUBSCRIBE_SFP_INFO_REJ,
     sizeof(tesk_port_signal), true, true},
    {TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_UNSUBSCRIBE_SFP_INFO_CFM, TESK_UNSUBSCRIBE_SFP_INFO_REJ,
     sizeof(tesk_port_signal), true, true},
    {TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_SUBSCRIBE_PORT_STATUS_CFM, TESK_SUBSCRIBE_PORT_STATUS_REJ,
     sizeof(tesk_subscribe_port_status_req), true, true},
    {TESK_UNSUBSCRIBE_PORT_STATUS_REQ, TESK_UNSUBSCRIBE_PORT_STATUS_CFM,
     TESK_UNSUBSCRIBE_PORT_STATUS_REJ, sizeof(tesk_port_signal), true, true},
    {TESK_GET_PM_COUNTERS_REQ, TESK_GET_PM_COUNTERS_CFM, TESK_GET_PM_COUNTERS_REJ,
     sizeof(tesk_port_signal), true, true},
    {TESK_GET_CAPABILITIES_REQ, TESK_GET_CAPABILITIES_CFM, 0, sizeof(tesk_header), false, true},
    {TESK_SHELL_GET_PORT_STATUS_CACHE_REQ, TESK_SHELL_GET_PORT_STATUS_CACHE_CFM, 0,
     sizeof(mbx_signal), false, false},
    {TESK_SHELL_GET_SFP_INFO_CACHE_REQ, TESK_SHELL_GET_SFP_INFO_CACHE_CFM, 0, sizeof(mbx_signal),
     false, false},
    {TESK_SHELL_GET_ACTIONS_CACHE_REQ, TESK_SHELL_GET_ACTIONS_CACHE_CFM, 0, sizeof(mbx_signal),
     false, false},
};
static_assert(std::size(rows) == TESK_CLIENT_REQUEST_HISTORY_ACTIONS + 1);

static const request_row &row_of(const pending_request &request)
{
    return rows[request.type];
}

namespace
{

/* What a request means for the subscriptions, which the session remembers to renew them and to know
   which indications were asked for. */
struct subscription_effect {
    tesk_client_kind kind;
    bool subscribes;
};

} // namespace

static std::optional<subscription_effect> effect_of(tesk_client_request_type type)
{
    switch (type) {
    case TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO:
        return subscription_effect{TESK_CLIENT_SFP_INFO, true};
    case TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO:
        return subscription_effect{TESK_CLIENT_SFP_INFO, false};
    case TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS:
        return subscription_effect{TESK_CLIENT_PORT_STATUS, true};
    case TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS:
        return subscription_effect{TESK_CLIENT_PORT_STATUS, false};
    default:
        return std::nullopt;
    }
}

static outcome plain_outcome(tesk_client_result result)
{
    outcome plain;
    plain.result = result;
    plain.text = tesk_client_result_text(result);
    return plain;
}

/* A rejection's outcome; nothing if the signal is too short for one. */
static std::optional<outcome> rejection(const mbx_signal *signal)
{
    const auto rej = host_copy_of<tesk_port_rej>(signal);
    if (!rej)
        return std::nullopt;
    outcome rejected;
    rejected.result = TESK_CLIENT_REJECTED;
    rejected.error_code = rej->error_code;
    rejected.text = decode_error_text(rej->error_description);
    return rejected;
}

static std::optional<outcome> confirmation(const mbx_signal *signal)
{
    std::optional<answer_payload> payload = decode_confirmation(signal);
    if (!payload)
        return std::nullopt;
    outcome confirmed;
    confirmed.payload = std::move(*payload);
    return confirmed;
}

static bool answers(const mbx_signal *signal, const pending_request &request, uint32_t conn_ref)
{
    const request_row &row = row_of(request);
    if (signal->number != row.cfm && (row.rej == 0 || signal->number != row.rej))
        return false;
    if (!row.has_reference)
        return true;
    const auto header = host_copy_of<tesk_header>(signal);
    if (!header || header->procedure_ref != request.procedure_ref ||
        header->connection_ref != conn_ref)
        return false;
    if (!row.has_port)
        return true;
    const auto with_port = host_copy_of<tesk_port_signal>(signal);
    return with_port && with_port->port_no == request.port_no;
}

size_t tesk_client_session::in_flight() const
{
    return static_cast<size_t>(
        std::ranges::count_if(sent_, [](const pending_request &r) { return !r.abandoned; }));
}

std::optional<steady_clock::time_point> tesk_client_session::next_deadline() const
{
    std::optional<steady_clock::time_point> next;
    /* An abandoned request waits for nothing that time could bring. */
    auto consider = [&next](const pending_request &request) {
        if (!request.abandoned && (!next || request.deadline < *next))
            next = request.deadline;
    };
    std::ranges::for_each(sent_, consider);
    if (!waiting_.empty())
        consider(waiting_.front()); /* they all have the same time to live */
    return next;
}

void tesk_client_session::note_subscription(const pending_request &request, const outcome &outcome)
{
    const auto effect = effect_of(request.type);
    const auto found =
        effect ? subscriptions_.find({effect->kind, request.port_no}) : subscriptions_.end();
    if (found == subscriptions_.end())
        return;
    const bool confirmed = outcome.result == TESK_CLIENT_OK;
    if (!effect->subscribes) {
        if (confirmed)
            subscriptions_.erase(found);
    } else if (confirmed) {
        found->second = true;
    } else if (outcome.result == TESK_CLIENT_REJECTED && (request.renewal || !found->second)) {
        /* A second subscribe is rejected as well, and takes nothing from the first. */
        subscriptions_.erase(found);
    }
}

/* Tells whoever asked. A renewal is nobody's request: its failure is an event, but not where the
   server has gone once more, since the next connection renews it again. */
void tesk_client_session::complete(const pending_request &request, const outcome &outcome)
{
    note_subscription(request, outcome);
    if (request.renewal) {
        if (outcome.result == TESK_CLIENT_REJECTED || outcome.result == TESK_CLIENT_TIMEOUT) {
            tesk_client_event event{};
            event.type = TESK_CLIENT_EVENT_SUBSCRIPTION_LOST;
            event.kind = effect_of(request.type)->kind;
            event.port_no = request.port_no;
            event.result = outcome.result;
            event.text = outcome.text.c_str();
            tell(event);
        }
        return;
    }
    const answer_payload &payload = outcome.payload;
    tesk_client_answer answer{};
    answer.request = request.type;
    answer.port_no = request.port_no;
    answer.result = outcome.result;
    answer.error_code = outcome.error_code;
    answer.text = outcome.text.c_str();
    answer.pm = payload.pm ? &*payload.pm : nullptr;
    answer.capabilities = payload.capabilities.empty() ? nullptr : payload.capabilities.data();
    answer.history = payload.history.empty() ? nullptr : payload.history.data();
    answer.count = payload.capabilities.size() + payload.history.size();
    call(request.answered, &answer, request.user);
}

void tesk_client_session::receive_answer(const mbx_signal *signal)
{
    const auto found = std::ranges::find_if(
        sent_, [&](const pending_request &request) { return answers(signal, request, conn_ref_); });
    if (found == sent_.end())
        return;
    std::optional<outcome> result =
        signal->number == row_of(*found).cfm ? confirmation(signal) : rejection(signal);
    if (!result)
        return;
    /* Taken out before the callback, which may make requests and so move the others. */
    const pending_request request = *found;
    sent_.erase(found);
    std::erase_if(sent_, [&](const pending_request &earlier) {
        return earlier.abandoned && earlier.procedure_ref < request.procedure_ref;
    });
    if (!request.abandoned)
        complete(request, *result);
}

void tesk_client_session::send_request(pending_request request)
{
    const request_row &row = row_of(request);
    request.procedure_ref = ++last_procedure_ref_;
    mbx_signal *signal = mbx_alloc(row.size, row.req);
    if (row.has_port) {
        auto *record = reinterpret_cast<tesk_port_signal *>(signal);
        record->procedure_ref = request.procedure_ref;
        record->connection_ref = client_id_;
        record->port_no = request.port_no;
        tesk_swap_byte_order(*record);
    } else if (row.has_reference) {
        auto *record = reinterpret_cast<tesk_header *>(signal);
        record->procedure_ref = request.procedure_ref;
        record->connection_ref = client_id_;
        tesk_swap_byte_order(*record);
    }
    /* From now on, since the first indication must not be dropped should it be looked at before the
       confirmation is. */
    const auto effect = effect_of(request.type);
    if (effect && effect->subscribes)
        subscriptions_.try_emplace({effect->kind, request.port_no}, false);
    sent_.push_back(request);
    mbx_send(&signal, server_, MBX_OWN_MAILBOX);
}

/* Renewals go first, so that what was asked for while the server was away finds the subscriptions
   that it counts on. */
void tesk_client_session::send_what_fits()
{
    while (state_ == state::connected && in_flight() < options_.window) {
        if (!renewals_.empty()) {
            const auto [kind, port_no] = renewals_.front();
            renewals_.pop_front();
            pending_request renewal{};
            renewal.type = subscribe_request(kind);
            renewal.port_no = port_no;
            renewal.renewal = true;
            renewal.deadline =
                steady_clock::now() + std::chrono::milliseconds(options_.deadline_ms);
            send_request(renewal);
        } else if (!waiting_.empty()) {
            const pending_request next = waiting_.front();
            waiting_.pop_front();
            send_request(next);
        } else {
            return;
        }
    }
}

/* First all are marked or taken out, then the callbacks run: those may make requests. */
void tesk_client_session::expire_requests(steady_clock::time_point now)
{
    std::vector<pending_request> expired;
    for (pending_request &request : sent_) {
        if (!request.abandoned && request.deadline <= now) {
            request.abandoned = true;
            expired.push_back(request);
        }
    }
    std::erase_if(sent_, [](const pending_request &request) {
        return request.abandoned && row_of(request).has_reference;
    });
    while (!waiting_.empty() && waiting_.front().deadline <= now) {
        expired.push_back(waiting_.front());
        waiting_.pop_front();
    }
    for (const pending_request &request : expired)
        complete(request, plain_outcome(TESK_CLIENT_TIMEOUT));
}

/* Subscriptions that the server never confirmed go with their requests. Requests that wait go on
   waiting where the session looks for the server again. */
void tesk_client_session::fail_sent_requests()
{
    std::vector<pending_request> failed = std::exchange(sent_, {});
    if (state_ == state::ended) {
        std::ranges::copy(std::exchange(waiting_, {}), std::back_inserter(failed));
        subscriptions_.clear();
    }
    std::erase_if(subscriptions_, [](const auto &entry) { return !entry.second; });
    renewals_.clear();
    for (const pending_request &request : failed)
        if (!request.abandoned)
            complete(request, plain_outcome(TESK_CLIENT_LOST));
}

void tesk_client_session::cancel()
{
    std::vector<pending_request> open = std::exchange(sent_, {});
    std::ranges::copy(std::exchange(waiting_, {}), std::back_inserter(open));
    state_ = state::ended; /* a callback's new requests are refused */
    for (const pending_request &request : open)
        if (!request.abandoned)
            complete(request, plain_outcome(TESK_CLIENT_CANCELLED));
}

tesk_client_result tesk_client_session::request(tesk_client_request_type type, uint32_t port_no,
                                                tesk_client_answered answered, void *user)
{
    if (static_cast<size_t>(type) >= std::size(rows))
        return TESK_CLIENT_MISUSE;
    if (state_ == state::ended)
        return TESK_CLIENT_LOST;
    pending_request request{};
    request.type = type;
    request.port_no = rows[type].has_port ? port_no : 0;
    request.deadline = steady_clock::now() + std::chrono::milliseconds(options_.deadline_ms);
    request.answered = answered;
    request.user = user;
    waiting_.push_back(request);
    send_what_fits();
    arm_timer();
    return TESK_CLIENT_OK;
}
