/* SPDX-License-Identifier: Apache-2.0 */
// The client library on the fake mailbox: answers that are late, short, foreign or unexpected,
// deadlines and window, and the loss and return of the server.
#include "tesk_client/tesk_client.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/fake_platform/server_words.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <sys/stat.h>

static constexpr uint32_t server = 7, stranger = 8, client_id = 41;
static constexpr uint32_t reserved = 0xa5a5a5a5; // like mbx_alloc's bytes: any value

static thread_local long allocations_left = -1; // no limit
static thread_local size_t largest_allocation;  // the largest while allocations are limited

/* Not inlined: otherwise g++ sees malloc and free in one function as a mismatch. */
[[gnu::noinline]] void *operator new(size_t size)
{
    if (allocations_left == 0)
        throw std::bad_alloc();
    allocations_left -= allocations_left > 0;
    if (allocations_left > 0)
        largest_allocation = std::max(largest_allocation, size);
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void *block) noexcept
{
    std::free(block);
}
[[gnu::noinline]] void operator delete(void *block, size_t) noexcept
{
    std::free(block);
}

// The fake mailbox and the callbacks may allocate; only the library is limited.
struct without_limit {
    ~without_limit()
    {
        allocations_left = left;
    }
    long left = std::exchange(allocations_left, -1);
};

// The peer of the fake mailbox, with the signals that it has received.
struct fake_peer {
    int locate_error = 0;
    uint32_t locates = 0;
    std::vector<words_of> sent;
    std::function<void(const words_of &)> react; // null: it never answers

    // Delivers the words, cut to `size` bytes or continued by a text.
    static void deliver(const words_of &words, size_t size = 0, const char *text = "",
                        uint32_t sender = server)
    {
        const without_limit unlimited;
        deliver_words(sender, words, size != 0 ? size : words.size() * sizeof(uint32_t), text);
    }
    void indicate(uint32_t port, uint32_t link, uint32_t sender = server, size_t size = 96,
                  uint32_t ref = own_ref)
    {
        deliver({TESK_PORT_STATUS_IND, 999, ref, port, link, 2, 101, 0, 0, 0, 0, 0, 4}, size, "",
                sender);
    }
};

static fake_peer mbx;

// Answers as the real server does, as far as these tests need it.
static void answering_server(const words_of &request)
{
    switch (request[0]) {
    case TESK_CONN_ESTABLISH_REQ:
        return mbx.deliver({TESK_CONN_ESTABLISH_CFM, request[1], client_id, 1});
    case TESK_GET_CAPABILITIES_REQ:
        return mbx.deliver({TESK_GET_CAPABILITIES_CFM, request[1], own_ref, 1, 3, 8});
    case TESK_SHELL_GET_SFP_INFO_CACHE_REQ:
        return mbx.deliver({request[0] + 1, 1, 5, 2, 1000, 7, 0});
    default:
        mbx.deliver({request[0] + 1, request[1], own_ref, request[3]});
        if (request[0] == TESK_SUBSCRIBE_PORT_STATUS_REQ)
            mbx.indicate(request[3], 2);
    }
}

static void receive_at_server(const mbx_signal *signal, uint32_t receiver)
{
    const without_limit unlimited;
    ASSERT_EQ(receiver, server);
    mbx.sent.push_back(received_words(signal));
    if (mbx.react)
        mbx.react(words_of(mbx.sent.back()));
}

static uint32_t locate_server()
{
    mbx.locates++;
    errno = mbx.locate_error;
    return mbx.locate_error ? MBX_NO_MAILBOX : server;
}

static int starts; // calls of mbx_init

const fake_mailbox::hooks fake_mailbox::script = {
    [](const char *call, const char *) {
        starts += strcmp(call, "mbx_init") == 0;
        return true;
    },
    [](bool holds, const char *violated) { EXPECT_TRUE(holds) << violated; }, receive_at_server,
    locate_server, 0};

using strings = std::vector<std::string>;

static strings reported; // by callbacks: "status 3 2", "4 why", "lost"
static words_of levels;  // levels of the last status

static void on_answer(const tesk_client_answer *answer, void *)
{
    const without_limit unlimited;
    reported.push_back(std::to_string(answer->port_no) + " " + answer->text);
}

