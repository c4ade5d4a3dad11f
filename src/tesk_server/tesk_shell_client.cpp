/* SPDX-License-Identifier: Apache-2.0 */
/* A protocol of its own for a diagnostic tool on the same board: any mailbox may ask, nothing is
   turned to network order, there is no rejection, and no trace shows its signals. It is looked for
   before the dispatch, which knows nothing of it.

   The three answers have one frame and differ in type, record, mapping and failure text. The
   enumerations of the shell protocol are its own: they are mapped, not copied, so that the server's
   own values can change without a change of the tool. */
#include "tesk_server/tesk_shell_client.h"

#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_trace.h"

#include <cstdlib>

/* Behind the records, with no meaning; readers of the protocol count on them. */
static constexpr size_t trailing_bytes = 4;

static uint32_t shell_port_state(uint32_t state)
{
    switch (state) {
    case PORTSTATE_UP:
        return 1;
    case PORTSTATE_DOWN:
        return 2;
    default:
        return 0;
    }
}

/* The same numbers for what is known today, and unknown for whatever else there may be one day. */
static uint32_t shell_sfp_presence(uint32_t presence)
{
    return presence <= UNSUPPORTED_PORT ? presence : uint32_t{SFP_UNKNOWN};
}

static uint32_t shell_action(uint32_t action)
{
    return action >= TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE &&
                   action <= TESK_CACHE_ACTION_SFP_INFO_IND
               ? action
               : 0;
}

/* The shell protocol carries 32 bits of either half. */
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

template <typename record_type>
static void send_cache(const mbx_signal *request, tesk_cache_entry_type type, uint32_t answer,
                       const char *failure)
{
    const uint32_t sender = mbx_sender(request);
    tesk_cache_entry *entries;
    uint32_t count;

    const int result = tesk_cache_read(type, &count, &entries);
    if (result != 0) {
        tesk_trace(TESK_TRACE_ERROR, failure, static_cast<unsigned>(result));
        return;
    }
    mbx_signal *signal =
        mbx_alloc(sizeof(tesk_shell_cfm) + sizeof(record_type) * count + trailing_bytes, answer);
    auto *cfm = reinterpret_cast<tesk_shell_cfm *>(signal);
    auto *records = reinterpret_cast<record_type *>(cfm + 1);
    cfm->count = count;
    for (uint32_t index = 0; index < count; index++)
        fill_record(&entries[index], &records[index]);
    free(entries);
    mbx_send(&signal, sender, MBX_OWN_MAILBOX);
}

static void tesk_shell_send_port_status_cache(const mbx_signal *request)
{
    send_cache<tesk_shell_port_status_record>(request, TESK_CACHE_PORT_STATUS,
                                              TESK_SHELL_GET_PORT_STATUS_CACHE_CFM,
                                              "Cannot read port status cache, result code: %u");
}

static void tesk_shell_send_sfp_info_cache(const mbx_signal *request)
{
    send_cache<tesk_shell_sfp_info_record>(request, TESK_CACHE_SFP_INFO,
                                           TESK_SHELL_GET_SFP_INFO_CACHE_CFM,
                                           "Cannot read sfp info cache, result code: %u");
}

static void tesk_shell_send_actions_cache(const mbx_signal *request)
{
    send_cache<tesk_shell_action_record>(request, TESK_CACHE_ACTION,
                                         TESK_SHELL_GET_ACTIONS_CACHE_CFM,
                                         "Cannot read actions cache, result code. %u");
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
