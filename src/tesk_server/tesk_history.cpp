/* SPDX-License-Identifier: Apache-2.0 */
/* Each function makes one record and adds it to the cache. If the cache refuses the record, a trace
   names its content. */
#include "tesk_server/tesk_history.h"

#include "tesk_server/tesk_trace.h"

/* The part of an action's failure trace that names the refused data. */
static const char *action_name(tesk_cache_action action)
{
    switch (action) {
    case TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE:
        return "port status subscription data";
    case TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE:
        return "port status unsubscribe data";
    case TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE:
        return "sfp subscription data";
    case TESK_CACHE_ACTION_SFP_INFO_UNSUBSCRIBE:
        return "sfp info unsubscribe";
    case TESK_CACHE_ACTION_PORT_STATUS_IND:
        return "port status ind";
    case TESK_CACHE_ACTION_SFP_INFO_IND:
        return "sfp info ind";
    default:
        return "unknown action";
    }
}

static void trace_refused_action(tesk_cache_action action, const tesk_cache_action_record *record)
{
    if (action == TESK_CACHE_ACTION_PORT_STATUS_IND || action == TESK_CACHE_ACTION_SFP_INFO_IND)
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to cache %s for port %u, client id %u, conn ref %u",
                   action_name(action), record->port_no, record->client_id, record->conn_ref);
    else
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to cache %s for port %u, client %u",
                   action_name(action), record->port_no, record->client_id);
}

void tesk_history_add_action(tesk_cache_action action, uint32_t port_no, const tesk_client *client)
{
    tesk_cache_entry entry = {};

    entry.type = TESK_CACHE_ACTION;
    entry.action.port_no = port_no;
    entry.action.client_id = client->client_id;
    entry.action.conn_ref = client->conn_ref;
    entry.action.action = action;
    gettimeofday(&entry.action.timestamp, nullptr);
    if (tesk_cache_add(&entry) != 0)
        trace_refused_action(action, &entry.action);
}

void tesk_history_add_presence(uint32_t port_no, uint32_t presence)
{
    tesk_cache_entry entry = {};

    entry.type = TESK_CACHE_SFP_INFO;
    entry.sfp_info.port_no = port_no;
    entry.sfp_info.sfp_presence = presence;
    gettimeofday(&entry.sfp_info.timestamp, nullptr);
    if (tesk_cache_add(&entry) != 0)
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to cache sfp info for port %u, presence %u", port_no,
                   presence);
}

void tesk_history_add_port_state(const tesk_port_info *info, int32_t bucket_level,
                                 uint32_t port_state)
{
    tesk_cache_entry entry = {};
    tesk_cache_port_status_record *record = &entry.port_status;

    entry.type = TESK_CACHE_PORT_STATUS;
    record->port_no = info->port_no;
    record->bucket_level = bucket_level;
    record->tx_power_fault_level = info->tx_power_fault_level;
    record->rx_power_fault_level = info->rx_power_fault_level;
    record->tx_bias_fault_level = info->tx_bias_fault_level;
    record->vcc_fault_level = info->vcc_fault_level;
    record->temp_fault_level = info->temp_fault_level;
    record->laser_temp_fault_level = info->laser_temp_fault_level;
    record->tec_fault_level = info->tec_fault_level;
    record->port_state = port_state;
    gettimeofday(&record->timestamp, nullptr);
    if (tesk_cache_add(&entry) != 0)
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to cache port status change for port %u, state %u",
                   info->port_no, port_state);
}
