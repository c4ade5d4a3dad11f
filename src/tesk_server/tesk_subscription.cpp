/* SPDX-License-Identifier: Apache-2.0 */
/* The order of the steps is what a client can rely on. A refusal comes before anything is changed:
   the checks that cost nothing first, the hardware last. After that the subscription is recorded
   before the history is written and the CFM goes out last, so that what a CFM says is true when it
   arrives, and the first indication, which the handlers send, never overtakes it.

   The client's procedure_ref follows the change, not the request: it is stored once the port
   subscription table has accepted, so that indications bear the latest change that it took. */
#include "tesk_server/tesk_subscription.h"

#include "tesk_server/tesk_signals.h"

bool tesk_subscribe_accept(const tesk_subscribe_procedure *procedure, mbx_signal *signal,
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
    if (procedure->add(request->port_no) != 0) {
        tesk_port_request_reject(request, TESK_ERROR_REJECTED, "invalid port");
        return false;
    }
    request->client->procedure_ref = request->procedure_ref;
    return true;
}

void tesk_subscribe_confirm(const tesk_subscribe_procedure *procedure,
                            const tesk_port_request *request)
{
    tesk_client *client = request->client;

    tesk_client_add_subscription(client, request->port_no, procedure->kind);
    procedure->cache(client->client_id, client->conn_ref, request->port_no);
    procedure->send_cfm(request->sender, request->procedure_ref, client->conn_ref,
                        request->port_no);
}

void tesk_unsubscribe(const tesk_unsubscribe_procedure *procedure, mbx_signal *signal)
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
    if (procedure->remove(request.port_no) != 0) {
        tesk_port_request_reject(&request, TESK_ERROR_REJECTED, "failed to unsubscribe");
        return;
    }
    client->procedure_ref = request.procedure_ref;
    tesk_client_remove_subscription(client, index);
    procedure->cache(request.port_no, client->client_id, client->conn_ref);
    procedure->send_cfm(request.sender, request.procedure_ref, client->conn_ref, request.port_no);
}
