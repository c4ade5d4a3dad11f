/* SPDX-License-Identifier: Apache-2.0 */
/* tesk - the real server, as any client sees it; the server itself is started by other hands. */
#include "benchmarks/tesk_link.h"

using namespace bench;

/* A port's filter lets four events pass; so events go round these ports. */
static constexpr uint32_t event_ports = 4;

namespace
{

class tesk_client : public client
{
  public:
    void send(request_kind kind) override
    {
        link.send(kind == request_kind::capabilities ? TESK_GET_CAPABILITIES_REQ
                                                     : TESK_GET_PM_COUNTERS_REQ);
    }

    void receive() override
    {
        link.receive();
    }

  private:
    tesk_link link;
};

} // namespace

static std::unique_ptr<client> connect(const std::string &)
{
    return std::make_unique<tesk_client>();
}

static void subscribe(const std::string &, receipts &told)
{
    tesk_link link(tesk_link::waits::in_library);
    for (uint32_t port = 0; port < event_ports; port++)
        link.subscribe_port_status(port);
    told.note_ready();
    for (;;) {
        link.await(TESK_PORT_STATUS_IND);
        told.note_told();
    }
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, nullptr}, count, words);
}
