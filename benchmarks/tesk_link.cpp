/* SPDX-License-Identifier: Apache-2.0 */
#include "benchmarks/tesk_link.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <unistd.h>

namespace bench
{

static uint32_t size_of(uint32_t number)
{
    if (number == TESK_GET_CAPABILITIES_REQ)
        return sizeof(tesk_get_capabilities_req);
    if (number == TESK_SUBSCRIBE_PORT_STATUS_REQ)
        return sizeof(tesk_subscribe_port_status_req);
    return sizeof(tesk_port_signal);
}

static bool is_rejection(uint32_t number)
{
    return number == TESK_CONN_ESTABLISH_REJ || number == TESK_SUBSCRIBE_SFP_INFO_REJ ||
           number == TESK_GET_PM_COUNTERS_REJ || number == TESK_UNSUBSCRIBE_SFP_INFO_REJ ||
           number == TESK_SUBSCRIBE_PORT_STATUS_REJ || number == TESK_UNSUBSCRIBE_PORT_STATUS_REJ;
}

tesk_link::tesk_link(waiting how, int64_t patience_ns)
{
    const int64_t deadline = now_ns() + patience_ns;
    if (mbx_init(5, 0, 0, 0, 0) == 0)
        own_ = mbx_create_mailbox(nullptr, 0);
    if (own_ == MBX_NO_MAILBOX)
        fail("no mailbox");
    if (how == waiting::in_epoll)
        epoll_ = watch(mbx_get_fd());
    while ((server_ = mbx_locate(TESK_SERVER_NAME)) == MBX_NO_MAILBOX && errno == ENOENT &&
           now_ns() < deadline)
        usleep(100);
    if (server_ == MBX_NO_MAILBOX)
        fail(std::string("the server can't be reached: ") + std::strerror(errno));
}

void tesk_link::connect()
{
    mbx_signal *signal =
        mbx_alloc(sizeof(tesk_conn_establish_req) + sizeof(uint32_t), TESK_CONN_ESTABLISH_REQ);
    auto *request = reinterpret_cast<tesk_conn_establish_req *>(signal);
    request->number_of_rev = 1;
    request->protocol_rev[0] = TESK_PROTOCOL_REVISION;
    tesk_swap_words(request->protocol_rev[0]);
    tesk_swap_byte_order(*request);
    mbx_send(&signal, server_, MBX_OWN_MAILBOX);
    await(TESK_CONN_ESTABLISH_CFM);
}

tesk_link::~tesk_link()
{
    if (epoll_ != -1)
        close(epoll_);
    mbx_delete_mailbox(own_);
}

void tesk_link::send(uint32_t number, uint32_t port)
{
    const uint32_t size = size_of(number);
    mbx_signal *signal = mbx_alloc(size, number);
    auto *request = reinterpret_cast<tesk_port_signal *>(signal);
    request->connection_ref = connection_ref_;
    tesk_swap_words(request->procedure_ref, request->connection_ref);
    if (size > sizeof(tesk_get_capabilities_req)) {
        request->port_no = port;
        tesk_swap_words(request->port_no);
    }
    mbx_send(&signal, server_, MBX_OWN_MAILBOX);
}

uint32_t tesk_link::receive()
{
    if (epoll_ != -1)
        await_ready(epoll_);
    mbx_signal *signal = mbx_receive(nullptr, -1, MBX_ANY_SENDER);
    const uint32_t number = signal->number;
    if (is_rejection(number))
        fail("the server has refused a request");
    if (number == TESK_CONN_ESTABLISH_CFM) {
        auto *answer = reinterpret_cast<tesk_conn_establish_cfm *>(signal);
        tesk_swap_byte_order(*answer);
        connection_ref_ = answer->connection_ref;
    }
    mbx_free(&signal);
    return number;
}

void tesk_link::await(uint32_t number)
{
    while (receive() != number) {
    }
}

void tesk_link::subscribe_port_status(uint32_t port)
{
    send(TESK_SUBSCRIBE_PORT_STATUS_REQ, port);
    await(TESK_PORT_STATUS_IND);
}

void tesk_link::subscribe_sfp_info(uint32_t port)
{
    send(TESK_SUBSCRIBE_SFP_INFO_REQ, port);
    await(TESK_SFP_INFO_IND);
}

} // namespace bench
