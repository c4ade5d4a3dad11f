/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_port_request - the parts that the five requests with a port have in common: reading the
   request, checking the range of its port, and sending the answers. The differences are data, in
   one tesk_port_procedure beside each handler. Main thread only.

   Exhausted memory: mbx_alloc ends the process. */
#pragma once

#include "platform/mbx/mbx.h"
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_trace.h"

#include <cstdint>

/* An answer's number, and its name for the trace. */
struct tesk_port_answer {
    uint32_t number;
    const char *name;
};

/* The answer with this number and the same name. */
#define TESK_PORT_ANSWER(number)                                                                   \
    {                                                                                              \
        number, #number                                                                            \
    }

struct tesk_port_procedure {
    const char *received;           /* the reception trace up to the sender's mailbox id */
    tesk_trace_group unknown_group; /* the group in which an unknown client is traced */
    const char *unknown;            /* the text of that trace */
    tesk_port_answer rej;
};

/* A request that has been matched to its client. Answers are sent to the mailbox that sent it, with
   its procedure_ref and the client's conn_ref: the connection_ref of a request is the server's own
   reference and has no meaning for the client. */
struct tesk_port_request {
    const tesk_port_procedure *procedure;
    tesk_client *client;
    uint32_t sender;
    uint32_t procedure_ref;
    uint32_t port_no; /* as received: any value */
};

/* Converts the request to host order in place, traces it and finds its client. False, with a trace
   and without an answer, when no client matches. */
bool tesk_port_request_read(const tesk_port_procedure *procedure, mbx_signal *signal,
                            tesk_port_request *request);

/* True when the port is at most TESK_HIGHEST_PORT; otherwise the request has been rejected. */
bool tesk_port_request_in_range(const tesk_port_request *request);

/* Sends a CFM in the common layout of confirmations. */
void tesk_port_request_confirm(const tesk_port_request *request, const tesk_port_answer &cfm);

/* Sends the procedure's REJ. */
void tesk_port_request_reject(const tesk_port_request *request, int32_t error_code,
                              const char *error_description);
