/* SPDX-License-Identifier: Apache-2.0 */
/* tesk - clients of the real server, which ./bench starts as a program of its own. */
#include "benchmarks/tesk_link.h"

using namespace bench;

/* A port's filter holds back from its fifth event on, so the events are spread over these ports. */
static constexpr uint32_t event_ports = 4;

namespace
{

class tesk_client : public client
{
  public:
    explicit tesk_client(waiting how) : link_(how)
    {
        link_.connect();
    }

    void send(request_kind kind) override
    {
        link_.send(kind == request_kind::capabilities ? TESK_GET_CAPABILITIES_REQ
                                                      : TESK_GET_PM_COUNTERS_REQ);
    }

    void receive() override
    {
        link_.receive();
    }

    /* The constructor has received the server's confirmation. */
    void confirm() override
    {
    }

  private:
    tesk_link link_;
};

} // namespace

static std::unique_ptr<client> connect(const std::string &, waiting how)
{
    return std::make_unique<tesk_client>(how);
}

static void subscribe(const std::string &, waiting how, receipts &record)
{
    tesk_link link(how);
    link.connect();
    for (uint32_t port = 0; port < event_ports; port++)
        link.subscribe_port_status(port);
    record.note_ready();
    for (;;) {
        link.await(TESK_PORT_STATUS_IND);
        record.note_receipt();
    }
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, nullptr}, count, words);
}
