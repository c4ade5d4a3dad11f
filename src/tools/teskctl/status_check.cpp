/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: take() passes a status on, and asks for the port's values first where the status
   may be that of a module that has left. */
#include "tools/teskctl/status_check.h"

#include "program/exit_code.h"

/* A module of the same type has the same status if nothing of it can be read. */
static bool is_perhaps_empty(const tesk_client_port_status &status)
{
    return status.sfp_type == TESK_CLIENT_SFP_ELECTRICAL &&
           status.environment == TESK_CLIENT_ENVIRONMENT_NOT_READ;
}

void status_check::take(session &server, const tesk_client_port_status &status)
{
    if (!is_perhaps_empty(status) && open_[status.port_no] == 0)
        return show_(status);
    try {
        server.request(TESK_CLIENT_REQUEST_PM, status.port_no,
                       [this, status](const tesk_client_answer &answer) {
                           if (answer.result == TESK_CLIENT_CANCELLED)
                               return;
                           open_[status.port_no]--;
                           tesk_client_port_status checked = status;
                           if (answer.rejection == TESK_CLIENT_REJECTION_NO_MODULE)
                               checked.sfp_type = TESK_CLIENT_SFP_NOT_PRESENT;
                           show_(checked);
                       });
        open_[status.port_no]++;
    } catch (const tool_error &) { /* no memory for the question, or the session ends */
        show_(status);
    }
}
