/* SPDX-License-Identifier: Apache-2.0 */
/* A client that dies gives up what it holds as if it had unsubscribed from all of it, but for the
   history and the answers: nobody is there to be told. The last subscriber of a port thus gives the
   hardware subscription back however it leaves.

   A refusal of the hardware doesn't hold the clean-up: the client has gone, whatever its ports say.
 */
#include "tesk_server/tesk_mbx_monitor.h"

#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_trace.h"

/* Gives up the client's share of one subscription. A refusal is traced and leaves the port with a
   subscriber that no client stands for. */
static void give_up(const tesk_client *client, const tesk_client_subscription *subscription)
{
    const uint32_t port_no = subscription->port_no;

    switch (subscription->kind) {
    case TESK_SUBSCRIPTION_PORT_STATUS:
        if (tesk_portsub_remove_port_status(port_no) != 0)
            tesk_trace(TESK_TRACE_COURSE,
                       "Error while unsubscribing client: %u on port %u for PORT_STATUS "
                       "subscription",
                       client->client_id, port_no);
        break;
    case TESK_SUBSCRIPTION_SFP_INFO:
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

    /* The monitor has done its work and isn't ended: there is nothing left of it. The subscriptions
       go with the client below, so that the walk sees them stand still. */
    for (guint index = 0; index < client->subscriptions->len; index++)
        give_up(client, &g_array_index(client->subscriptions, tesk_client_subscription, index));
    tesk_trace(TESK_TRACE_COURSE, "Removing clients data: %d",
               static_cast<int32_t>(client->client_id));
    tesk_client_remove(client);
}
