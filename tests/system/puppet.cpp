/* A client that does what a test tells it. Descriptor 3 is one end of a SEQPACKET pair: each packet
   from the test is a signal to send, each packet to the test a signal received; the first says how
   locating the server went (0 or errno). With the argument "deaf" it never reads its mailbox. */
#include "platform/mbx/mbx.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

int main(int argc, char **argv)
{
    constexpr int test = 3;
    const bool deaf = argc > 1 && strcmp(argv[1], "deaf") == 0;
    if (mbx_init(5, 0, 0, 0, 0) != 0 || mbx_create_mailbox(nullptr, 0) == MBX_NO_MAILBOX)
        return 1;
    const uint32_t server = mbx_locate("tesk-server");
    const int located = server == MBX_NO_MAILBOX ? errno : 0;
    if (server != MBX_NO_MAILBOX)
        mbx_monitor(server, nullptr);
    send(test, &located, sizeof(located), MSG_NOSIGNAL);

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
    mbx_exit();
    return 0;
}
