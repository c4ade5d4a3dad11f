/* SPDX-License-Identifier: Apache-2.0 */
/* The order of a request is the same in all procedures: convert, trace, find the client, check the
   port. The conversion comes first, so that the trace shows host values. The client is needed
   before any answer, since an answer carries the client's own reference; an unknown sender gets
   none.

   The range check is a step of its own because an unsubscription doesn't have it: a port out of
   range cannot have been subscribed to, and is rejected for that reason. */
#include "tesk_server/tesk_port_request.h"

#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_text.h"

bool tesk_port_request_read(const tesk_port_procedure *procedure, mbx_signal *signal,
                            tesk_port_request *request)
{
    /* The dispatch has checked that the block contains this record. */
    auto *record = reinterpret_cast<tesk_port_signal *>(signal);
    const uint32_t sender = mbx_sender(signal);

    tesk_swap_byte_order(*record);
    tesk_trace_received(signal, "Received %s0x%x, procedure_ref: %u, connection_ref: %u, port: %u",
                        procedure->received, sender, record->procedure_ref, record->connection_ref,
                        record->port_no);

    tesk_client *client = tesk_client_find(record->connection_ref, sender);
    if (client == nullptr) {
        /* A trace in the group of received signals has the signal as an argument. */
        if (procedure->unknown_group == TESK_TRACE_RECEIVED)
            tesk_trace_received(signal, "%s", procedure->unknown);
        else
            tesk_trace(procedure->unknown_group, "%s", procedure->unknown);
        return false;
    }
    *request = {procedure, client, sender, record->procedure_ref, record->port_no};
    return true;
}

bool tesk_port_request_in_range(const tesk_port_request *request)
{
    if (request->port_no <= TESK_HIGHEST_PORT)
        return true;
    tesk_port_request_reject(request, TESK_ERROR_INVALID_PORT, "invalid port");
    return false;
}

void tesk_port_request_confirm(const tesk_port_request *request, const tesk_port_answer &answer)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_port_signal), answer.number);
    auto *cfm = reinterpret_cast<tesk_port_signal *>(signal);

    cfm->procedure_ref = request->procedure_ref;
    cfm->connection_ref = request->client->conn_ref;
    cfm->port_no = request->port_no;
    tesk_trace_sent(answer.number, request->sender,
                    "Sent signal %s:procedure_ref: %u, connection_ref: %u, mbox: 0x%x, port_no: %u",
                    answer.name, cfm->procedure_ref, cfm->connection_ref, request->sender,
                    cfm->port_no);
    tesk_swap_byte_order(*cfm);
    mbx_send(&signal, request->sender, MBX_OWN_MAILBOX);
}

void tesk_port_request_reject(const tesk_port_request *request, int32_t error_code,
                              const char *error_description)
{
    const tesk_port_answer &answer = request->procedure->rej;
    mbx_signal *signal = mbx_alloc(sizeof(tesk_port_rej), answer.number);
    auto *rej = reinterpret_cast<tesk_port_rej *>(signal);

    rej->procedure_ref = request->procedure_ref;
    rej->connection_ref = request->client->conn_ref;
    rej->port_no = request->port_no;
    rej->error_code = error_code;
    tesk_copy_text(rej->error_description, error_description);
    tesk_trace_sent(answer.number, request->sender,
                    "Sent signal %s:procedure_ref: %u, connection_ref: %u, error_code: %d, "
                    "error_description: %s, mbox: 0x%x, port_no: %u",
                    answer.name, rej->procedure_ref, rej->connection_ref, rej->error_code,
                    rej->error_description, request->sender, rej->port_no);
    tesk_swap_byte_order(*rej);
    mbx_send(&signal, request->sender, MBX_OWN_MAILBOX);
}
