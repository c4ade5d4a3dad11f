/* SPDX-License-Identifier: Apache-2.0 */
/* Nothing here but what tells this procedure from its sibling: the course is tesk_unsubscribe. The
   port's bucket goes with its last subscriber and is the table's business, and a tick that is still
   on its way finds none. No indication follows the CFM. */
#include "tesk_server/tesk_unsubscribe_port_status.h"

#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscription.h"
#include "tesk_server/tesk_trace.h"

static void tesk_port_status_cache_unsubscribe(uint32_t port_no, uint32_t client_id,
                                               uint32_t conn_ref)
{
    tesk_cache_add_action(TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE,
                          "Failed to cache port status unsubscribe data for port %u, client %u",
                          port_no, client_id, conn_ref);
}

static void tesk_send_unsubscribe_port_status_cfm(uint32_t mbox, uint32_t procedure_ref,
                                                  uint32_t conn_ref, uint32_t port_no)
{
    tesk_send_port_cfm(TESK_UNSUBSCRIBE_PORT_STATUS_CFM, "TESK_UNSUBSCRIBE_PORT_STATUS_CFM", mbox,
                       procedure_ref, conn_ref, port_no);
}

static void tesk_send_unsubscribe_port_status_rej(uint32_t mbox, uint32_t procedure_ref,
                                                  uint32_t conn_ref, int32_t error_code,
                                                  const char *error_description, uint32_t port_no)
{
    tesk_send_port_rej(TESK_UNSUBSCRIBE_PORT_STATUS_REJ, "TESK_UNSUBSCRIBE_PORT_STATUS_REJ", mbox,
                       procedure_ref, conn_ref, error_code, error_description, port_no);
}

static constexpr tesk_unsubscribe_procedure procedure = {
    .request =
        {
            .received =
                "Received TESK_UNSUBSCRIBE_PORT_STATUS_REQ: sender: 0x%x, procedure_ref: %u, "
                "connection_ref: %u, port: %u",
            .unknown_group = TESK_TRACE_ERROR,
            .unknown = "Unknown sender, ignoring TESK_UNSUBSCRIBE_PORT_STATUS_REQ",
            .send_rej = tesk_send_unsubscribe_port_status_rej,
        },
    .kind = TESK_SUBSCRIPTION_PORT_STATUS,
    .remove = tesk_portsub_remove_port_status,
    .cache = tesk_port_status_cache_unsubscribe,
    .send_cfm = tesk_send_unsubscribe_port_status_cfm,
};

void tesk_handle_unsubscribe_port_status_req(mbx_signal *signal)
{
    tesk_unsubscribe(&procedure, signal);
}
