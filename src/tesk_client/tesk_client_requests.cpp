/* SPDX-License-Identifier: Apache-2.0 */
/* A request is in `waiting_` until there is a connection and room in the window, then in `sent_`
   until its answer, its deadline or the loss of the server. Both are in the order of the calls.

   An answer is matched by its procedure_ref; its number and port must also be those of the request.
   The history's answers have no reference, but the server answers in order: such an answer belongs
   to the oldest request of its type. So a history request that timed out stays in `sent_`, without
   a callback, until its own answer or that of a later request arrives. All timed-out requests of a
   type share one entry, so that a server that never answers costs no memory.

   A lack of memory never loses a request: completing a request allocates nothing, and a request
   that can't be sent stays in `waiting_`. */
#include "tesk_client/tesk_client_rejection.h"
#include "tesk_client/tesk_client_session.h"

#include <algorithm>
#include <iterator>
#include <new>

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
        std::ranges::count_if(sent_, [](const pending_request &r) { return r.abandoned == 0; }));
}

std::optional<steady_clock::time_point> tesk_client_session::next_deadline() const
{
    std::optional<steady_clock::time_point> next;
    /* The entry of timed-out requests has no deadline. */
    auto consider = [&next](const pending_request &request) {
        if (request.abandoned == 0 && (!next || request.deadline < *next))
            next = request.deadline;
    };
    std::ranges::for_each(sent_, consider);
    if (!waiting_.empty())
        consider(waiting_.front()); /* all have the same timeout: the first expires first */
    return next;
}

/* The failure of a renewal is reported as an event. If the server is lost, nothing is reported: the
   next connection renews again. */
void tesk_client_session::complete_renewal(const pending_request &request, const completion &end)
{
    if (end.result != TESK_CLIENT_REJECTED && end.result != TESK_CLIENT_TIMEOUT)
        return;
    tesk_client_event event{};
    event.type = TESK_CLIENT_EVENT_SUBSCRIPTION_LOST;
    event.kind = effect_of(request.type)->kind;
    event.port_no = request.port_no;
    event.result = end.result;
    event.text = end.text;
    report(event);
}

void tesk_client_session::complete(const pending_request &request, const completion &end)
{
    note_subscription(request, end);
    if (request.renewal)
        return complete_renewal(request, end);
    tesk_client_answer answer{};
    answer.request = request.type;
    answer.port_no = request.port_no;
    answer.result = end.result;
    answer.error_code = end.error_code;
    answer.text = end.text;
    if (end.result == TESK_CLIENT_REJECTED)
        answer.rejection = rejection_of(end.error_code, end.text);
    if (const answer_payload *payload = end.payload; payload != nullptr) {
        answer.pm = payload->pm ? &*payload->pm : nullptr;
        answer.capabilities =
            payload->capabilities.empty() ? nullptr : payload->capabilities.data();
        answer.history = payload->history.empty() ? nullptr : payload->history.data();
        answer.count = payload->capabilities.size() + payload->history.size();
    }
    call(request.answered, &answer, request.user);
}

void tesk_client_session::receive_answer(const mbx_signal *signal)
{
    const auto found = std::ranges::find_if(
        sent_, [&](const pending_request &request) { return answers(signal, request, conn_ref_); });
    if (found == sent_.end())
        return;
    completion end{TESK_CLIENT_OK, ""};
    std::optional<answer_payload> payload;
    std::optional<tesk_port_rej> rejected;
    if (signal->number == row_of(*found).cfm) {
        payload = decode_confirmation(signal);
        if (!payload)
            return;
        end.payload = &*payload;
    } else {
        rejected = host_copy_of<tesk_port_rej>(signal);
        if (!rejected)
            return;
        rejected->error_description[sizeof(rejected->error_description) - 1] = '\0';
        end = {TESK_CLIENT_REJECTED, rejected->error_description, rejected->error_code};
    }
    if (found->abandoned > 1) {
        found->abandoned--;
        return;
    }
    /* Removed before the callback, which may make requests and so move the elements. */
    const pending_request request = *found;
    sent_.erase(found);
    std::erase_if(sent_, [&](const pending_request &earlier) {
        return earlier.abandoned > 0 && earlier.procedure_ref < request.procedure_ref;
    });
    if (request.abandoned == 0)
        complete(request, end);
}

/* Adds the timed-out request to the entry of earlier ones of its type, or makes it that entry. */
static void abandon(std::vector<pending_request> &sent, std::vector<pending_request>::iterator at)
{
    const auto first = std::ranges::find(sent, at->type, &pending_request::type);
    first->abandoned++;
    first->procedure_ref = at->procedure_ref;
    if (first != at)
        sent.erase(at);
}

