/* SPDX-License-Identifier: Apache-2.0 */
/* An entry follows the answers alone:

     none -> subscribe: held, or none where the server refuses
     unknown -> unsubscribe: none, then subscribe

   and becomes unknown if an answer leaves open whether the server has the subscription. If the
   server answers "already subscribed", the subscription is ended first, since only a new one causes
   an indication. */
#include "tools/teskctl/kept_subscriptions.h"

#include <algorithm>
#include <utility>

static tesk_client_request_type request_of(tesk_client_kind kind, bool subscribes)
{
    if (kind == TESK_CLIENT_SFP_INFO)
        return subscribes ? TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO
                          : TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO;
    return subscribes ? TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS
                      : TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS;
}

void kept_subscriptions::add(uint32_t port_no)
{
    for (const tesk_client_kind kind : {TESK_CLIENT_SFP_INFO, TESK_CLIENT_PORT_STATUS})
        add(kind, port_no);
}

void kept_subscriptions::confirm(const std::vector<port_request> &unsubscribes)
{
    for (const port_request &each : unsubscribes) {
        const bool is_sfp = each.type == TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO;
        entries_[{is_sfp ? TESK_CLIENT_SFP_INFO : TESK_CLIENT_PORT_STATUS, each.port_no}].is =
            state::held;
    }
}

void kept_subscriptions::take(const tesk_client_event &event)
{
    if (event.type != TESK_CLIENT_EVENT_SUBSCRIPTION_LOST)
        return;
    if (const auto found = entries_.find({event.kind, event.port_no}); found != entries_.end())
        found->second.is = event.result == TESK_CLIENT_REJECTED ? state::none : state::unknown;
}

void kept_subscriptions::take_answer(const key &wanted, bool subscribes,
                                     const tesk_client_answer &answer)
{
    open_--;
    const auto found = entries_.find(wanted);
    if (found == entries_.end())
        return;
    entry &of = found->second;
    of.is_asking = false;
    const bool is_done = answer.result == TESK_CLIENT_OK;
    if (answer.result == TESK_CLIENT_TIMEOUT ||
        answer.rejection == TESK_CLIENT_REJECTION_SUBSCRIBED)
        of.is = state::unknown;
    else
        of.is = is_done && subscribes ? state::held : state::none;
    if (!subscribes && of.is == state::none && answer.result != TESK_CLIENT_LOST)
        return send(wanted, of);
    if (const ended called = std::exchange(of.called, {}))
        called(answer);
}

void kept_subscriptions::send(const key &wanted, entry &to)
{
    const bool subscribes = to.is == state::none;
    if (!session_.is_connected())
        return;
    to.is_asking = true;
    open_++;
    session_.request(request_of(wanted.first, subscribes), wanted.second,
                     [this, wanted, subscribes](const tesk_client_answer &answer) {
                         take_answer(wanted, subscribes, answer);
                     });
}

void kept_subscriptions::renew(uint32_t port_no, ended called)
{
    const auto found = entries_.find({TESK_CLIENT_PORT_STATUS, port_no});
    if (found == entries_.end() || found->second.is_asking)
        return;
    found->second.is = state::unknown;
    found->second.called = std::move(called);
    send(found->first, found->second);
}

bool kept_subscriptions::is_due() const
{
    return std::ranges::any_of(entries_,
                               [](const auto &each) { return each.second.is != state::held; });
}

void kept_subscriptions::send_due()
{
    for (auto &[wanted, of] : entries_)
        if (of.is != state::held && !of.is_asking && open_ < most_open_requests)
            send(wanted, of);
}

std::vector<port_request> kept_subscriptions::unsubscribes() const
{
    std::vector<port_request> all;
    for (const auto &[wanted, of] : entries_)
        if (of.is == state::held)
            all.push_back({request_of(wanted.first, false), wanted.second});
    return all;
}
