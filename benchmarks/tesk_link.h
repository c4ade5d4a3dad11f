/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_link - the calling thread's connection to the server, by libmbx and the wire records. */
#pragma once

#include "benchmarks/harness.h"
#include "platform/mbx/mbx.h"
#include "tesk_server/tesk_signals.h"

namespace bench
{

class tesk_link
{
  public:
    /* Locates the server; throws unless it is up within that time. */
    explicit tesk_link(waiting how = waiting::in_epoll, int64_t patience_ns = 0);
    /* Deletes the mailbox, which ends the connection. */
    ~tesk_link();
    tesk_link(const tesk_link &) = delete;
    tesk_link &operator=(const tesk_link &) = delete;

    /* Establishes the connection; everything below needs it. */
    void connect();

    /* Sends any request but TESK_CONN_ESTABLISH_REQ; the port is used where the request has one. */
    void send(uint32_t number, uint32_t port = 0);
    /* Waits for the next signal and returns its number. Throws if it is a rejection. */
    uint32_t receive();
    /* Receives until a signal of that number has arrived. */
    void await(uint32_t number);

    /* The whole procedure: returns after the first indication. */
    void subscribe_port_status(uint32_t port);
    void subscribe_sfp_info(uint32_t port);

  private:
    uint32_t own_ = MBX_NO_MAILBOX;
    uint32_t server_;
    uint32_t connection_ref_ = 0;
    int epoll_ = -1;
};

} // namespace bench
