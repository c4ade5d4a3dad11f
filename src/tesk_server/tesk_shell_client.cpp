/* SPDX-License-Identifier: Apache-2.0 */
/* A separate protocol for a diagnostic tool on the same board: requests from any mailbox are
   answered, all words are in host order, there is no rejection, and its signals are not traced. It
   is handled before the dispatch.

   The three answers have the same layout and differ in cache, record, mapping and failure text. The
   shell protocol has its own enumerations: values are mapped, not copied, so that the server's can
   change without a change of the tool. */
#include "tesk_server/tesk_shell_client.h"

#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_trace.h"

#include <cstdlib>

/* Reserved bytes behind the records; they are part of the protocol. */
static constexpr size_t trailing_bytes = 4;

static uint32_t shell_port_state(uint32_t state)
{
    switch (state) {
    case port_up:
        return 1;
    case port_down:
        return 2;
    default:
        return 0;
    }
}

/* The values of the two enumerations are equal; any other value is unknown. */
static uint32_t shell_sfp_presence(uint32_t presence)
{
    return presence <= unsupported_port ? presence : uint32_t{sfp_unknown};
}

static uint32_t shell_action(uint32_t action)
{
    return action >= TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE &&
                   action <= TESK_CACHE_ACTION_SFP_INFO_IND
               ? action
               : 0;
}

/* The shell protocol has 32 bits for each half. */
static void fill_timestamp(const struct timeval *timestamp, uint32_t *tv_sec, uint32_t *tv_usec)
{
    *tv_sec = static_cast<uint32_t>(timestamp->tv_sec);
    *tv_usec = static_cast<uint32_t>(timestamp->tv_usec);
}

static void fill_record(const tesk_cache_entry *entry, tesk_shell_port_status_record *out)
{
    const tesk_cache_port_status_record *cached = &entry->port_status;

    out->port_no = cached->port_no;
    out->bucket_level = cached->bucket_level;
    out->port_state = shell_port_state(cached->port_state);
    out->tx_power_fault_level = cached->tx_power_fault_level;
    out->rx_power_fault_level = cached->rx_power_fault_level;
    out->tx_bias_fault_level = cached->tx_bias_fault_level;
    out->vcc_fault_level = cached->vcc_fault_level;
    out->temp_fault_level = cached->temp_fault_level;
    out->laser_temp_fault_level = cached->laser_temp_fault_level;
    out->tec_fault_level = cached->tec_fault_level;
    fill_timestamp(&cached->timestamp, &out->tv_sec, &out->tv_usec);
}

static void fill_record(const tesk_cache_entry *entry, tesk_shell_sfp_info_record *out)
{
    const tesk_cache_sfp_info_record *cached = &entry->sfp_info;

    out->port_no = cached->port_no;
    out->sfp_presence = shell_sfp_presence(cached->sfp_presence);
    fill_timestamp(&cached->timestamp, &out->tv_sec, &out->tv_usec);
}

static void fill_record(const tesk_cache_entry *entry, tesk_shell_action_record *out)
{
    const tesk_cache_action_record *cached = &entry->action;

    out->port_no = cached->port_no;
    out->client_id = cached->client_id;
    out->conn_ref = cached->conn_ref;
    out->action = shell_action(cached->action);
    fill_timestamp(&cached->timestamp, &out->tv_sec, &out->tv_usec);
}

/* `cache_text` names the cache in the failure trace. */
template <typename record_type>
static void send_cache(const mbx_signal *request, tesk_cache_entry_type type, uint32_t answer,
                       const char *cache_text)
{
    const uint32_t sender = mbx_sender(request);
    tesk_cache_entry *entries;
    uint32_t count;

    const int result = tesk_cache_read(type, &count, &entries);
    if (result != 0) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot read %s %u", cache_text,
                   static_cast<unsigned>(result));
        return;
    }
    using shell_cfm = tesk_shell_cfm<record_type>;
    mbx_signal *signal =
        mbx_alloc(sizeof(shell_cfm) + sizeof(record_type) * count + trailing_bytes, answer);
    auto *cfm = reinterpret_cast<shell_cfm *>(signal);
    cfm->count = count;
    for (uint32_t index = 0; index < count; index++)
        fill_record(&entries[index], &cfm->records[index]);
    free(entries);
    mbx_send(&signal, sender, MBX_OWN_MAILBOX);
}

static void tesk_shell_send_port_status_cache(const mbx_signal *request)
{
    send_cache<tesk_shell_port_status_record>(request, TESK_CACHE_PORT_STATUS,
                                              TESK_SHELL_GET_PORT_STATUS_CACHE_CFM,
                                              "port status cache, result code:");
}

static void tesk_shell_send_sfp_info_cache(const mbx_signal *request)
{
    send_cache<tesk_shell_sfp_info_record>(request, TESK_CACHE_SFP_INFO,
                                           TESK_SHELL_GET_SFP_INFO_CACHE_CFM,
                                           "sfp info cache, result code:");
}

static void tesk_shell_send_actions_cache(const mbx_signal *request)
{
    send_cache<tesk_shell_action_record>(request, TESK_CACHE_ACTION,
                                         TESK_SHELL_GET_ACTIONS_CACHE_CFM,
                                         "actions cache, result code.");
}

bool tesk_shell_client_handle(mbx_signal *signal)
{
    switch (signal->number) {
    case TESK_SHELL_GET_SFP_INFO_CACHE_REQ:
        tesk_shell_send_sfp_info_cache(signal);
        return true;
    case TESK_SHELL_GET_ACTIONS_CACHE_REQ:
        tesk_shell_send_actions_cache(signal);
        return true;
    case TESK_SHELL_GET_PORT_STATUS_CACHE_REQ:
        tesk_shell_send_port_status_cache(signal);
        return true;
    default:
        return false;
    }
}
