/* SPDX-License-Identifier: Apache-2.0 */
/* A port that flaps would flood its subscribers, so what is told of its changes passes a filter.
   Each change to down pours 20 into the port's bucket, and each tick takes 10 out. At or above the
   bucket's filter level changes are recorded but not told; when the level falls below it, the
   subscribers get the status of that moment. One chain of ticks a bucket: it starts at a change to
   down that finds the bucket empty, and ends with the level at 0 or when the bucket is gone.
   Nothing counts what was held back: what a port did in between is not told, only what it has come
   to.

   The state that a port is known by changes with every event, also with one that is held back, for
   the next event is compared with it. Only a change is poured: a repeated state says nothing new.

   What goes out is what the port says when it is read, once for all subscribers, and not what the
   event said; on a port that changes fast the two differ. */
#include "tesk_server/tesk_subscribe_port_status.h"

#include "platform/tesktmo/tesktmo.h"
#include "tesk_server/leaky_bucket.h"
#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscription.h"
#include "tesk_server/tesk_trace.h"

#include <cstdio>
#include <cstring>

/* The levels are multiples of a tick, so that a drain ends on 0 exactly. */
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

/* For the trace alone: the signal bears the number. */
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

static void tesk_port_status_cache_subscribe(uint32_t client_id, uint32_t conn_ref,
                                             uint32_t port_no)
{
    tesk_cache_add_action(TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE,
                          "Failed to cache port status subscription data for port %u, client %u",
                          port_no, client_id, conn_ref);
}

static void tesk_port_status_cache_ind(uint32_t port_no, uint32_t client_id, uint32_t conn_ref)
{
    tesk_cache_add_action(TESK_CACHE_ACTION_PORT_STATUS_IND,
                          "Failed to cache port status ind for port %u, client id %u, conn ref %u",
                          port_no, client_id, conn_ref);
}

static void tesk_port_status_cache_change(uint32_t port_no, int32_t level, uint32_t new_state,
                                          const tesk_port_info *info)
{
    tesk_cache_entry entry = {};
    tesk_cache_port_status_record *record = &entry.port_status;

    entry.type = TESK_CACHE_PORT_STATUS;
    record->port_no = port_no;
    record->bucket_level = level;
    record->tx_power_fault_level = info->tx_power_fault_level;
    record->rx_power_fault_level = info->rx_power_fault_level;
    record->tx_bias_fault_level = info->tx_bias_fault_level;
    record->vcc_fault_level = info->vcc_fault_level;
    record->temp_fault_level = info->temp_fault_level;
    record->laser_temp_fault_level = info->laser_temp_fault_level;
    record->tec_fault_level = info->tec_fault_level;
    record->port_state = new_state;
    gettimeofday(&record->timestamp, nullptr);
    if (tesk_cache_add(&entry) != 0)
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to cache port status change for port %u, state %u",
                   port_no, new_state);
}

static void tesk_send_port_status_ind(uint32_t mbox, uint32_t connection_ref,
                                      uint32_t procedure_ref, const tesk_port_info *info)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_port_status_ind), TESK_PORT_STATUS_IND);
    auto *ind = reinterpret_cast<tesk_port_status_ind *>(signal);

    memset(ind, 0, sizeof(*ind));
    ind->number = TESK_PORT_STATUS_IND;
    ind->procedure_ref = procedure_ref;
    ind->connection_ref = connection_ref;
    ind->info = *info;
    tesk_trace_sent(TESK_PORT_STATUS_IND, mbox,
                    "Sent signal TESK_PORT_STATUS_IND:procedure_ref: %u, connection_ref: %u, "
                    "mbox: 0x%x, port_no: %u, conn_status: %s, link_speed: %s",
                    ind->procedure_ref, ind->connection_ref, mbox, ind->info.port_no,
                    tesk_conn_status_str(ind->info.conn_status),
                    tesk_link_speed_str(ind->info.link_speed).text);
    tesk_turn(*ind);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