struct client : testing::Test {
    client()
    {
        mbx = {};
        mbx.react = answering_server;
        reported.clear();
        options.on_port_status = [](const tesk_client_port_status *status, void *) {
            const without_limit unlimited;
            reported.push_back("status " + std::to_string(status->port_no) + " " +
                               std::to_string(status->link));
            levels.assign(std::begin(status->level), std::end(status->level));
        };
        options.on_event = [](const tesk_client_event *event, void *) {
            const without_limit unlimited;
            const char *names[] = {"lost", "restored", "subscription lost: "};
            reported.push_back(names[event->type]);
            if (event->type == TESK_CLIENT_EVENT_SUBSCRIPTION_LOST)
                reported.back() += event->text;
        };
    }
    ~client() override
    {
        tesk_client_close(session);
        EXPECT_EQ(fake_mailbox::live_blocks, 0);
        EXPECT_FALSE(fake_mailbox::is_open());
    }
    tesk_client_result connect()
    {
        return tesk_client_connect(&options, &session);
    }
    tesk_client_result request(tesk_client_request_type type, uint32_t port = 0)
    {
        return tesk_client_request(session, type, port, on_answer, nullptr);
    }
    tesk_client_result read_history()
    {
        return tesk_client_read_history(session, TESK_CLIENT_HISTORY_SFP_INFO, &record, 1, &count);
    }
    /* Subscriptions that survive the loss of the server; one request at a time. */
    void subscribe_for_good(tesk_client_kind kind, std::initializer_list<uint32_t> ports,
                            uint32_t deadline_ms)
    {
        options.window = 1;
        options.reconnect = true;
        options.retry_ms = 1;
        options.deadline_ms = deadline_ms;
        ASSERT_EQ(connect(), TESK_CLIENT_OK);
        for (const uint32_t port : ports)
            ASSERT_EQ(tesk_client_subscribe(session, kind, port), TESK_CLIENT_OK);
    }
    // Runs until so many callbacks were called.
    void run_until_reported(size_t wanted)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (reported.size() < wanted && std::chrono::steady_clock::now() < end)
            tesk_client_run(session, 5);
        ASSERT_GE(reported.size(), wanted);
    }
    tesk_client_options options{};
    tesk_client_session *session = nullptr;
    tesk_client_history_record record{};
    tesk_client_capability capability{};
    tesk_client_pm pm{};
    size_t count = 1;
};

TEST_F(client, the_reasons_of_a_failed_connect_are_distinguished)
{
    options.reconnect = true;
    const std::pair<int, tesk_client_result> cases[] = {{ENOENT, TESK_CLIENT_NO_SERVER},
                                                        {EACCES, TESK_CLIENT_NO_ACCESS},
                                                        {ETIMEDOUT, TESK_CLIENT_TIMEOUT},
                                                        {EMFILE, TESK_CLIENT_FAILED}};
    for (const auto &[error, result] : cases) {
        mbx.locate_error = error;
        EXPECT_EQ(connect(), result);
        EXPECT_STRNE(tesk_client_error(), "");
    }
    mbx.locate_error = 0;
    mbx.react = [](const auto &) { mbx.deliver({MBX_MONITOR_DEFAULT_NO}); };
    EXPECT_EQ(connect(), TESK_CLIENT_LOST);
    mbx.react = [](const auto &request) {
        mbx.deliver({TESK_CONN_ESTABLISH_REJ, request[1], own_ref, 1}, 272, "no!");
    };
    EXPECT_EQ(connect(), TESK_CLIENT_REJECTED);
    EXPECT_STREQ(tesk_client_error(), "no!");
    mbx.react = nullptr;
    options.deadline_ms = 10;
    EXPECT_EQ(connect(), TESK_CLIENT_TIMEOUT);
}

