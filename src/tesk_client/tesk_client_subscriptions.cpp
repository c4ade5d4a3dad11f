/* SPDX-License-Identifier: Apache-2.0 */
/* The session stores its subscriptions, in order to renew them after a reconnection and to pass on
   only requested indications. A renewal goes through the map from the first key to the last; new
   subscriptions are sent only after it, so that no subscription is renewed twice. */
#include "tesk_client/tesk_client_rejection.h"
#include "tesk_client/tesk_client_session.h"

std::optional<subscription_effect> effect_of(tesk_client_request_type type)
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

bool tesk_client_session::is_subscribed(tesk_client_kind kind, uint32_t port_no) const
{
    return subscriptions_.contains({kind, port_no});
}

/* True if the server has done what was requested. If an answer was late for its request, the next
   request finds the work done already, and is rejected. */
static bool is_done(const subscription_effect &effect, const completion &end)
{
    if (end.result != TESK_CLIENT_REJECTED)
        return end.result == TESK_CLIENT_OK;
    return rejection_of(end.error_code, end.text) == (effect.subscribes
                                                          ? TESK_CLIENT_REJECTION_SUBSCRIBED
                                                          : TESK_CLIENT_REJECTION_NOT_SUBSCRIBED);
}

void tesk_client_session::note_subscription(const pending_request &request, const completion &end)
{
    const auto effect = effect_of(request.type);
    const auto found =
        effect ? subscriptions_.find({effect->kind, request.port_no}) : subscriptions_.end();
    if (found == subscriptions_.end())
        return;
    const bool is_confirmed = is_done(*effect, end);
    subscription &held = found->second;
    if (!effect->subscribes) {
        /* A later subscribe for the port was sent already: its answer decides. */
        const bool is_renewed = held.procedure_ref > request.procedure_ref;
        if (is_confirmed && is_renewed)
            held.confirmed = false;
        else if (is_confirmed)
            subscriptions_.erase(found);
    } else if (is_confirmed) {
        held.confirmed = true;
    } else if (end.result == TESK_CLIENT_REJECTED && held.procedure_ref == request.procedure_ref &&
               (request.renewal || !held.confirmed)) {
        subscriptions_.erase(found);
    }
}

/* The next subscription to renew; nothing when the renewal has ended. */
std::optional<subscription_key> tesk_client_session::next_renewal()
{
    if (!renewing_)
        return std::nullopt;
    const auto next =
        last_renewal_ ? subscriptions_.upper_bound(*last_renewal_) : subscriptions_.begin();
    renewing_ = next != subscriptions_.end();
    last_renewal_ = renewing_ ? std::optional(next->first) : std::nullopt;
    return last_renewal_;
}

void tesk_client_session::forget_unconfirmed_subscriptions()
{
    std::erase_if(subscriptions_, [](const auto &entry) { return !entry.second.confirmed; });
    renewing_ = false;
    last_renewal_.reset();
}
