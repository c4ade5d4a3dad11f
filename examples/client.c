/* SPDX-License-Identifier: Apache-2.0 */
/* Shows a port's status and its changes: client [PORT [SECONDS]]. */
#include "tesk_client/tesk_client.h"

#include <stdio.h>
#include <stdlib.h>

static void show(const tesk_client_port_status *status, void *user)
{
    (void)user;
    printf("port %u: link %s", status->port_no,
           tesk_client_text(TESK_CLIENT_TEXT_LINK, status->link));
    if (status->link_speed != 0)
        printf(" at %.1f Gbps", status->link_speed / 10.0);
    printf(", temperature %s\n",
           tesk_client_text(TESK_CLIENT_TEXT_LEVEL, status->level[TESK_CLIENT_TEMPERATURE]));
}

int main(int argc, char **argv)
{
    const uint32_t port_no = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 0;
    const int milliseconds = argc > 2 ? atoi(argv[2]) * 1000 : -1;
    const tesk_client_options options = {.on_port_status = show, .reconnect = true};
    tesk_client_session *session;
    if (tesk_client_connect(&options, &session) != TESK_CLIENT_OK ||
        tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, port_no) != TESK_CLIENT_OK ||
        tesk_client_run(session, milliseconds) != TESK_CLIENT_OK) {
        fprintf(stderr, "client: %s\n", tesk_client_error());
        return 1;
    }
    tesk_client_close(session);
    return 0;
}
