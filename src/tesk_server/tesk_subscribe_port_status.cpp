/* SPDX-License-Identifier: Apache-2.0 */
/* Port state changes pass a filter, so that a flapping port doesn't flood its subscribers. Each
   change to down adds 20 to the level of the port's bucket, and each tick subtracts 10. While the
   level is at or above the filter level, changes are recorded but not reported; when it falls
   below, the subscribers get the port's status of that moment. A bucket has one chain of ticks: it
   starts at a change to down that finds the bucket empty, and ends with the level at 0 or with the
   bucket. Changes that are held back are not counted: only the resulting status is reported.

   The stored port state is updated by every event, also by one that is held back, since the next
   event is compared with it. A repeated state neither fills the bucket nor is reported.

   An indication contains the port as read when the event is handled, once for all subscribers, and
   not the state that the event reported: on a port that changes fast the two differ. */
#include "tesk_server/tesk_subscribe_port_status.h"

#include "platform/tesktmo/tesktmo.h"
#include "tesk_server/leaky_bucket.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_history.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscription.h"
#include "tesk_server/tesk_trace.h"

#include <cstdio>
#include <cstring>

/* All levels are multiples of a tick's, so that the last tick leaves exactly 0. */
static constexpr int32_t level_per_down = 20;
static constexpr int32_t level_per_tick = -10;
static constexpr uint32_t tick_interval = 10; /* in the timer service's units */

static const char *tesk_conn_status_str(uint32_t status)
{
    switch (status) {
    case TESK_CONN_STOPPED:
        return "STOPPED";
    case TESK_CONN_NOT_OPERATIONAL:
        return "NOT OPERATIONAL";
    case TESK_CONN_OPERATIONAL:
        return "OPERATIONAL";
    default:
        return "UNKNOWN";
    }
}

/* For the trace only: the signal carries the number. */
struct link_speed_text {
    char text[20];
};

static link_speed_text tesk_link_speed_str(uint32_t tenth_gbps)
{
    link_speed_text speed = {};
    const float gbps = static_cast<float>(tenth_gbps) / 10.0f;

    snprintf(speed.text, sizeof(speed.text), "%.1f Gbps", static_cast<double>(gbps));
    return speed;
}

static void tesk_send_port_status_ind(const tesk_client *client, const tesk_port_info *info)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_port_status_ind), TESK_PORT_STATUS_IND);
    auto *ind = reinterpret_cast<tesk_port_status_ind *>(signal);

    memset(ind, 0, sizeof(*ind));
    ind->number = TESK_PORT_STATUS_IND;
    ind->procedure_ref = client->procedure_ref;
    ind->connection_ref = client->conn_ref;
    ind->info = *info;
    tesk_trace_sent(TESK_PORT_STATUS_IND, client->mbox,
                    "Sent signal TESK_PORT_STATUS_IND:procedure_ref: %u, connection_ref: %u, "
                    "mbox: 0x%x, port_no: %u, conn_status: %s, link_speed: %s",
                    ind->procedure_ref, ind->connection_ref, client->mbox, ind->info.port_no,
                    tesk_conn_status_str(ind->info.conn_status),
                    tesk_link_speed_str(ind->info.link_speed).text);
    tesk_swap_byte_order(*ind);
    mbx_send(&signal, client->mbox, MBX_OWN_MAILBOX);
}

static void notify(const tesk_client *client, const tesk_port_info *info)
{
    tesk_history_add_action(TESK_CACHE_ACTION_PORT_STATUS_IND, info->port_no, client);
    tesk_send_port_status_ind(client, info);
}

static void tesk_send_port_status_ind_to_subscribers(uint32_t port_no, const tesk_port_info *info)
{
    const auto subscribers = tesk_client_subscribers(port_no, tesk_subscription_port_status);
    for (auto subscriber = subscribers.rbegin(); subscriber != subscribers.rend(); ++subscriber)
        notify(subscriber->client, info);
}

/* Reports the port's present status to its subscribers, whatever the level of its bucket. */
static void send_present_status(uint32_t port_no)
{
    tesk_port_info info;

    get_port_info(port_no, &info);
    tesk_send_port_status_ind_to_subscribers(port_no, &info);
}

/* Requests one tick. It is never cancelled: a tick that finds no bucket ends the chain. */
static void tesk_port_status_start_filter_timer(uint32_t bucket_id, uint32_t port_no)
{
    mbx_signal *signal =
        mbx_alloc(sizeof(tesk_port_status_filter_tick), TESK_PORT_STATUS_FILTER_TICK);
    auto *tick = reinterpret_cast<tesk_port_status_filter_tick *>(signal);

    memset(tick, 0, sizeof(*tick));
    tick->number = TESK_PORT_STATUS_FILTER_TICK;
    tick->bucket_id = bucket_id;
    tick->port_no = port_no;
    tmo_request_sig(tick_interval, &signal);
}

static constexpr tesk_subscription_procedure subscribe_port_status_procedure = {
    .request =
        {
            .received = "TESK_SUBSCRIBE_PORT_STATUS_REQ: sender: ",
            .unknown_group = TESK_TRACE_COURSE,
            .unknown = "Unknown sender/client, ignoring TESK_SUBSCRIBE_PORT_STATUS_REQ",
            .rej = TESK_PORT_ANSWER(TESK_SUBSCRIBE_PORT_STATUS_REJ),
        },
    .cfm = TESK_PORT_ANSWER(TESK_SUBSCRIBE_PORT_STATUS_CFM),
    .kind = tesk_subscription_port_status,
    .action = TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE,
    .change = tesk_portsub_add_port_status,
};

