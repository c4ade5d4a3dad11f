/* SPDX-License-Identifier: Apache-2.0 */
/* A mailbox has at most one connection. This is checked first: a connected client is rejected for
   that reason whatever revisions it offers. Then the server looks for its own revision anywhere in
   the client's list.

   The two sides exchange references. The client's connection_ref is that of all later signals to
   it; the client_id in the CFM is the connection_ref of all its later requests. A rejection has
   connection_ref 0, since there is no connection. */
#include "tesk_server/tesk_conn_establish.h"

#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_text.h"
#include "tesk_server/tesk_trace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

/* The number of entries of protocol_rev that the received block contains, at most number_of_rev.
   The dispatch has checked that it contains the part before them. */
static uint32_t contained_revisions(const mbx_signal *signal, uint32_t number_of_rev)
{
    const size_t available = mbx_size(signal) - sizeof(tesk_conn_establish_req);

    return static_cast<uint32_t>(std::min<size_t>(number_of_rev, available / sizeof(uint32_t)));
}

static void tesk_send_conn_establish_cfm(uint32_t mbox, uint32_t procedure_ref,
                                         uint32_t connection_ref)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_conn_establish_cfm), TESK_CONN_ESTABLISH_CFM);
    auto *cfm = reinterpret_cast<tesk_conn_establish_cfm *>(signal);

    cfm->connection_ref = connection_ref;
    cfm->procedure_ref = procedure_ref;
    cfm->protocol_rev = TESK_PROTOCOL_REVISION;
    tesk_trace_sent(TESK_CONN_ESTABLISH_CFM, mbox,
                    "Sent signal TESK_CONN_ESTABLISH_CFM:connection_ref: %u procedure_ref: "
                    "%uprotocol_rev: %u mbox: 0x%x",
                    cfm->connection_ref, cfm->procedure_ref, cfm->protocol_rev, mbox);
    tesk_swap_byte_order(*cfm);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

static void tesk_send_conn_establish_rej(uint32_t mbox, uint32_t procedure_ref, int32_t error_code,
                                         const char *error_description)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_conn_establish_rej), TESK_CONN_ESTABLISH_REJ);
    auto *rej = reinterpret_cast<tesk_conn_establish_rej *>(signal);

    rej->procedure_ref = procedure_ref;
    rej->connection_ref = 0;
    rej->error_code = error_code;
    tesk_copy_text(rej->error_description, error_description);
    tesk_trace_sent(TESK_CONN_ESTABLISH_REJ, mbox,
                    "Sent signal TESK_CONN_ESTABLISH_REJ:connection_ref: %d procedure_ref: %d "
                    "error_code: %d, error_description: %s, mbox: 0x%x",
                    static_cast<int32_t>(rej->connection_ref),
                    static_cast<int32_t>(rej->procedure_ref), rej->error_code,
                    rej->error_description, mbox);
    tesk_swap_byte_order(*rej);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

/* True when the establishment may continue, otherwise error_code and error_description are set. The
   request is in host order, with `revisions` entries of protocol_rev. */
static bool tesk_conn_establish_validate(const tesk_conn_establish_req *request, uint32_t sender,
                                         uint32_t revisions, int32_t *error_code,
                                         char (&error_description)[TESK_ERROR_DESCRIPTION_SIZE])
{
    const tesk_client *client = tesk_client_find_by_sender(sender);

    if (client != nullptr) {
        *error_code = TESK_ERROR_REJECTED;
        snprintf(error_description, sizeof(error_description),
                 "client id %u has already established connection", client->client_id);
        return false;
    }

    const uint32_t *end = request->protocol_rev + revisions;
    if (std::find(request->protocol_rev, end, TESK_PROTOCOL_REVISION) != end)
        return true;
    *error_code = TESK_ERROR_REJECTED;
    snprintf(error_description, sizeof(error_description), "only supported protocol revision: %u",
             TESK_PROTOCOL_REVISION);
    return false;
}

/* The new client, or null with error_code and error_description set. */
static tesk_client *register_client(const tesk_conn_establish_req *request, uint32_t sender,
                                    int32_t *error_code,
                                    char (&error_description)[TESK_ERROR_DESCRIPTION_SIZE])
{
    tesk_client *client = tesk_client_add(sender, request->connection_ref);

    if (client == nullptr) {
        *error_code = TESK_ERROR_REJECTED;
        snprintf(error_description, sizeof(error_description), "failed to initialize client: %u",
                 request->connection_ref);
    }
    return client;
}

void tesk_handle_conn_establish_req(mbx_signal *signal)
{
    auto *request = reinterpret_cast<tesk_conn_establish_req *>(signal);
    const uint32_t sender = mbx_sender(signal);
    int32_t error_code = 0;
    char error_description[TESK_ERROR_DESCRIPTION_SIZE];

    /* number_of_rev must be in host order before the entries can be counted. */
    tesk_swap_byte_order(*request);
    const uint32_t revisions = contained_revisions(signal, request->number_of_rev);
    for (uint32_t index = 0; index < revisions; index++)
        tesk_swap_words(request->protocol_rev[index]);
    tesk_trace_received(signal,
                        "Received TESK_CONN_ESTABLISH_REQ: sender: 0x%x, connection_ref: %u, "
                        "procedure_ref: %u, number_of_rev = %u",
                        sender, request->connection_ref, request->procedure_ref,
                        request->number_of_rev);
    for (uint32_t index = 0; index < revisions; index++)
        tesk_trace_received(signal, "protocol_rev[%u] = %u\n", index, request->protocol_rev[index]);

    tesk_client *client = nullptr;
    if (tesk_conn_establish_validate(request, sender, revisions, &error_code, error_description))
        client = register_client(request, sender, &error_code, error_description);
    if (client == nullptr) {
        tesk_send_conn_establish_rej(sender, request->procedure_ref, error_code, error_description);
        return;
    }
    /* The monitor is started before the CFM is sent, so that no loss of the client is missed. For a
       mailbox that is dead already the monitor signal arrives at once. */
    tesk_trace(TESK_TRACE_COURSE, "Starting monitoring of client %d",
               static_cast<int32_t>(client->client_id));
    client->monitor_ref = mbx_monitor(sender, nullptr);
    tesk_send_conn_establish_cfm(sender, request->procedure_ref, client->client_id);
}
