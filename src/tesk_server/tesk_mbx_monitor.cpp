/* SPDX-License-Identifier: Apache-2.0 */
/* The subscriptions of a lost client are ended as if it had unsubscribed, but without answers and
   without entries in the history. Each hardware subscription is therefore ended with its last
   subscriber, in whatever way the client leaves.

   If the hardware refuses, the clean-up continues: the client has died in any case. */
#include "tesk_server/tesk_mbx_monitor.h"

#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_trace.h"

/* A refusal is traced and leaves the port with a subscriber for which there is no client. */
static void end_subscription(const tesk_client *client,
                             const tesk_client_subscription *subscription)
{
    const uint32_t port_no = subscription->port_no;

    switch (subscription->kind) {
    case tesk_subscription_port_status:
        if (tesk_portsub_remove_port_status(port_no) != 0)
            tesk_trace(TESK_TRACE_COURSE,
                       "Error while unsubscribing client: %u on port %u for PORT_STATUS "
                       "subscription",
                       client->client_id, port_no);
        break;
    case tesk_subscription_sfp_info:
        if (tesk_portsub_remove_sfp_info(port_no) != 0)
            tesk_trace(TESK_TRACE_COURSE,
                       "Error while unsubscribing client: %u on port %u for SFP_INFO subscription",
                       client->client_id, port_no);
        break;
    default:
        break;
    }
}

void tesk_handle_client_lost(mbx_signal *signal)
{
    const uint32_t sender = mbx_sender(signal);

    tesk_trace_received(signal, "Received MBX_MONITOR_DEFAULT_NO: sender: 0x%x", sender);
    tesk_trace(TESK_TRACE_NOTABLE, "ABN: client lost - remove its' data ");
    tesk_client *client = tesk_client_find_by_sender(sender);
    if (client == nullptr)
        return;

    /* The monitor ended when it delivered its signal. The walk doesn't change the array:
       tesk_client_remove frees it whole. */
    const guint count = client->subscriptions == nullptr ? 0 : client->subscriptions->len;
    for (guint index = 0; index < count; index++)
        end_subscription(client,
                         &g_array_index(client->subscriptions, tesk_client_subscription, index));
    tesk_trace(TESK_TRACE_COURSE, "Removing clients data: %d",
               static_cast<int32_t>(client->client_id));
    tesk_client_remove(client);
}