static void fill_request(mbx_signal *signal, const request_row &row, const pending_request &request,
                         uint32_t client_id)
{
    if (row.has_port) {
        auto *record = reinterpret_cast<tesk_port_signal *>(signal);
        record->procedure_ref = request.procedure_ref;
        record->connection_ref = client_id;
        record->port_no = request.port_no;
        tesk_swap_byte_order(*record);
    } else if (row.has_reference) {
        auto *record = reinterpret_cast<tesk_header *>(signal);
        record->procedure_ref = request.procedure_ref;
        record->connection_ref = client_id;
        tesk_swap_byte_order(*record);
    }
}

/* If it throws for a lack of memory, nothing was sent and nothing has changed. */
void tesk_client_session::send_request(pending_request request)
{
    const request_row &row = row_of(request);
    request.procedure_ref = last_procedure_ref_ + 1;
    sent_.push_back(request);
    try {
        /* The subscription is stored here, since its first indication may be handled before the
           confirmation. */
        const auto effect = effect_of(request.type);
        if (effect.has_value() && effect->subscribes)
            subscriptions_[{effect->kind, request.port_no}].procedure_ref = request.procedure_ref;
    } catch (...) {
        sent_.pop_back();
        throw;
    }
    last_procedure_ref_ = request.procedure_ref;
    mbx_signal *signal = mbx_alloc(row.size, row.req);
    fill_request(signal, row, request, client_id_);
    mbx_send(&signal, server_, MBX_OWN_MAILBOX);
}

/* Renewals are sent first: requests made while the server was away may need the subscriptions. */
void tesk_client_session::send_what_fits()
{
    while (state_ == state::connected && in_flight() < options_.window) {
        const auto before = last_renewal_;
        if (const auto key = next_renewal()) {
            pending_request renewal{};
            renewal.type = subscribe_request(key->first);
            renewal.port_no = key->second;
            renewal.renewal = true;
            renewal.deadline =
                steady_clock::now() + std::chrono::milliseconds(options_.deadline_ms);
            try {
                send_request(renewal);
            } catch (...) {
                last_renewal_ = before;
                throw;
            }
        } else if (!waiting_.empty()) {
            send_request(waiting_.front());
            waiting_.pop_front();
        } else {
            return;
        }
    }
}

/* Completes one expired request; false if there is none. One at a time, since the callback may make
   requests. */
bool tesk_client_session::expire_one(steady_clock::time_point now)
{
    const completion end{TESK_CLIENT_TIMEOUT, tesk_client_result_text(TESK_CLIENT_TIMEOUT)};
    const auto found = std::ranges::find_if(sent_, [now](const pending_request &request) {
        return request.abandoned == 0 && request.deadline <= now;
    });
    if (found != sent_.end()) {
        const pending_request request = *found;
        if (row_of(request).has_reference)
            sent_.erase(found);
        else
            abandon(sent_, found);
        complete(request, end);
        return true;
    }
    if (waiting_.empty() || waiting_.front().deadline > now)
        return false;
    const pending_request request = waiting_.front();
    waiting_.pop_front();
    complete(request, end);
    return true;
}

/* Completes all sent requests and, if the session has ended, those in `waiting_`. Without copies,
   which could run out of memory. */
void tesk_client_session::complete_all(tesk_client_result result)
{
    const completion end{result, tesk_client_result_text(result)};
    std::vector<pending_request> sent;
    sent.swap(sent_);
    for (const pending_request &request : sent)
        if (request.abandoned == 0)
            complete(request, end);
    while (state_ == state::ended && !waiting_.empty()) {
        const pending_request request = waiting_.front();
        waiting_.pop_front();
        complete(request, end);
    }
}

/* Unconfirmed subscriptions end with their requests. Requests in `waiting_` stay if the session
   reconnects. */
void tesk_client_session::fail_sent_requests()
{
    if (state_ == state::ended)
        subscriptions_.clear();
    forget_unconfirmed_subscriptions();
    complete_all(TESK_CLIENT_LOST);
}

void tesk_client_session::cancel()
{
    state_ = state::ended; /* requests made in callbacks are refused */
    complete_all(TESK_CLIENT_CANCELLED);
}

void tesk_client_session::add_request(tesk_client_request_type type, uint32_t port_no,
                                      tesk_client_answered answered, void *user)
{
    pending_request request{};
    request.type = type;
    request.port_no = rows[type].has_port ? port_no : 0;
    request.deadline = steady_clock::now() + std::chrono::milliseconds(options_.deadline_ms);
    request.answered = answered;
    request.user = user;
    waiting_.push_back(request);
    try {
        send_what_fits();
    } catch (const std::bad_alloc &) {
        /* The request stays queued: the next dispatch sends it. */
    }
}