TEST_F(client, requests_contain_the_servers_reference_and_have_their_exact_size)
{
    mbx.react = [](const auto &request) {
        if (request[0] == TESK_CONN_ESTABLISH_REQ) // late, about an earlier establishment
            mbx.deliver({TESK_CONN_ESTABLISH_CFM, request[1] - 1, client_id + 1, 1});
        answering_server(request);
    };
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    EXPECT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 9), TESK_CLIENT_OK);
    EXPECT_EQ(tesk_client_unsubscribe(session, TESK_CLIENT_SFP_INFO, 8), TESK_CLIENT_OK);
    EXPECT_EQ(tesk_client_read_capabilities(session, &capability, 1, &count), TESK_CLIENT_OK);
    EXPECT_EQ(capability.id * 10 + capability.value, 38u);
    EXPECT_EQ(read_history(), TESK_CLIENT_OK);
    EXPECT_EQ(record.time_us, 1000000007u);
    EXPECT_EQ(mbx.sent, (std::vector<words_of>{{0x1648400, 1, own_ref, 1, 1},
                                               {0x1648410, 2, client_id, 9, reserved},
                                               {0x164840d, 3, client_id, 8},
                                               {0x1648403, 4, client_id},
                                               {0x119}}));
}

TEST_F(client, only_the_right_answer_of_the_server_counts)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &request) {
        const uint32_t ref = request[1], cfm = TESK_GET_PM_COUNTERS_CFM;
        const words_of rej{TESK_GET_PM_COUNTERS_REJ, ref, own_ref, 4, 1};
        mbx.deliver(rej, 276, "stranger", stranger);
        mbx.deliver({rej[0], ref + 1, own_ref, 4, 1}, 276, "other request");
        mbx.deliver({rej[0], ref, own_ref, 5, 1}, 276, "other port");
        mbx.deliver({rej[0], ref, own_ref + 1, 4, 1}, 276, "other client");
        mbx.deliver({TESK_SUBSCRIBE_SFP_INFO_REJ, ref, own_ref, 4, 1}, 276, "other number");
        mbx.deliver({cfm, ref, own_ref, 4}, 103); // one byte too short
        mbx.deliver(rej, 275, "short");
        mbx.deliver({cfm});
        mbx.deliver({0x7777777, ref, own_ref, 4});
        mbx.deliver({TESK_GET_CAPABILITIES_CFM, ref, own_ref, 0xffffffff, 1, 1});
        mbx.deliver({TESK_SHELL_GET_ACTIONS_CACHE_CFM, 0xffffffff, 1, 1});
        mbx.deliver({MBX_MONITOR_DEFAULT_NO}, 4, "", stranger);
        mbx.deliver(rej, 276, "the real one");
        mbx.deliver(rej, 276, "once more");
    };
    EXPECT_EQ(tesk_client_read_pm(session, 4, &pm), TESK_CLIENT_REJECTED);
    EXPECT_STREQ(tesk_client_error(), "the real one");
    mbx.react = [](const auto &request) {
        words_of cfm{TESK_GET_PM_COUNTERS_CFM, request[1], own_ref, 4};
        while (cfm.size() < 26) // the flags, too: all values are present
            cfm.push_back(static_cast<uint32_t>(cfm.size()));
        mbx.deliver(cfm);
    };
    EXPECT_EQ(tesk_client_read_pm(session, 4, &pm), TESK_CLIENT_OK);
    EXPECT_EQ((words_of{pm.loss_of_frame, pm.loss_of_signal, pm.bit_errors[0], pm.bit_errors[5],
                        pm.tx_power, pm.rx_power, pm.voltage, pm.tx_bias}),
              (words_of{6, 8, 10, 15, 17, 19, 23, 25}));
}

TEST_F(client, neither_a_late_history_nor_one_that_claims_more_than_it_holds_is_the_answer)
{
    options.deadline_ms = 20;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &request) {
        mbx.deliver({request[0] + 1, 2, 5, 2, 1000, 7, 0});
        mbx.deliver({request[0] + 1, 0x10000001, 5, 2, 1000, 7, 0});
    };
    EXPECT_EQ(read_history(), TESK_CLIENT_TIMEOUT);
    EXPECT_EQ(count, 0u);
    mbx.react = [](const auto &request) {
        for (uint32_t port : {1u, 2u})
            mbx.deliver({request[0] + 1, 1, port, 2, 1000, 7, 0});
    };
    EXPECT_EQ(read_history(), TESK_CLIENT_OK);
    EXPECT_EQ(record.port_no, 2u);
    mbx.react = nullptr;
    EXPECT_EQ(read_history(), TESK_CLIENT_TIMEOUT);
    mbx.react = answering_server; // answers only a later request: the earlier answer is lost
    EXPECT_EQ(tesk_client_read_capabilities(session, &capability, 1, &count), TESK_CLIENT_OK);
    mbx.react = [](const auto &request) {
        mbx.deliver({request[0] + 1, 2, 8, 2, 1000, 7, 9, 2, 1000, 8, 0});
    };
    EXPECT_EQ(read_history(), TESK_CLIENT_OK);
    EXPECT_EQ(record.port_no, 9u) << "the newest of two, where one has room";
}

