/* SPDX-License-Identifier: Apache-2.0 */
/* The module is read before the CFM, since that read can still find that there is no such port. By
   then the client has been counted on the port but holds no subscription, and so the count is given
   back before the rejection: nobody else could ever do that, and the hardware subscription would
   stay for good. A port status subscription has no such case and reads its port after the CFM.

   All subscribers of a port get the same content from one read. The last subscriber to connect is
   told first, as the registry orders them. */
#include "tesk_server/tesk_subscribe_sfp_info.h"

#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscription.h"
#include "tesk_server/tesk_trace.h"

#include <cstring>

static const char *tesk_sfp_type_str(uint32_t type)
{
    switch (type) {
    case TESK_SFP_NOT_PRESENT:
        return "Not present";
    case TESK_SFP_ELECTRICAL:
        return "Present Electrical";
    case TESK_SFP_OPTICAL:
        return "Present Optical";
    default:
        return "Unknown";
    }
}

static void tesk_sfp_info_cache_subscribe(uint32_t client_id, uint32_t conn_ref, uint32_t port_no)
{
    tesk_cache_add_action(TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE,
                          "Failed to cache sfp subscription data for port %u, client %u", port_no,
                          client_id, conn_ref);
}

static void tesk_sfp_info_cache_ind(uint32_t port_no, uint32_t client_id, uint32_t conn_ref)
{
    tesk_cache_add_action(TESK_CACHE_ACTION_SFP_INFO_IND,
                          "Failed to cache sfp info ind for port %u, client id %u, conn ref %u",
                          port_no, client_id, conn_ref);
}

static void tesk_sfp_info_cache_presence(uint32_t port_no, uint32_t presence)
{
    tesk_cache_entry entry = {};

    entry.type = TESK_CACHE_SFP_INFO;
    entry.sfp_info.port_no = port_no;
    entry.sfp_info.sfp_presence = presence;
    gettimeofday(&entry.sfp_info.timestamp, nullptr);
    if (tesk_cache_add(&entry) != 0)
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to cache sfp info for port %u, presence %u", port_no,
                   presence);
}

static void tesk_send_sfp_info_ind(uint32_t mbox, uint32_t conn_ref, uint32_t procedure_ref,
                                   uint32_t port_no, const tesk_sfp_info *info)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_sfp_info_ind), TESK_SFP_INFO_IND);
    auto *ind = reinterpret_cast<tesk_sfp_info_ind *>(signal);

    memset(ind, 0, sizeof(*ind));
    ind->number = TESK_SFP_INFO_IND;
    ind->procedure_ref = procedure_ref;
    ind->connection_ref = conn_ref;
    ind->info = *info;
    /* These two the read leaves to whoever sends its record. */
    ind->info.is_optical = info->type == TESK_SFP_OPTICAL ? 1 : 0;
    ind->info.port_no = port_no;
    tesk_trace_sent(TESK_SFP_INFO_IND, mbox,
                    "Sent signal TESK_SFP_INFO_IND:procedure_ref: %u, connection_ref: %u, mbox: "
                    "0x%x, port_no: %u, type: %s",
                    ind->procedure_ref, ind->connection_ref, mbox, ind->info.port_no,
                    tesk_sfp_type_str(ind->info.type));
    tesk_turn(*ind);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

static void tesk_send_subscribe_sfp_info_cfm(uint32_t mbox, uint32_t procedure_ref,
                                             uint32_t conn_ref, uint32_t port_no)
{
    tesk_send_port_cfm(TESK_SUBSCRIBE_SFP_INFO_CFM, "TESK_SUBSCRIBE_SFP_INFO_CFM", mbox,
                       procedure_ref, conn_ref, port_no);
}

static void tesk_send_subscribe_sfp_info_rej(uint32_t mbox, uint32_t procedure_ref,
                                             uint32_t conn_ref, int32_t error_code,
                                             const char *error_description, uint32_t port_no)
{
    tesk_send_port_rej(TESK_SUBSCRIBE_SFP_INFO_REJ, "TESK_SUBSCRIBE_SFP_INFO_REJ", mbox,
                       procedure_ref, conn_ref, error_code, error_description, port_no);
}

static void tesk_send_sfp_info_ind_to_subscribers(uint32_t port_no, uint32_t presence)
{
    tesk_sfp_info info = {};

    /* The result makes no difference: a failed read has left the record clear, and goes out as a
       module that isn't there. */
    get_sfp_info(port_no, presence, &info);
    for (const tesk_subscriber *subscriber =
             tesk_client_first_subscriber(port_no, TESK_SUBSCRIPTION_SFP_INFO);
         subscriber != nullptr; subscriber = tesk_client_next_subscriber(subscriber)) {
        const tesk_client *client = subscriber->client;
        tesk_sfp_info_cache_ind(port_no, client->client_id, client->conn_ref);
        tesk_send_sfp_info_ind(client->mbox, client->conn_ref, client->procedure_ref, port_no,
                               &info);
    }
}

static constexpr tesk_subscribe_procedure procedure = {
    .request =
        {
            .received = "Received TESK_SUBSCRIBE_SFP_INFO_REQ: sender: 0x%x, procedure_ref: %u, "
                        "connection_ref: %u, port: %u",
            .unknown_group = TESK_TRACE_ERROR,
            .unknown = "Unknown sender, ignoring TESK_SUBSCRIBE_SFP_INFO_REQ",
            .send_rej = tesk_send_subscribe_sfp_info_rej,
        },
    .kind = TESK_SUBSCRIPTION_SFP_INFO,
    .add = tesk_portsub_add_sfp_info,
    .cache = tesk_sfp_info_cache_subscribe,
    .send_cfm = tesk_send_subscribe_sfp_info_cfm,
};

void tesk_handle_subscribe_sfp_info_req(mbx_signal *signal)
{
    tesk_sfp_info info = {};
    tesk_port_request request;

    if (!tesk_subscribe_accept(&procedure, signal, &request))
        return;
    const tesk_client *client = request.client;
    const uint32_t port_no = request.port_no;
    if (get_sfp_info(port_no, get_sfp_presence(port_no), &info) == UNSUPPORTED_PORT) {
        tesk_portsub_remove_sfp_info(port_no);
        tesk_port_request_reject(&request, TESK_ERROR_INVALID_PORT, "invalid port");
        return;
    }
    /* An empty port is no error, and neither is a module that can't be read: the client is told
       that there is none and hears of the next change. */
    tesk_subscribe_confirm(&procedure, &request);
    tesk_sfp_info_cache_ind(port_no, client->client_id, client->conn_ref);
    tesk_send_sfp_info_ind(client->mbox, client->conn_ref, client->procedure_ref, port_no, &info);
}

void tesk_handle_sfp_presence_change(uint32_t port_no, uint32_t presence)
{
    tesk_sfp_info_cache_presence(port_no, presence);
    /* A module that is on its way is told when it has arrived, or when it has gone again. The
       history has it in either case. */
    if (presence == SFP_PRESENT_NOT_READY)
        return;
    tesk_trace(TESK_TRACE_COURSE, "Handling sfp presence change on port %u, presence %u", port_no,
               presence);
    tesk_send_sfp_info_ind_to_subscribers(port_no, presence);
}
