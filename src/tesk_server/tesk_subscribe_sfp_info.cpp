/* SPDX-License-Identifier: Apache-2.0 */
/* The module is read before the CFM, since the library may report only then that it doesn't know
   the port. At that point the port subscription table has counted the client, but the client holds
   no subscription that an unsubscription or its loss could end. The client is therefore removed
   from the table before the rejection; otherwise the hardware subscription would never end. A port
   status subscription has no such case and reads its port after the CFM.

   The module is read once for all subscribers of a port, and they are notified in the order of the
   registry, newest client first. */
#include "tesk_server/tesk_subscribe_sfp_info.h"

#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_history.h"
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

static void tesk_send_sfp_info_ind(const tesk_client *client, uint32_t port_no,
                                   const tesk_sfp_info *info)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_sfp_info_ind), TESK_SFP_INFO_IND);
    auto *ind = reinterpret_cast<tesk_sfp_info_ind *>(signal);

    memset(ind, 0, sizeof(*ind));
    ind->number = TESK_SFP_INFO_IND;
    ind->procedure_ref = client->procedure_ref;
    ind->connection_ref = client->conn_ref;
    ind->info = *info;
    /* The read of the module doesn't fill these two. */
    ind->info.is_optical = info->type == TESK_SFP_OPTICAL ? 1 : 0;
    ind->info.port_no = port_no;
    tesk_trace_sent(TESK_SFP_INFO_IND, client->mbox,
                    "Sent signal TESK_SFP_INFO_IND:procedure_ref: %u, connection_ref: %u, mbox: "
                    "0x%x, port_no: %u, type: %s",
                    ind->procedure_ref, ind->connection_ref, client->mbox, ind->info.port_no,
                    tesk_sfp_type_str(ind->info.type));
    tesk_swap_byte_order(*ind);
    mbx_send(&signal, client->mbox, MBX_OWN_MAILBOX);
}

static void notify(const tesk_client *client, uint32_t port_no, const tesk_sfp_info *info)
{
    tesk_history_add_action(TESK_CACHE_ACTION_SFP_INFO_IND, port_no, client);
    tesk_send_sfp_info_ind(client, port_no, info);
}

static void tesk_send_sfp_info_ind_to_subscribers(uint32_t port_no, uint32_t presence)
{
    tesk_sfp_info info = {};

    /* The result is not needed: after a failed read the record is still clear, and is sent as that
       of an empty port. */
    get_sfp_info(port_no, presence, &info);
    const auto subscribers = tesk_client_subscribers(port_no, tesk_subscription_sfp_info);
    for (auto subscriber = subscribers.rbegin(); subscriber != subscribers.rend(); ++subscriber)
        notify(subscriber->client, port_no, &info);
}

static constexpr tesk_subscription_procedure subscribe_sfp_info_procedure = {
    .request =
        {
            .received = "TESK_SUBSCRIBE_SFP_INFO_REQ: sender: ",
            .unknown_group = TESK_TRACE_ERROR,
            .unknown = "Unknown sender, ignoring TESK_SUBSCRIBE_SFP_INFO_REQ",
            .rej = TESK_PORT_ANSWER(TESK_SUBSCRIBE_SFP_INFO_REJ),
        },
    .cfm = TESK_PORT_ANSWER(TESK_SUBSCRIBE_SFP_INFO_CFM),
    .kind = tesk_subscription_sfp_info,
    .action = TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE,
    .change = tesk_portsub_add_sfp_info,
};

void tesk_handle_subscribe_sfp_info_req(mbx_signal *signal)
{
    tesk_sfp_info info = {};
    tesk_port_request request;

    if (!tesk_subscribe_accept(&subscribe_sfp_info_procedure, signal, &request))
        return;
    const uint32_t port_no = request.port_no;
    if (get_sfp_info(port_no, get_sfp_presence(port_no), &info) == unsupported_port) {
        tesk_portsub_remove_sfp_info(port_no);
        tesk_port_request_reject(&request, TESK_ERROR_INVALID_PORT, "invalid port");
        return;
    }
    /* Neither an empty port nor an unreadable module is an error: the indication reports no module,
       and later changes are reported as usual. */
    tesk_subscribe_confirm(&subscribe_sfp_info_procedure, &request);
    notify(request.client, port_no, &info);
}

void tesk_handle_sfp_presence_change(uint32_t port_no, uint32_t presence)
{
    /* The history records every change, but a module is reported only once it is ready or
       removed. */
    tesk_history_add_presence(port_no, presence);
    if (presence == sfp_present_not_ready)
        return;
    tesk_trace(TESK_TRACE_COURSE, "Handling sfp presence change on port %u, presence %u", port_no,
               presence);
    tesk_send_sfp_info_ind_to_subscribers(port_no, presence);
}