TEST_F(client, an_indication_is_known_by_its_port_and_number_alone)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    ASSERT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 3), TESK_CLIENT_OK);
    mbx.indicate(4, 2); // not subscribed
    mbx.indicate(3, 1, stranger);
    mbx.indicate(3, 1, server, 95);
    mbx.indicate(3, 1, server, 96, own_ref + 1);
    mbx.indicate(3, 1);
    run_until_reported(2);
    EXPECT_EQ(reported, (strings{"status 3 2", "status 3 1"}));
    mbx.deliver({TESK_PORT_STATUS_IND, 999, own_ref, 3, 2, 2, 101, 0, 1, 2, 3, 4, 5, 6, 7}, 96);
    run_until_reported(3);
    EXPECT_EQ(levels, (words_of{1, 2, 3, 4, 5, 6, 7}));
}

TEST_F(client, requests_beyond_the_window_wait_for_an_answer)
{
    options.window = 2;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = nullptr;
    for (uint32_t port = 0; port < 5; port++)
        EXPECT_EQ(request(TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO, port), TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.size(), 3u); // the establishment and two requests
    mbx.react = answering_server;
    answering_server(mbx.sent.at(2)); // not in the order of the requests
    answering_server(mbx.sent.at(1));
    run_until_reported(5);
    EXPECT_EQ(reported, (strings{"1 ", "0 ", "2 ", "3 ", "4 "}));
}

TEST_F(client, a_request_without_an_answer_ends_at_its_deadline_and_makes_room)
{
    options.window = 2;
    options.deadline_ms = 20;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = nullptr;
    for (uint32_t port = 0; port < 3; port++)
        EXPECT_EQ(request(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, port), TESK_CLIENT_OK);
    run_until_reported(3); // and the queued request
    EXPECT_EQ(reported.front(), "0 no answer in time");
    answering_server(mbx.sent.at(1)); // too late; but the server has subscribed the client
    EXPECT_EQ(request(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, 8), TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.back().at(3), 8u);
    run_until_reported(4);
    EXPECT_EQ(reported.at(3), "status 0 2");
    EXPECT_EQ(request(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, 9), TESK_CLIENT_OK);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    for (int indication = 0; indication < 100; indication++) // more than one dispatch handles
        mbx.indicate(7, 2);
    answering_server(mbx.sent.back());
    while (std::chrono::steady_clock::now() <= deadline) {
    }
    run_until_reported(6);
    EXPECT_EQ(std::ranges::count(reported, "9 "), 1) << "its answer had arrived in time";
}

TEST_F(client, an_answer_about_the_former_subscription_does_not_touch_the_new_one)
{
    // After a first subscribe: s(ubscribe) and u(nsubscribe), each confirmed (y) or rejected (n),
    static const std::tuple<std::string, std::string, bool> cases[] = {
        {"s", "n", true},
        {"us", "yy", true},
        {"us", "yn", false},
        {"us", "nn", true},
        {"su", "ny", false},
        {"usu", "yyy", false},
        {"usus", "ynny", true},
        /* or t(imed out); found a(lready subscribed) or g(one) by the next request */
        {"uss", "yta", true},
        {"uu", "tg", false}};
    options.deadline_ms = 100;
    for (const auto &[requests, answers, is_subscribed] : cases) {
        SCOPED_TRACE(requests + " " + answers);
        mbx.react = answering_server;
        ASSERT_EQ(connect(), TESK_CLIENT_OK);
        ASSERT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 3), TESK_CLIENT_OK);
        mbx.react = nullptr;
        for (const char what : requests)
            EXPECT_EQ(request(what == 's' ? TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS
                                          : TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS,
                              3),
                      TESK_CLIENT_OK);
        const size_t first = mbx.sent.size() - requests.size();
        for (size_t i = 0; i < answers.size(); i++) {
            const words_of &sent = mbx.sent.at(first + i);
            if (answers[i] == 'y')
                mbx.deliver({sent[0] + 1, sent[1], own_ref, sent[3]});
            else if (answers[i] != 't')
                mbx.deliver({sent[0] + 2, sent[1], own_ref, sent[3], 1}, 276,
                            answers[i] == 'a'   ? "already subscribed"
                            : answers[i] == 'g' ? "client is not subscribed"
                                                : "no");
        }
        reported.clear();
        run_until_reported(requests.size());
        reported.clear();
        mbx.indicate(3, 1);
        EXPECT_EQ(tesk_client_run(session, 0), TESK_CLIENT_OK);
        EXPECT_EQ(reported, is_subscribed ? strings{"status 3 1"} : strings{});
        tesk_client_close(std::exchange(session, nullptr));
    }
}

