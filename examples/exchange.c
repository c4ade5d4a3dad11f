/* SPDX-License-Identifier: Apache-2.0 */
/* Exchanges signals with tesk-server without the client library and shows each as bytes: exchange
   [PORT]. docs/protocol.md shows its output. Where the packages are installed:
   cc exchange.c $(pkg-config --cflags --libs tesk_mbx) */
#if __has_include(<tesk_platform/mbx.h>)
#include <tesk_platform/mbx.h> /* installed */
#else
#include "platform/mbx/mbx.h"
#endif

#include <arpa/inet.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define TESK_CONN_ESTABLISH_REQ 0x1648400u
#define TESK_CONN_ESTABLISH_CFM 0x1648401u
#define TESK_SUBSCRIBE_PORT_STATUS_REQ 0x1648410u
#define TESK_UNSUBSCRIBE_PORT_STATUS_REQ 0x1648414u

static void show(const char *direction, const mbx_signal *signal)
{
    const uint8_t *bytes = (const uint8_t *)signal;
    const uint32_t size = mbx_size(signal);
    bool zeros = false;

    printf("%s 0x%x, %u bytes\n", direction, signal->number, size);
    for (uint32_t at = 0; at < size; at += 16) {
        const uint32_t width = size - at < 16 ? size - at : 16;
        const bool were_zeros = zeros;
        zeros = bytes[at] == 0 && memcmp(bytes + at, bytes + at + 1, width - 1) == 0;
        if (zeros && were_zeros) /* only the first line of a run of zeros is shown */
            continue;
        printf("%5u ", at);
        for (uint32_t byte = 0; byte < width; byte++)
            printf("%s%02x", byte % 4 == 0 ? "  " : " ", bytes[at + byte]);
        printf("\n");
    }
}

/* Sends a signal with that number; the words are put into network byte order. */
static void ask(uint32_t server, uint32_t number, const uint32_t *words, uint32_t count)
{
    mbx_signal *signal = mbx_alloc(4 + 4 * count, number);
    uint32_t *block = (uint32_t *)signal;

    for (uint32_t index = 0; index < count; index++)
        block[1 + index] = htonl(words[index]);
    show("to the server:", signal);
    mbx_send(&signal, server, MBX_OWN_MAILBOX);
}

/* Shows the next signal of the server and returns its connection_ref. */
static uint32_t receive(uint32_t server)
{
    mbx_signal *signal = mbx_receive(NULL, 2000, server);
    if (signal == NULL) {
        fprintf(stderr, "exchange: no answer\n");
        exit(1);
    }
    show("from the server:", signal);
    const uint32_t connection_ref = ntohl(((const uint32_t *)signal)[2]);
    mbx_free(&signal);
    return connection_ref;
}

int main(int argc, char **argv)
{
    const uint32_t port_no = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 0;
    if (mbx_init(5, 0, 0, 0, 0) != 0 || mbx_create_mailbox(NULL, 0) == MBX_NO_MAILBOX)
        return 1;
    const uint32_t server = mbx_locate("tesk-server");
    if (server == MBX_NO_MAILBOX) {
        perror("exchange: tesk-server");
        return 1;
    }

    /* procedure_ref 1, our own reference 7, one revision: 1 */
    ask(server, TESK_CONN_ESTABLISH_REQ, (const uint32_t[]){1, 7, 1, 1}, 4);
    const uint32_t client_id = receive(server);
    ask(server, TESK_SUBSCRIBE_PORT_STATUS_REQ, (const uint32_t[]){2, client_id, port_no, 0}, 4);
    receive(server); /* the confirmation */
    receive(server); /* the first indication */
    ask(server, TESK_UNSUBSCRIBE_PORT_STATUS_REQ, (const uint32_t[]){3, client_id, port_no}, 3);
    receive(server);
    ask(server, TESK_UNSUBSCRIBE_PORT_STATUS_REQ, (const uint32_t[]){4, client_id, port_no}, 3);
    receive(server); /* a rejection */
    mbx_exit();
    return 0;
}
