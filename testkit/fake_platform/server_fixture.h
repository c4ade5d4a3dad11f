/* SPDX-License-Identifier: Apache-2.0 */
/* server_fixture - a server on the fake platform, started again for each test. */
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
        start({});
    }

    /* Both threads trace these groups from the start; `trace` changes the calling thread's groups
       only. */
    static void start(std::initializer_list<uint32_t> groups)
    {
        fake_platform::reset(groups);
        ASSERT_EQ(tesk_server_init(), 0);
        fake_platform::await_event_thread();
        fake_platform::take_log();
    }

    void TearDown() override
    {
        tesk_server_shutdown();
        EXPECT_EQ(fake_platform::live_blocks, 0);
        EXPECT_EQ(fake_platform::take_violations(), log{});
    }

    static void trace(std::initializer_list<uint32_t> groups)
    {
        procInfo[3] = 0;
        for (uint32_t group : groups)
            procInfo[3] |= 1u << group;
        fake_platform::take_log();
        fake_platform::take_traces();
    }

    /* Passes one signal through mailbox and dispatch. The answers are in fake_platform::sent. */
    static int send(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words)
    {
        fake_platform::sent.clear();
        fake_platform::deliver(sender, number, words);
        return tesk_handle_mailbox();
    }

    /* Connects a client, whose own reference is 1000 + its mailbox. */
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

    /* Raises events at the board; returns when the event thread has freed them. */
    static void raise(const std::vector<dolm_ric_event> &events)
    {
        const int already = fake_platform::freed_events();

        for (const auto &event : events)
            fake_platform::raise_event(event);
        fake_platform::await_freed_events(already + static_cast<int>(events.size()));
    }

    /* Raises events and handles them as one batch. */
    static void handle_events(const std::vector<dolm_ric_event> &events)
    {
        fake_platform::sent.clear();
        raise(events);
        pollfd fd = {tesk_event_queue_get_fd(), POLLIN, 0};
        ASSERT_EQ(poll(&fd, 1, 0), 1);
        tesk_handle_queued_events();
        ASSERT_EQ(poll(&fd, 1, 0), 0) << "one read takes the whole counter";
    }

    static dolm_ric_event link_event(uint32_t port, uint32_t state)
    {
        dolm_ric_event event = {};
        event.type = DOLM_RICEVT_RILINKSTATUS;
        event.link_status.id = 0xffff0000 | port;
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
