/* SPDX-License-Identifier: Apache-2.0 */
/* link_subscriber - does with the indications of port 0 what link_listener does with the kernel's
   messages: it prints a line for each. */
#include "tesk_client/tesk_client.h"

#include <cstdio>

static void print(const tesk_client_port_status *status, void *)
{
    printf("%u %s\n", status->port_no,
           status->link == TESK_CLIENT_LINK_OPERATIONAL ? "up" : "down");
    fflush(stdout);
}

int main()
{
    tesk_client_options options = {};
    options.on_port_status = print;
    tesk_client_session *session = nullptr;
    if (tesk_client_connect(&options, &session) == TESK_CLIENT_OK &&
        tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 0) == TESK_CLIENT_OK)
        tesk_client_run(session, -1);
    fprintf(stderr, "link_subscriber: %s\n", tesk_client_error());
    return 1;
}
