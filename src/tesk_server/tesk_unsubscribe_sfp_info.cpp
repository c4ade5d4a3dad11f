/* SPDX-License-Identifier: Apache-2.0 */
/* The procedure is tesk_unsubscribe. SFP events come with the SFP info subscription only: after its
   last subscriber has left, the port's status subscribers learn of no presence change. No
   indication follows the CFM. */
#include "tesk_server/tesk_unsubscribe_sfp_info.h"

#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscription.h"

static constexpr tesk_subscription_procedure unsubscribe_sfp_info_procedure = {
    .request =
        {
            .received = "TESK_UNSUBSCRIBE_SFP_INFO_REQ: sender: ",
            .unknown_group = TESK_TRACE_ERROR,
            .unknown = "Unknown sender, ignoring TESK_UNSUBSCRIBE_SFP_INFO_REQ",
            .rej = TESK_PORT_ANSWER(TESK_UNSUBSCRIBE_SFP_INFO_REJ),
        },
    .cfm = TESK_PORT_ANSWER(TESK_UNSUBSCRIBE_SFP_INFO_CFM),
    .kind = tesk_subscription_sfp_info,
    .action = TESK_CACHE_ACTION_SFP_INFO_UNSUBSCRIBE,
    .change = tesk_portsub_remove_sfp_info,
};

void tesk_handle_unsubscribe_sfp_info_req(mbx_signal *signal)
{
    tesk_unsubscribe(&unsubscribe_sfp_info_procedure, signal);
}
