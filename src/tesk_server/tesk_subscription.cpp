/* SPDX-License-Identifier: Apache-2.0 */
/* Clients rely on the order of the steps. All checks come before any change: those within the
   server first, the hardware last. Then the subscription is recorded, the history is written and
   the CFM is sent, so that the CFM's contents are true when it arrives. The handlers send the first
   indication after the CFM.

   The client's procedure_ref is stored once the port subscription table has accepted the change, so
   that indications carry that of the latest accepted change. */
#include "tesk_server/tesk_subscription.h"

#include "tesk_server/tesk_history.h"
#include "tesk_server/tesk_signals.h"

bool tesk_subscribe_accept(const tesk_subscription_procedure *procedure, mbx_signal *signal,
                           tesk_port_request *request)
{
    if (!tesk_port_request_read(&procedure->request, signal, request))
        return false;
    if (!tesk_port_request_in_range(request))
        return false;
    if (tesk_client_find_subscription(request->client, request->port_no, procedure->kind) != -1) {
        tesk_port_request_reject(request, TESK_ERROR_REJECTED, "already subscribed");
        return false;
    }
    if (procedure->change(request->port_no) != 0) {
        tesk_port_request_reject(request, TESK_ERROR_REJECTED, "invalid port");
        return false;
    }
    request->client->procedure_ref = request->procedure_ref;
    return true;
}

void tesk_subscribe_confirm(const tesk_subscription_procedure *procedure,
                            const tesk_port_request *request)
{
    tesk_client_add_subscription(request->client, request->port_no, procedure->kind);
    tesk_history_add_action(procedure->action, request->port_no, request->client);
    tesk_port_request_confirm(request, procedure->cfm);
}

void tesk_unsubscribe(const tesk_subscription_procedure *procedure, mbx_signal *signal)
{
    tesk_port_request request;

    if (!tesk_port_request_read(&procedure->request, signal, &request))
        return;
    tesk_client *client = request.client;
    const int32_t index = tesk_client_find_subscription(client, request.port_no, procedure->kind);
    if (index == -1) {
        tesk_port_request_reject(&request, TESK_ERROR_REJECTED, "client is not subscribed");
        return;
    }
    if (procedure->change(request.port_no) != 0) {
        tesk_port_request_reject(&request, TESK_ERROR_REJECTED, "failed to unsubscribe");
        return;
    }
    client->procedure_ref = request.procedure_ref;
    tesk_client_remove_subscription(client, index);
    tesk_history_add_action(procedure->action, request.port_no, client);
    tesk_port_request_confirm(&request, procedure->cfm);
}
