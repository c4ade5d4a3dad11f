/* SPDX-License-Identifier: Apache-2.0 */
/* The beginning and the end of five procedures. The order of a request is the same in all of them:
   turned, traced, its client found, its port looked at. Turned before it is traced, so that the
   trace shows numbers that people know; its client found before anything is answered, since an
   answer needs the client's own reference, and a stranger gets none.

   Whether the port is in range is a step of its own: an unsubscription doesn't ask it, as a port
   out of range can't have been subscribed to and is told so. */
#include "tesk_server/tesk_port_request.h"

#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_text.h"
#include "tesk_server/tesk_trace.h"

bool tesk_port_request_read(const tesk_port_procedure *procedure, mbx_signal *signal,
                            tesk_port_request *request)
{
    /* The dispatch has seen to it that the signal is as long as this record. */
    auto *record = reinterpret_cast<tesk_port_signal *>(signal);
    const uint32_t sender = mbx_sender(signal);

    tesk_turn(*record);
    tesk_trace_received(signal, procedure->received, sender, record->procedure_ref,
                        record->connection_ref, record->port_no);

    tesk_client *client = tesk_client_find(record->connection_ref, sender);
    if (client == nullptr) {
        /* What goes into the group of received signals goes with the signal. */
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

void tesk_port_request_reject(const tesk_port_request *request, int32_t error_code,
                              const char *error_description)
{
    request->procedure->send_rej(request->sender, request->procedure_ref, request->client->conn_ref,
                                 error_code, error_description, request->port_no);
}

void tesk_send_port_cfm(uint32_t number, const char *name, uint32_t mbox, uint32_t procedure_ref,
                        uint32_t conn_ref, uint32_t port_no)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_port_signal), number);
    auto *cfm = reinterpret_cast<tesk_port_signal *>(signal);

    cfm->procedure_ref = procedure_ref;
    cfm->connection_ref = conn_ref;
    cfm->port_no = port_no;
    /* Still in host order, as people read it. */
    tesk_trace_sent(number, mbox,
                    "Sent signal %s:procedure_ref: %u, connection_ref: %u, mbox: 0x%x, port_no: %u",
                    name, cfm->procedure_ref, cfm->connection_ref, mbox, cfm->port_no);
    tesk_turn(*cfm);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

void tesk_send_port_rej(uint32_t number, const char *name, uint32_t mbox, uint32_t procedure_ref,
                        uint32_t conn_ref, int32_t error_code, const char *error_description,
                        uint32_t port_no)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_port_rej), number);
    auto *rej = reinterpret_cast<tesk_port_rej *>(signal);

    rej->procedure_ref = procedure_ref;
    rej->connection_ref = conn_ref;
    rej->port_no = port_no;
    rej->error_code = error_code;
    tesk_copy_text(rej->error_description, error_description);
    tesk_trace_sent(number, mbox,
                    "Sent signal %s:procedure_ref: %u, connection_ref: %u, error_code: %d, "
                    "error_description: %s, mbox: 0x%x, port_no: %u",
                    name, rej->procedure_ref, rej->connection_ref, rej->error_code,
                    rej->error_description, mbox, rej->port_no);
    tesk_turn(*rej);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}