static void tesk_send_subscribe_port_status_cfm(uint32_t mbox, uint32_t procedure_ref,
                                                uint32_t connection_ref, uint32_t port_no)
{
    tesk_send_port_cfm(TESK_SUBSCRIBE_PORT_STATUS_CFM, "TESK_SUBSCRIBE_PORT_STATUS_CFM", mbox,
                       procedure_ref, connection_ref, port_no);
}

static void tesk_send_subscribe_port_status_rej(uint32_t mbox, uint32_t procedure_ref,
                                                uint32_t connection_ref, int32_t error_code,
                                                const char *error_description, uint32_t port_no)
{
    tesk_send_port_rej(TESK_SUBSCRIBE_PORT_STATUS_REJ, "TESK_SUBSCRIBE_PORT_STATUS_REJ", mbox,
                       procedure_ref, connection_ref, error_code, error_description, port_no);
}

static void tesk_send_port_status_ind_to_subscribers(uint32_t port_no, const tesk_port_info *info)
{
    for (const tesk_subscriber *subscriber =
             tesk_client_first_subscriber(port_no, TESK_SUBSCRIPTION_PORT_STATUS);
         subscriber != nullptr; subscriber = tesk_client_next_subscriber(subscriber)) {
        const tesk_client *client = subscriber->client;
        tesk_port_status_cache_ind(port_no, client->client_id, client->conn_ref);
        tesk_send_port_status_ind(client->mbox, client->conn_ref, client->procedure_ref, info);
    }
}

/* Tells the subscribers the status of this moment. The filter isn't asked: it opens, or the change
   is one that passes it by. */
static void send_present_status(uint32_t port_no)
{
    tesk_port_info info;

    get_port_info(port_no, &info);
    tesk_send_port_status_ind_to_subscribers(port_no, &info);
}

/* Arms one tick. Nothing cancels it: when the bucket has gone by then, it finds none and ends the
   chain. */
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

static constexpr tesk_subscribe_procedure procedure = {
    .request =
        {
            .received = "Received TESK_SUBSCRIBE_PORT_STATUS_REQ: sender: 0x%x, procedure_ref: "
                        "%u, connection_ref: %u, port: %u",
            .unknown_group = TESK_TRACE_COURSE,
            .unknown = "Unknown sender/client, ignoring TESK_SUBSCRIBE_PORT_STATUS_REQ",
            .send_rej = tesk_send_subscribe_port_status_rej,
        },
    .kind = TESK_SUBSCRIPTION_PORT_STATUS,
    .add = tesk_portsub_add_port_status,
    .cache = tesk_port_status_cache_subscribe,
    .send_cfm = tesk_send_subscribe_port_status_cfm,
};

void tesk_handle_subscribe_port_status_req(mbx_signal *signal)
{
    tesk_port_info info;
    tesk_port_request request;

    /* This request alone has a word behind its port. Nobody reads it, but a trace of the signal
       shows it. */
    tesk_turn_words(reinterpret_cast<tesk_subscribe_port_status_req *>(signal)->reserved);
    if (!tesk_subscribe_accept(&procedure, signal, &request))
        return;
    const tesk_client *client = request.client;
    tesk_subscribe_confirm(&procedure, &request);

    /* What is told first is also what later events are compared with. That holds for every client,
       not only for the first on a port: if the port has changed unseen, the event of that change
       finds nothing new, and the others hear of it at the next one. */
    get_port_info(request.port_no, &info);
    tesk_portsub_update_port_state(
        request.port_no, info.conn_status == TESK_CONN_OPERATIONAL ? PORTSTATE_UP : PORTSTATE_DOWN);
    tesk_port_status_cache_ind(request.port_no, client->client_id, client->conn_ref);
    tesk_send_port_status_ind(client->mbox, client->conn_ref, client->procedure_ref, &info);
}