TEST_F(client, histories_that_are_never_answered_cost_no_memory_and_are_not_mixed_up)
{
    options.deadline_ms = 1;
    options.window = 1;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = nullptr;
    largest_allocation = 0;
    allocations_left = 1000000;
    for (int i = 0; i < 200; i++)
        EXPECT_EQ(read_history(), TESK_CLIENT_TIMEOUT);
    allocations_left = -1;
    EXPECT_LT(largest_allocation, 4096u);
    mbx.react = [](const auto &request) { // first the owed answers
        for (uint32_t port = 1; port <= 201; port++)
            mbx.deliver({request[0] + 1, 1, port, 2, 1000, 7, 0});
    };
    EXPECT_EQ(read_history(), TESK_CLIENT_OK);
    EXPECT_EQ(record.port_no, 201u);
}

TEST_F(client, without_reconnection_the_loss_of_the_server_ends_everything)
{
    options.window = 1;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &) { mbx.deliver({MBX_MONITOR_DEFAULT_NO}); };
    for (uint32_t port : {1u, 2u})
        EXPECT_EQ(request(TESK_CLIENT_REQUEST_PM, port), TESK_CLIENT_OK);
    EXPECT_EQ(tesk_client_run(session, 20000), TESK_CLIENT_LOST);
    EXPECT_EQ(reported, (strings{"lost", "1 the server went away", "2 the server went away"}));
    EXPECT_EQ(request(TESK_CLIENT_REQUEST_PM, 1), TESK_CLIENT_LOST);
}

TEST_F(client, after_a_reconnection_the_confirmed_subscriptions_are_renewed_before_anything_else)
{
    subscribe_for_good(TESK_CLIENT_PORT_STATUS, {3, 4}, 20000);
    run_until_reported(2);
    reported.clear();
    mbx.locate_error = ENOENT;
    mbx.react = nullptr;
    request(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, 5); // never confirmed
    mbx.deliver({MBX_MONITOR_DEFAULT_NO});
    run_until_reported(2);
    EXPECT_FALSE(tesk_client_connected(session));
    request(TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS, 3);
    const uint32_t locates = mbx.locates;
    while (mbx.locates < locates + 3)
        ASSERT_EQ(tesk_client_run(session, 1), TESK_CLIENT_OK);
    mbx.locate_error = 0;
    mbx.react = [](const auto &request) {
        if (request[0] != TESK_SUBSCRIBE_PORT_STATUS_REQ || request[3] != 4)
            return answering_server(request);
        mbx.deliver({request[0] + 2, request[1], own_ref, 4, 1}, 276, "invalid port");
    };
    run_until_reported(6);
    EXPECT_EQ(reported, (strings{"lost", "5 the server went away", "restored", "status 3 2",
                                 "subscription lost: invalid port", "3 "}));
}

TEST_F(client, a_renewal_begins_anew_after_a_loss_and_is_reported_without_an_answer)
{
    subscribe_for_good(TESK_CLIENT_SFP_INFO, {0, 1}, 200);
    mbx.react = [](const auto &request) {
        if (request[0] == TESK_CONN_ESTABLISH_REQ)
            answering_server(request);
    };
    for (size_t loss = 1; loss <= 2; loss++) {
        mbx.deliver({MBX_MONITOR_DEFAULT_NO});
        run_until_reported(2 * loss);
        EXPECT_EQ(mbx.sent.back().at(3), 0u) << loss;
    }
    run_until_reported(5);
    EXPECT_EQ(reported, (strings{"lost", "restored", "lost", "restored",
                                 "subscription lost: no answer in time"}));
}

