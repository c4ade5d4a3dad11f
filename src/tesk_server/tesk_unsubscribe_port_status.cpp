/* SPDX-License-Identifier: Apache-2.0 */
/* The procedure is tesk_unsubscribe. The port's bucket is removed with its last subscriber by the
   port subscription table; a tick that is still outstanding then finds no bucket. No indication
   follows the CFM. */
#include "tesk_server/tesk_unsubscribe_port_status.h"

#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscription.h"

static constexpr tesk_subscription_procedure unsubscribe_port_status_procedure = {
    .request =
        {
            .received = "TESK_UNSUBSCRIBE_PORT_STATUS_REQ: sender: ",
            .unknown_group = TESK_TRACE_ERROR,
            .unknown = "Unknown sender, ignoring TESK_UNSUBSCRIBE_PORT_STATUS_REQ",
            .rej = TESK_PORT_ANSWER(TESK_UNSUBSCRIBE_PORT_STATUS_REJ),
        },
    .cfm = TESK_PORT_ANSWER(TESK_UNSUBSCRIBE_PORT_STATUS_CFM),
    .kind = tesk_subscription_port_status,
    .action = TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE,
    .change = tesk_portsub_remove_port_status,
};

void tesk_handle_unsubscribe_port_status_req(mbx_signal *signal)
{
    tesk_unsubscribe(&unsubscribe_port_status_procedure, signal);
}
