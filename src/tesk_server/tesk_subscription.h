/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_subscription - the course that subscribing to the two kinds shares, and unsubscribing from
   them. What differs stands in a record beside each handler; where a kind does something of its own
   in the middle, its handler does it between two of these steps. Main thread only.

   The two members called `cache` take their arguments in different orders, which are those of the
   functions behind them; all three are plain numbers, so the compiler tells nobody who mixes them
   up. */
#pragma once

#include "tesk_server/tesk_port_request.h"

struct tesk_subscribe_procedure {
    tesk_port_procedure request;
    tesk_subscription_kind kind;
    int32_t (*add)(uint32_t port_no); /* to the port subscription table; 0 on success */
    void (*cache)(uint32_t client_id, uint32_t conn_ref, uint32_t port_no);
    void (*send_cfm)(uint32_t mbox, uint32_t procedure_ref, uint32_t conn_ref, uint32_t port_no);
};

struct tesk_unsubscribe_procedure {
    tesk_port_procedure request;
    tesk_subscription_kind kind;
    int32_t (*remove)(uint32_t port_no); /* from the port subscription table; 0 on success */
    void (*cache)(uint32_t port_no, uint32_t client_id, uint32_t conn_ref);
    void (*send_cfm)(uint32_t mbox, uint32_t procedure_ref, uint32_t conn_ref, uint32_t port_no);
};

/* Reads and checks the request and counts the client in the port subscription table. False when the
   request is over: rejected, or from nobody that is known. After true the client's procedure_ref is
   the request's, and tesk_subscribe_confirm or a rejection that gives the count back must follow.
 */
bool tesk_subscribe_accept(const tesk_subscribe_procedure *procedure, mbx_signal *signal,
                           tesk_port_request *request);

/* Records the subscription, writes the history and sends the CFM. */
void tesk_subscribe_confirm(const tesk_subscribe_procedure *procedure,
                            const tesk_port_request *request);

/* The whole of an unsubscription. */
void tesk_unsubscribe(const tesk_unsubscribe_procedure *procedure, mbx_signal *signal);