// Without a limit, the last of 20 doubled pauses would take a quarter of an hour.
TEST_F(client, the_pause_between_attempts_has_an_end_and_begins_anew_with_each_connection)
{
    options.reconnect = true;
    options.retry_ms = 1;
    options.longest_retry_ms = 1'000'000;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    for (int i = 0; i < 20; i++) {
        reported.clear();
        mbx.deliver({MBX_MONITOR_DEFAULT_NO});
        run_until_reported(2);
    }
    tesk_client_close(session);
    options.longest_retry_ms = 2;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.locate_error = ENOENT;
    mbx.deliver({MBX_MONITOR_DEFAULT_NO});
    const uint32_t wanted = mbx.locates + 20;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (mbx.locates < wanted && std::chrono::steady_clock::now() < end)
        tesk_client_run(session, 5);
    EXPECT_GE(mbx.locates, wanted);
}

TEST_F(client, a_session_that_ends_answers_its_requests_and_a_callback_cannot_wait)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = nullptr;
    const auto nested = [](const tesk_client_answer *answer, void *user) {
        auto *ending = static_cast<tesk_client_session *>(user);
        tesk_client_pm unread;
        EXPECT_EQ(tesk_client_read_pm(ending, 1, &unread), TESK_CLIENT_MISUSE);
        tesk_client_close(ending); // is ignored in a callback
        EXPECT_EQ(answer->result, TESK_CLIENT_CANCELLED);
        reported.push_back("end");
    };
    tesk_client_request(session, TESK_CLIENT_REQUEST_PM, 1, nested, session);
    tesk_client_close(std::exchange(session, nullptr));
    EXPECT_EQ(reported, strings{"end"});
}

TEST_F(client, a_lack_of_memory_is_a_result_and_loses_no_request)
{
    options.deadline_ms = 30;
    options.reconnect = true;
    long failed = 1;
    for (long left = 0; failed > 0; left++) {
        reported.clear();
        mbx.react = answering_server;
        allocations_left = left;
        failed = connect() == TESK_CLIENT_OK ? 0 : 1;
        allocations_left = -1;
        ASSERT_EQ(session == nullptr, failed == 1);
        if (failed == 1)
            continue;
        allocations_left = left / 4; // each step alone, too
        const long accepted = request(TESK_CLIENT_REQUEST_PM, 1) == TESK_CLIENT_OK ? 1 : 0;
        failed += 1 - accepted;
        failed += tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 2) != TESK_CLIENT_OK;
        failed += read_history() != TESK_CLIENT_OK;
        {
            const without_limit unlimited;
            mbx.deliver({MBX_MONITOR_DEFAULT_NO});
        }
        failed += tesk_client_run(session, 5) != TESK_CLIENT_OK;
        allocations_left = -1;
        for (int i = 0; i < 100 && !tesk_client_connected(session); i++)
            tesk_client_run(session, 10);
        EXPECT_TRUE(tesk_client_connected(session)) << left;
        tesk_client_close(std::exchange(session, nullptr));
        EXPECT_EQ(accepted,
                  std::ranges::count_if(
                      reported, [](const std::string &text) { return text.starts_with("1 "); }))
            << left;
        EXPECT_EQ(fake_mailbox::live_blocks, 0) << left;
    }
}

TEST_F(client, a_forked_child_cannot_use_the_session_but_starts_the_library_for_its_own)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    const pid_t child = fork();
    if (child == 0) {
        starts = 0;
        const bool is_refused = tesk_client_read_pm(session, 1, &pm) == TESK_CLIENT_MISUSE &&
                                tesk_client_dispatch(session) == TESK_CLIENT_MISUSE;
        tesk_client_close(session); // would close the parent's
        const bool is_whole = fake_mailbox::is_open();
        _exit(is_refused && is_whole && connect() != TESK_CLIENT_MISUSE && starts == 1 ? 0 : 1);
    }
    EXPECT_EQ(testkit::wait_for_end(child), 0);
    EXPECT_EQ(tesk_client_read_capabilities(session, &capability, 1, &count), TESK_CLIENT_OK);
}

