/* SPDX-License-Identifier: Apache-2.0 */
/* A client that a test controls. Descriptor 3 is one end of a SEQPACKET pair: each packet from the
   test is a signal to send, each packet to the test a received signal. The first packet is the
   result of locating the server: 0 or errno. An argument selects another kind of client, which runs
   until it is killed or the server ends:

     deaf     sends the test's signals, but never reads its mailbox
     load     one random request after the other; the second packet is its client id
     flood    unknown signals, of which the server always has a backlog; each packet is their number
     crave    the same with requests of a client that has not connected */
#include "platform/mbx/mbx.h"
#include "tesk_server/tesk_signals.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

static constexpr int test = 3;
static constexpr uint32_t unknown_number = 0x0badf00d;
static uint32_t server;

static void report_to_test(uint32_t value)
{
    send(test, &value, sizeof(value), MSG_NOSIGNAL | MSG_DONTWAIT);
}

static void request(uint32_t number, std::initializer_list<uint32_t> words)
{
    mbx_signal *signal = mbx_alloc(sizeof(uint32_t) * (1 + words.size()), number);
    uint32_t *at = &signal->number;
    for (const uint32_t word : words)
        *++at = htonl(word);
    mbx_send(&signal, server, MBX_OWN_MAILBOX);
}

/* Returns the third word of the next signal that is not an indication. */
static uint32_t await_answer()
{
    for (;;) {
        mbx_signal *signal = mbx_receive(nullptr, -1, MBX_ANY_SENDER);
        const uint32_t number = signal->number;
        const uint32_t reference = mbx_size(signal) < 12 ? 0 : ntohl((&signal->number)[2]);
        mbx_free(&signal);
        if (number == MBX_MONITOR_DEFAULT_NO)
            exit(0);
        if (number != TESK_SFP_INFO_IND && number != TESK_PORT_STATUS_IND)
            return reference;
    }
}

[[noreturn]] static void load()
{
    static constexpr uint32_t numbers[] = {
        TESK_SUBSCRIBE_SFP_INFO_REQ,   TESK_SUBSCRIBE_PORT_STATUS_REQ,
        TESK_GET_PM_COUNTERS_REQ,      TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
        TESK_GET_CAPABILITIES_REQ,     TESK_SUBSCRIBE_SFP_INFO_REQ,
        TESK_UNSUBSCRIBE_SFP_INFO_REQ,
    };
    srand(static_cast<unsigned>(getpid()));
    request(TESK_CONN_ESTABLISH_REQ, {0, 1, 1, 1});
    const uint32_t id = await_answer();
    report_to_test(id);
    for (;;) {
        const auto random = static_cast<uint32_t>(rand());
        request(numbers[random % std::size(numbers)], {random, id, random / 7 % 16, 0});
        await_answer();
    }
}

[[noreturn]] static void flood(uint32_t number)
{
    constexpr uint32_t batch = 256;
    for (uint32_t sent = 0;; sent += batch) {
        for (uint32_t index = 0; index < batch; index++)
            request(number, {0, UINT32_MAX});
        request(TESK_SHELL_GET_ACTIONS_CACHE_REQ, {});
        if (sent != 0)
            await_answer();
        report_to_test(sent);
    }
}

static void exchange_signals(bool deaf)
{
    pollfd sources[] = {{test, POLLIN, 0}, {deaf ? -1 : mbx_get_fd(), POLLIN, 0}};
    static char packet[MBX_LARGEST_SIGNAL];
    for (;;) {
        if (poll(sources, 2, -1) < 0)
            continue;
        if (sources[1].revents != 0) {
            mbx_signal *signal = mbx_receive(nullptr, -1, MBX_ANY_SENDER);
            send(test, signal, mbx_size(signal), MSG_NOSIGNAL);
            mbx_free(&signal);
        }
        if (sources[0].revents == 0)
            continue;
        const ssize_t size = recv(test, packet, sizeof(packet), 0);
        if (size <= 0)
            break;
        uint32_t number;
        memcpy(&number, packet, sizeof(number));
        mbx_signal *signal = mbx_alloc(static_cast<size_t>(size), number);
        memcpy(signal, packet, static_cast<size_t>(size));
        mbx_send(&signal, server, MBX_OWN_MAILBOX);
    }
}

int main(int argc, char **argv)
{
    const std::string kind = argc > 1 ? argv[1] : "";
    if (mbx_init(5, 0, 0, 0, 0) != 0 || mbx_create_mailbox(nullptr, 0) == MBX_NO_MAILBOX)
        return 1;
    server = mbx_locate("tesk-server");
    const int located = server == MBX_NO_MAILBOX ? errno : 0;
    if (located == 0)
        mbx_monitor(server, nullptr);
    report_to_test(static_cast<uint32_t>(located));
    if (located == 0 && kind == "load")
        load();
    if (located == 0 && (kind == "flood" || kind == "crave"))
        flood(kind == "flood" ? unknown_number : uint32_t{TESK_GET_CAPABILITIES_REQ});
    exchange_signals(kind == "deaf");
    mbx_exit();
    return 0;
}
