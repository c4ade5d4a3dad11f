/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_subscription - the steps that subscribing to the two kinds has in common, and those of
   unsubscribing. The differences are data, in a record beside each handler; steps of one kind only
   are made by its handler, between tesk_subscribe_accept and tesk_subscribe_confirm. Main thread
   only.

   Exhausted memory: recording the subscription ends the process in GLib, an answer in mbx_alloc. */
#pragma once

#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_port_request.h"

struct tesk_subscription_procedure {
    tesk_port_procedure request;
    tesk_port_answer cfm;
    tesk_subscription_kind kind;
    tesk_cache_action action;            /* the entry of the history */
    int32_t (*change)(uint32_t port_no); /* adds the client to the port subscription table, or
                                            removes it; 0 on success */
};

/* Reads and checks the request and counts the client in the port subscription table. False when the
   request has been rejected or its client is unknown. After true the client's procedure_ref is that
   of the request, and the caller either calls tesk_subscribe_confirm, or removes the client from
   the table again and rejects the request. */
bool tesk_subscribe_accept(const tesk_subscription_procedure *procedure, mbx_signal *signal,
                           tesk_port_request *request);

/* Records the subscription, writes the history and sends the CFM. */
void tesk_subscribe_confirm(const tesk_subscription_procedure *procedure,
                            const tesk_port_request *request);

/* Carries out a whole unsubscription. */
void tesk_unsubscribe(const tesk_subscription_procedure *procedure, mbx_signal *signal);