void tesk_handle_subscribe_port_status_req(mbx_signal *signal)
{
    tesk_port_info info;
    tesk_port_request request;

    /* Only this request has a word behind its port. It is not used, but a trace of the signal shows
       it. */
    tesk_swap_words(reinterpret_cast<tesk_subscribe_port_status_req *>(signal)->reserved);
    if (!tesk_subscribe_accept(&subscribe_port_status_procedure, signal, &request))
        return;
    tesk_subscribe_confirm(&subscribe_port_status_procedure, &request);

    /* The first indication is also the state that later events are compared with, for every client
       and not only for the first one on a port. If the port has changed and its event is still to
       come, that event finds the state unchanged and the earlier subscribers are not notified. */
    get_port_info(request.port_no, &info);
    tesk_portsub_update_port_state(request.port_no,
                                   info.conn_status == TESK_CONN_OPERATIONAL ? port_up : port_down);
    notify(request.client, &info);
}

void tesk_handle_port_status_filter_timeout(mbx_signal *signal)
{
    const auto *tick = reinterpret_cast<const tesk_port_status_filter_tick *>(signal);
    const auto id = static_cast<int32_t>(tick->bucket_id);
    leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr)
        return;
    /* The filter period ends when a tick takes the level below the filter level. The status is then
       reported even if no change was held back, since changes are not counted. */
    const leaky_bucket_state before = leaky_bucket_get_state(id);
    const leaky_bucket_state after = leaky_bucket_update(id, level_per_tick);
    if (before == leaky_bucket_level_reached && after == leaky_bucket_below_level)
        send_present_status(tick->port_no);
    if (bucket->level > 0)
        tesk_port_status_start_filter_timer(tick->bucket_id, tick->port_no);
    else
        bucket->level = 0;
}

/* Adds a change to the bucket and returns the resulting state. A change to up adds nothing: a flap
   has as many changes to down as to up, and one of the two kinds is enough to count. A bucket that
   isn't empty has an outstanding tick, and a second one would drain it twice as fast. */
static leaky_bucket_state add_change(const leaky_bucket_data *bucket, uint32_t port_no,
                                     uint32_t new_state)
{
    if (new_state == port_up)
        return leaky_bucket_get_state(bucket->id);
    const bool idle = bucket->level == 0;
    const leaky_bucket_state after = leaky_bucket_update(bucket->id, level_per_down);
    if (idle)
        tesk_port_status_start_filter_timer(static_cast<uint32_t>(bucket->id), port_no);
    return after;
}

/* True if a change is to be reported, given the bucket's state before and after the change. */
static bool is_reported(leaky_bucket_state before, leaky_bucket_state after, uint32_t new_state)
{
    switch (after) {
    case leaky_bucket_below_level:
        return true;
    case leaky_bucket_level_reached:
        /* The change that reaches the filter level is the last one to be reported. */
        if (before == leaky_bucket_below_level && new_state == port_down)
            return true;
        tesk_trace(TESK_TRACE_BUCKET, "Leaky bucket level reached, indication not send");
        return false;
    default:
        /* An impossible state must not suppress a change. */
        tesk_trace(TESK_TRACE_ERROR, "Unexpected leaky bucket state, state=%u", after);
        return true;
    }
}

void tesk_handle_port_state_change(uint32_t port_no, uint32_t new_state)
{
    tesk_port_info info;

    /* The port is read in any case: the history has the fault levels of held back changes, too. */
    get_port_info(port_no, &info);
    const int32_t bucket_id = tesk_portsub_get_bucket_id(port_no);
    if (bucket_id == 0) {
        tesk_trace(TESK_TRACE_ERROR, "Failed to found bucket for port %u", port_no);
        return;
    }
    const leaky_bucket_data *bucket = leaky_bucket_find(bucket_id);
    if (!tesk_portsub_update_port_state(port_no, new_state)) {
        tesk_trace(TESK_TRACE_COURSE, "Port %u port_state not changed, no need to handle", port_no);
        if (bucket != nullptr)
            tesk_history_add_port_state(&info, bucket->level, new_state);
        return;
    }
    /* Without a bucket there is no filter, and changes are not reported. */
    if (bucket == nullptr)
        return;

    const leaky_bucket_state before = leaky_bucket_get_state(bucket_id);
    /* The dispatch of events passes no other state. */
    if (new_state != port_up && new_state != port_down) {
        tesk_trace(TESK_TRACE_ERROR, "Unknown port state");
        return;
    }
    const leaky_bucket_state after = add_change(bucket, port_no, new_state);
    tesk_history_add_port_state(&info, bucket->level, new_state);
    if (is_reported(before, after, new_state))
        tesk_send_port_status_ind_to_subscribers(port_no, &info);
}

void tesk_handle_port_status_sfp_presence_change(uint32_t port_no, uint32_t presence)
{
    /* The same rule as for SFP info: a module is reported only once it is ready or removed. */
    if (presence == sfp_present_not_ready)
        return;
    tesk_trace(TESK_TRACE_COURSE, "Handling port status sfp presence change on port %u", port_no);
    send_present_status(port_no);
}
