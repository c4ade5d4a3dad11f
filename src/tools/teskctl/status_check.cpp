/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: take() passes an indication on. If the port may be empty, or its module not ready,
   it first requests the port's values. */
#include "tools/teskctl/status_check.h"

#include "program/exit_code.h"
#include "program/words.h"
#include "tools/teskctl/port_requests.h"

/* An empty port has the same status as a module of this type from which nothing can be read. */
static bool is_perhaps_empty(const tesk_client_port_status &status)
{
    return (status.sfp_type == TESK_CLIENT_SFP_ELECTRICAL ||
            status.sfp_type == TESK_CLIENT_SFP_UNKNOWN) &&
           status.environment == TESK_CLIENT_ENVIRONMENT_NOT_READ;
}

/* `show` is called once; if the request can't be made, with an empty answer. */
void status_check::ask(session &server, uint32_t port_no, const session::answered &show)
{
    try {
        server.request(TESK_CLIENT_REQUEST_PM, port_no,
                       [this, port_no, show](const tesk_client_answer &answer) {
                           if (answer.result == TESK_CLIENT_CANCELLED)
                               return;
                           open_[port_no]--;
                           show(answer);
                       });
        open_[port_no]++;
    } catch (const tool_error &) { /* no memory for the request, or the session ends */
        show({});
    }
}

void status_check::take(session &server, const tesk_client_port_status &status)
{
    if (!is_perhaps_empty(status) && open_[status.port_no] == 0)
        return show_status_(status);
    ask(server, status.port_no, [this, status](const tesk_client_answer &answer) {
        tesk_client_port_status checked = status;
        if (answer.rejection == TESK_CLIENT_REJECTION_NO_MODULE)
            checked.sfp_type = TESK_CLIENT_SFP_NOT_PRESENT;
        else if (answer.rejection == TESK_CLIENT_REJECTION_BUSY && is_perhaps_empty(status))
            checked.sfp_type = module_not_ready;
        show_status_(checked);
    });
}

void status_check::take(session &server, const tesk_client_sfp_info &info)
{
    if (info.type != TESK_CLIENT_SFP_NOT_PRESENT && open_[info.port_no] == 0)
        return show_info_(info);
    ask(server, info.port_no, [this, info](const tesk_client_answer &answer) {
        tesk_client_sfp_info checked = info;
        /* The values may be those of the next module if modules were swapped, so alone they prove
           nothing. */
        const bool is_unready = answer.rejection == TESK_CLIENT_REJECTION_BUSY ||
                                (answer.pm != nullptr && !unready_ports({info.port_no}).empty());
        if (info.type == TESK_CLIENT_SFP_NOT_PRESENT && is_unready)
            checked.type = module_not_ready;
        show_info_(checked);
    });
}
