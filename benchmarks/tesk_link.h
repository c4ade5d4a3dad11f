/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_link - the calling thread's connection to the server: its mailbox and the wire's records. */
#pragma once

#include "benchmarks/harness.h"
#include "platform/mbx/mbx.h"
#include "tesk_server/tesk_signals.h"

namespace bench
{

class tesk_link
{
  public:
    /* Where receive() waits: on an epoll of its own, as a program does that has more to do, or in
       the library itself, as one does that only listens. */
    enum class waits { on_epoll, in_library };
    /* Connects to a server that is there, or comes within that time. */
    explicit tesk_link(waits where = waits::on_epoll, int64_t patience_ns = 0);
    /* Gives the mailbox up, which the server sees as the client's death. */
    ~tesk_link();
    tesk_link(const tesk_link &) = delete;
    tesk_link &operator=(const tesk_link &) = delete;

    /* Any request but the connection. The port is left out where the request has none. */
    void send(uint32_t number, uint32_t port = 0);
    /* Waits for the next signal and gives its number. Throws if it is a rejection. */
    uint32_t receive();
    /* Waits until a signal of that number has come. */
    void await(uint32_t number);

    /* The whole procedures of both kinds: the confirmation and the first indication have come. */
    void subscribe_port_status(uint32_t port);
    void subscribe_sfp_info(uint32_t port);

  private:
    void establish();

    uint32_t own = MBX_NO_MAILBOX;
    uint32_t server;
    uint32_t connection_ref = 0;
    int epoll = -1;
};

} // namespace bench