TEST_F(client, a_rejection_is_known_by_its_text)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    static std::pair<uint32_t, const char *> rejected;
    mbx.react = [](const auto &request) {
        mbx.deliver({TESK_GET_PM_COUNTERS_REJ, request[1], own_ref, request[3], rejected.first},
                    sizeof(tesk_port_rej), rejected.second);
    };
    const std::tuple<uint32_t, const char *, tesk_client_rejection> cases[] = {
        {2, "anything", TESK_CLIENT_REJECTION_NO_PORT},
        {1, "invalid port", TESK_CLIENT_REJECTION_NO_PORT},
        {1, "no device (e.g. port ID is unknown)", TESK_CLIENT_REJECTION_NO_PORT},
        {1, "not available (e.g. SFP EEPROM is not available)", TESK_CLIENT_REJECTION_NO_MODULE},
        {1, "resource busy", TESK_CLIENT_REJECTION_BUSY},
        {1, "already subscribed", TESK_CLIENT_REJECTION_SUBSCRIBED},
        {1, "client is not subscribed", TESK_CLIENT_REJECTION_NOT_SUBSCRIBED},
        {1, "invalid port number", TESK_CLIENT_REJECTION_OTHER},
        {1, "", TESK_CLIENT_REJECTION_OTHER},
    };
    for (const auto &[code, text, rejection] : cases) {
        rejected = {code, text};
        EXPECT_EQ(tesk_client_read_pm(session, 1, &pm), TESK_CLIENT_REJECTED);
        EXPECT_EQ(tesk_client_error_rejection(), rejection) << text;
        EXPECT_STREQ(tesk_client_error(), text);
    }
    EXPECT_EQ(tesk_client_read_pm(nullptr, 1, &pm), TESK_CLIENT_MISUSE);
    EXPECT_EQ(tesk_client_error_rejection(), TESK_CLIENT_REJECTION_NONE);
}

TEST_F(client, a_wrong_argument_is_misuse_and_sends_nothing)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    const size_t sent = mbx.sent.size();
    auto *none = static_cast<tesk_client_session *>(nullptr);
    for (const int wrong : {-3, -2, -1, 9, 255, INT_MIN, INT_MAX}) {
        const auto history = static_cast<tesk_client_history_kind>(wrong);
        const auto kind = static_cast<tesk_client_kind>(wrong == 9 ? 5 : wrong);
        const tesk_client_result results[] = {
            tesk_client_subscribe(session, kind, 1), tesk_client_unsubscribe(session, kind, 1),
            tesk_client_read_history(session, history, &record, 1, &(count = 1)),
            request(static_cast<tesk_client_request_type>(wrong))};
        EXPECT_EQ(std::ranges::count(results, TESK_CLIENT_MISUSE), 4) << wrong;
        EXPECT_EQ(count, 0);
        EXPECT_STREQ(tesk_client_text(static_cast<tesk_client_enumeration>(wrong), 0), "unknown");
    }
    constexpr auto sfp = TESK_CLIENT_SFP_INFO;
    constexpr auto actions = TESK_CLIENT_HISTORY_ACTIONS;
    const tesk_client_result results[] = {
        tesk_client_connect(&options, nullptr),
        tesk_client_dispatch(none),
        tesk_client_run(none, 0),
        tesk_client_subscribe(none, sfp, 1),
        tesk_client_unsubscribe(none, sfp, 1),
        tesk_client_read_pm(session, 1, nullptr),
        tesk_client_read_capabilities(session, nullptr, 1, &count),
        tesk_client_read_capabilities(session, &capability, 1, nullptr),
        tesk_client_read_history(session, actions, nullptr, 1, &count),
        tesk_client_read_history(session, actions, &record, 1, nullptr),
        tesk_client_request(none, TESK_CLIENT_REQUEST_PM, 1, on_answer, nullptr)};
    EXPECT_EQ(std::ranges::count(results, TESK_CLIENT_MISUSE), std::ssize(results));
    tesk_client_stop(none);
    EXPECT_TRUE(tesk_client_fd(none) == -1 && !tesk_client_connected(none));
    EXPECT_EQ(mbx.sent.size(), sent);
}

