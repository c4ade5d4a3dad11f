/* SPDX-License-Identifier: Apache-2.0 */
/* Reads the temperatures of ports, with all requests sent at once: example_client_cpp PORT... */
#include "tesk_client/tesk_client.h"

#include <cstdio>
#include <cstdlib>

struct reading {
    tesk_client_session *session;
    int open;
};

static void show(const tesk_client_answer *answer, void *user)
{
    if (answer->result != TESK_CLIENT_OK)
        std::printf("port %u: %s\n", answer->port_no, answer->text);
    else if (answer->pm->has_temperature)
        std::printf("port %u: %.1f degrees\n", answer->port_no, answer->pm->temperature / 10.0);
    else
        std::printf("port %u: not measured\n", answer->port_no);
    auto *all = static_cast<reading *>(user);
    if (--all->open == 0)
        tesk_client_stop(all->session);
}

int main(int argc, char **argv)
{
    reading all{nullptr, argc - 1};
    if (tesk_client_connect(nullptr, &all.session) != TESK_CLIENT_OK) {
        std::fprintf(stderr, "client: %s\n", tesk_client_error());
        return 1;
    }
    for (int i = 1; i < argc; i++) {
        const auto port_no = static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10));
        tesk_client_request(all.session, TESK_CLIENT_REQUEST_PM, port_no, show, &all);
    }
    tesk_client_run(all.session, argc > 1 ? -1 : 0);
    tesk_client_close(all.session);
}
