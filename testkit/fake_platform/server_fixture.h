/* SPDX-License-Identifier: Apache-2.0 */
/* A server that has started on the scripted libraries, fresh for each test. */
#pragma once

#include "platform/zel/zel.h"
#include "tesk_server/leaky_bucket.h"
#include "tesk_server/tesk_event_queue.h"
#include "tesk_server/tesk_main.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/fake_platform/fake_platform.h"

#include <gtest/gtest.h>
#include <poll.h>

class server_fixture : public testing::Test
{
  protected:
    using log = std::vector<std::string>;

    void SetUp() override
    {
        fake_platform::reset();
        ASSERT_EQ(tesk_server_init(), 0);
        fake_platform::await_event_thread();
        fake_platform::take_log();
    }

    void TearDown() override
    {
        tesk_server_shutdown();
        for (int32_t id = 1; id < 10; id++)
            if (leaky_bucket_find(id) != nullptr)
                leaky_bucket_remove(id);
        EXPECT_EQ(fake_platform::live_blocks, 0);
    }

    static void trace(std::initializer_list<uint32_t> groups)
    {
        procInfo[3] = 0;
        for (uint32_t group : groups)
            procInfo[3] |= 1u << group;
        fake_platform::take_log();
    }

    /* One signal through the mailbox and the dispatch. The answers stand in fake_platform::sent. */
    static int send(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words)
    {
        fake_platform::sent.clear();
        fake_platform::deliver(sender, number, words);
        return tesk_handle_mailbox();
    }

    /* A connection: the client's own reference is 1000 + its mailbox. */
    static uint32_t connect(uint32_t mailbox)
    {
        send(mailbox, TESK_CONN_ESTABLISH_REQ, {1, 1000 + mailbox, 1, 1});
        return fake_platform::sent.at(0).word(8);
    }

    static void tick(uint32_t bucket, uint32_t port)
    {
        fake_platform::sent.clear();
        fake_platform::deliver_host(fake_platform::own_mailbox, TESK_PORT_STATUS_FILTER_TICK,
                                    {bucket, port});
        tesk_handle_mailbox();
    }

    /* Raises events at the board and handles them as one batch. */
    static void handle_events(const std::vector<dolm_ric_event> &events)
    {
        const int already = fake_platform::freed_events();

        fake_platform::sent.clear();
        for (const auto &event : events)
            fake_platform::raise_event(event);
        while (fake_platform::freed_events() < already + static_cast<int>(events.size()))
            sched_yield();
        pollfd fd = {tesk_event_queue_get_fd(), POLLIN, 0};
        ASSERT_EQ(poll(&fd, 1, 0), 1);
        tesk_handle_queued_events();
    }

    static dolm_ric_event link_event(uint32_t port, uint32_t state)
    {
        dolm_ric_event event = {};
        event.type = DOLM_RICEVT_RILINKSTATUS;
        event.link_status.id = 0x00020000 | port;
        event.link_status.state = state;
        return event;
    }

    static dolm_ric_event port_event(uint32_t port, uint32_t status)
    {
        dolm_ric_event event = {};
        event.type = DOLM_RICEVT_RIPORTSTATUS;
        event.port_status.id = 0x00030000 | port;
        event.port_status.status = status;
        return event;
    }
};
