/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_port_request - what the five requests that name a port share: their reading, the check of
   the port's range, and the answers of common layout. The differences, which are texts and a
   sender, stand in one tesk_port_procedure beside each handler. Main thread only. */
#pragma once

#include "platform/mbx/mbx.h"
#include "tesk_server/tesk_client_data.h"

#include <cstdint>

struct tesk_port_procedure {
    const char *received;   /* format: sender, procedure_ref, connection_ref, port */
    uint32_t unknown_group; /* where a request that matches no client is traced */
    const char *unknown;
    void (*send_rej)(uint32_t mbox, uint32_t procedure_ref, uint32_t conn_ref, int32_t error_code,
                     const char *error_description, uint32_t port_no);
};

/* A request that has been matched to its client. Answers go to the mailbox that sent it, with its
   procedure_ref and the client's conn_ref: the connection_ref of the request is the server's own
   reference and means nothing to the client. */
struct tesk_port_request {
    const tesk_port_procedure *procedure;
    tesk_client *client;
    uint32_t sender;
    uint32_t procedure_ref;
    uint32_t port_no;
};

/* Turns the request to host order in place, traces it and finds its client. False, with a trace and
   without an answer, when no client matches. */
bool tesk_port_request_read(const tesk_port_procedure *procedure, mbx_signal *signal,
                            tesk_port_request *request);

/* Whether a client may name the port at all; if not, the request has been rejected. */
bool tesk_port_request_in_range(const tesk_port_request *request);

/* Answers with the procedure's REJ. */
void tesk_port_request_reject(const tesk_port_request *request, int32_t error_code,
                              const char *error_description);

/* Sends a confirmation with a port; `name` is the signal's, for the trace. */
void tesk_send_port_cfm(uint32_t number, const char *name, uint32_t mbox, uint32_t procedure_ref,
                        uint32_t conn_ref, uint32_t port_no);

/* Sends a rejection with a port; `name` is the signal's, for the trace. */
void tesk_send_port_rej(uint32_t number, const char *name, uint32_t mbox, uint32_t procedure_ref,
                        uint32_t conn_ref, int32_t error_code, const char *error_description,
                        uint32_t port_no);
