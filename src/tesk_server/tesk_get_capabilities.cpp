/* SPDX-License-Identifier: Apache-2.0 */
/* The list is a constant of the server: the answer depends neither on the hardware nor on any
   state, and nothing in the server depends on the numbers. The procedure has no rejection. Unlike a
   subscription it does not change the client's procedure_ref. */
#include "tesk_server/tesk_get_capabilities.h"

#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_trace.h"

#include <cstring>
#include <iterator>

static constexpr tesk_capability capabilities[] = {{1, 8}, {2, 8}, {3, 8}};
static constexpr uint32_t number_of_capabilities = std::size(capabilities);

static void tesk_send_get_capabilities_cfm(uint32_t mbox, uint32_t procedure_ref,
                                           uint32_t connection_ref)
{
    constexpr size_t size = sizeof(tesk_get_capabilities_cfm) + sizeof(capabilities);
    mbx_signal *signal = mbx_alloc(size, TESK_GET_CAPABILITIES_CFM);
    auto *cfm = reinterpret_cast<tesk_get_capabilities_cfm *>(signal);

    cfm->procedure_ref = procedure_ref;
    cfm->connection_ref = connection_ref;
    cfm->number_of_capabilities = number_of_capabilities;
    memcpy(cfm->capabilities, capabilities, sizeof(capabilities));
    tesk_trace_sent(TESK_GET_CAPABILITIES_CFM, mbox,
                    "Sent signal TESK_GET_CAPABILITIES_CFM:connection_ref: %u procedure_ref: %u "
                    "number_of_capabilities: %u sender id: 0x%x",
                    cfm->connection_ref, cfm->procedure_ref, cfm->number_of_capabilities, mbox);
    tesk_swap_words(cfm->connection_ref, cfm->procedure_ref, cfm->number_of_capabilities);
    for (uint32_t index = 0; index < number_of_capabilities; index++)
        tesk_swap_byte_order(cfm->capabilities[index]);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

void tesk_handle_get_capabilities_req(mbx_signal *signal)
{
    auto *request = reinterpret_cast<tesk_get_capabilities_req *>(signal);
    const uint32_t sender = mbx_sender(signal);

    tesk_swap_byte_order(*request);
    tesk_trace_received(
        signal,
        "Received TESK_GET_CAPABILITIES_REQ: sender: 0x%x, procedure_ref: %u, connection_ref: %u",
        sender, request->procedure_ref, request->connection_ref);

    const tesk_client *client = tesk_client_find(request->connection_ref, sender);
    if (client == nullptr) {
        tesk_trace(TESK_TRACE_COURSE,
                   "sender_id: %u  procedure_ref: %u connection_ref: %u Unknown client - silently "
                   "throwing away request",
                   sender, request->procedure_ref, request->connection_ref);
        return;
    }
    tesk_send_get_capabilities_cfm(sender, request->procedure_ref, client->conn_ref);
}