TEST_F(client, stop_ends_the_run_that_goes_on_or_the_next_one)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    tesk_client_stop(session);
    for (int i = 0; i < 2; i++) // the first call takes the wake-up
        tesk_client_read_capabilities(session, &capability, 1, &count);
    EXPECT_EQ(tesk_client_run(session, -1), TESK_CLIENT_OK);
    EXPECT_EQ(tesk_client_run(session, 0), TESK_CLIENT_OK);
}

TEST(port_map, is_read_whole_or_its_wrong_line_is_named)
{
    const testkit::directory folder;
    const std::string path = folder.path + "/ports", link = path + ".link", fifo = path + ".fifo";
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::string read;
    const auto each = [](uint32_t port_no, const char *name, void *user) {
        *static_cast<std::string *>(user) += std::to_string(port_no) + "=" + name + " ";
    };
    const auto expect_error = [&](const std::string &file, tesk_client_result result,
                                  const std::string &text) {
        read.clear();
        EXPECT_EQ(tesk_client_read_port_map(file.c_str(), each, &read), result) << text;
        testkit::expect_parts(tesk_client_error(), {text});
        EXPECT_EQ(read, "");
    };
    expect_error(path, TESK_CLIENT_NO_PORT_MAP, path);
    const std::string head = "# tesk-ports 1\n", most((4 << 20) - head.size() - 3, 'x');
    const std::pair<std::string, std::string> maps[] = {
        {"", ""},
        {"0\teth0\n7\ta\\\x1b\t\xff\n65534\tx\n", "0=eth0 7=a\\\\\\x1b\\x09\\xff 65534=x "},
        {std::string("1\ta\0b\n", 6), "1=a\\x00b "},
        {"1\t" + most + "\n", "1=" + most + " "}};
    for (const auto &[lines, expected] : maps) {
        read.clear();
        std::ofstream(path) << head << lines;
        EXPECT_EQ(tesk_client_read_port_map(path.c_str(), each, &read), TESK_CLIENT_OK);
        EXPECT_EQ(read, expected);
    }
    const std::pair<std::string, const char *> wrong[] = {
        {"", "line 1: "},
        {"# tesk-ports 2\n0\ta\n", "line 1: "},
        {head + "0\ta\n1 b\n", "line 3: "},
        {head + "0\ta\n0\tb\n", "line 3: port 0 must"},
        {head + "2\ta\n1\tb\n", "line 3: port 1 must"},
        {head + "65535\ta\n", "line 2: "},
        {head + "-1\ta\n", "line 2: "},
        {head + "99999999999\ta\n", "line 2: "},
        {head + "\ta\n", "line 2: "},
        {head + "1\t\n", "line 2: "},
        {head + "1\ta\n2\tb", "line 3: has no end"},
        {head + "1\t" + most + "x\n", "4 MiB"}};
    for (const auto &[content, text] : wrong) {
        std::ofstream(path) << content;
        expect_error(path, TESK_CLIENT_BAD_PORT_MAP, text);
    }
    setenv("DOLM_RIC_PORT_MAP", path.c_str(), 1);
    EXPECT_EQ(tesk_client_read_port_map(nullptr, each, &read), TESK_CLIENT_BAD_PORT_MAP);
    unsetenv("DOLM_RIC_PORT_MAP");
    setenv("MBX_DIR", "/another", 1);
    EXPECT_EQ(tesk_client_read_port_map(nullptr, each, &read), TESK_CLIENT_NO_PORT_MAP);
    EXPECT_TRUE(testkit::contains(tesk_client_error(), "the server that MBX_DIR selects"));
    unsetenv("MBX_DIR");
    expect_error(link, TESK_CLIENT_BAD_PORT_MAP, "is a link");
    expect_error(fifo, TESK_CLIENT_BAD_PORT_MAP, "regular");
    expect_error("/dev/zero", TESK_CLIENT_BAD_PORT_MAP, "regular");
    EXPECT_EQ(tesk_client_read_port_map(path.c_str(), nullptr, &read), TESK_CLIENT_MISUSE);
}