void tesk_handle_port_status_filter_timeout(mbx_signal *signal)
{
    const auto *tick = reinterpret_cast<const tesk_port_status_filter_tick *>(signal);
    const auto id = static_cast<int32_t>(tick->bucket_id);
    leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr)
        return;
    /* The filter opens where this tick takes the level below it. That is told even if nothing has
       been held back, as nobody has kept count. */
    const leaky_bucket_state before = leaky_bucket_get_state(id);
    const leaky_bucket_state after = leaky_bucket_update(id, level_per_tick);
    if (before == LEAKY_BUCKET_LEVEL_REACHED && after == LEAKY_BUCKET_BELOW_LEVEL)
        send_present_status(tick->port_no);
    if (bucket->level > 0)
        tesk_port_status_start_filter_timer(tick->bucket_id, tick->port_no);
    else
        bucket->level = 0;
}

/* Pours a change into the bucket and gives the state after it. A change to up pours nothing: a flap
   has one change to down for each to up, and counting one of the two is enough. A bucket that is
   not empty has a tick on its way already, and a second one would drain it twice as fast. */
static leaky_bucket_state pour(const leaky_bucket_data *bucket, uint32_t port_no,
                               uint32_t new_state)
{
    if (new_state == PORTSTATE_UP)
        return leaky_bucket_get_state(bucket->id);
    const bool idle = bucket->level == 0;
    const leaky_bucket_state after = leaky_bucket_update(bucket->id, level_per_down);
    if (idle)
        tesk_port_status_start_filter_timer(static_cast<uint32_t>(bucket->id), port_no);
    return after;
}

/* Whether a change is told, by the bucket's state before and after it. */
static bool is_told(leaky_bucket_state before, leaky_bucket_state after, uint32_t new_state)
{
    switch (after) {
    case LEAKY_BUCKET_BELOW_LEVEL:
        return true;
    case LEAKY_BUCKET_LEVEL_REACHED:
        /* The change that reaches the level is the last one told. */
        if (before == LEAKY_BUCKET_BELOW_LEVEL && new_state == PORTSTATE_DOWN)
            return true;
        tesk_trace(TESK_TRACE_BUCKET, "Leaky bucket level reached, indication not send");
        return false;
    default:
        /* A state that can't be is no reason to keep a change from anybody. */
        tesk_trace(TESK_TRACE_ERROR, "Unexpected leaky bucket state, state=%u", after);
        return true;
    }
}

void tesk_handle_port_state_change(uint32_t port_no, uint32_t new_state)
{
    tesk_port_info info;

    /* Read before anything is decided: the history holds the fault levels of a change that is held
       back, too. */
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
            tesk_port_status_cache_change(port_no, bucket->level, new_state, &info);
        return;
    }
    /* A record whose bucket could not be made. Without a filter its changes are not told. */
    if (bucket == nullptr)
        return;

    const leaky_bucket_state before = leaky_bucket_get_state(bucket_id);
    /* Events of any other state have been sorted out before; here it would be stored, but not told.
     */
    if (new_state != PORTSTATE_UP && new_state != PORTSTATE_DOWN) {
        tesk_trace(TESK_TRACE_ERROR, "Unknown port state");
        return;
    }
    const leaky_bucket_state after = pour(bucket, port_no, new_state);
    tesk_port_status_cache_change(port_no, bucket->level, new_state, &info);
    if (is_told(before, after, new_state))
        tesk_send_port_status_ind_to_subscribers(port_no, &info);
}

void tesk_handle_port_status_sfp_presence_change(uint32_t port_no, uint32_t presence)
{
    /* As on the side of SFP info: a module that is on its way is not told yet. */
    if (presence == SFP_PRESENT_NOT_READY)
        return;
    tesk_trace(TESK_TRACE_COURSE, "Handling port status sfp presence change on port %u", port_no);
    send_present_status(port_no);
}
