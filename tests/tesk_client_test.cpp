// The client library on a scripted mbx: what it makes of answers that are late, short, foreign or
// for nobody, its deadlines and window, and what it does when the server goes and comes back.
#include "tesk_client/tesk_client.h"
#include "tesk_server/tesk_signals.h"
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <mbx.h>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr uint32_t server = 7, stranger = 8, client_id = 41;

// Before each signal stand its size and sender.
struct block {
    uint32_t size;
    uint32_t sender;
    mbx_signal signal[];
};

block *block_of(const mbx_signal *signal)
{
    return reinterpret_cast<block *>(const_cast<char *>(reinterpret_cast<const char *>(signal)) -
                                     sizeof(block));
}

struct scripted_mbx {
    int locate_error = 0;
    uint32_t next_mailbox = 100;
    uint32_t mailbox = MBX_NO_MAILBOX;
    int fd = -1;
    std::deque<mbx_signal *> queue;
    std::vector<std::vector<uint32_t>> sent; // as words, in host order
    std::function<void(const std::vector<uint32_t> &)> react;
    int blocks = 0;

    // Words behind the number go out in network order, as the server sends them.
    void deliver(std::vector<uint32_t> words, uint32_t sender = server, size_t size = 0)
    {
        const bool shell = words[0] < 0x1000;
        for (size_t i = 1; i < words.size() && !shell; i++) {
            words[i] = __builtin_bswap32(words[i]);
        }
        const size_t all = size ? size : words.size() * sizeof(uint32_t);
        mbx_signal *signal = mbx_alloc(all, words[0]);
        std::memcpy(signal, words.data(), std::min(all, words.size() * sizeof(uint32_t)));
        block_of(signal)->sender = sender;
        queue.push_back(signal);
        eventfd_write(fd, 1);
    }
    void die()
    {
        deliver({MBX_MONITOR_DEFAULT_NO});
    }
};
scripted_mbx mbx;

uint32_t own_ref()
{
    return static_cast<uint32_t>(getpid());
}

std::vector<uint32_t> rejection(uint32_t number, uint32_t ref, uint32_t port, const char *text)
{
    std::vector<uint32_t> words(276 / 4);
    words[0] = number, words[1] = ref, words[2] = own_ref(), words[3] = port, words[4] = 1;
    std::strncpy(reinterpret_cast<char *>(&words[5]), text, 256);
    for (size_t i = 5; i < words.size(); i++) {
        words[i] = __builtin_bswap32(words[i]); // deliver turns it back
    }
    return words;
}

std::vector<uint32_t> status_ind(uint32_t port, uint32_t link)
{
    std::vector<uint32_t> words(96 / 4);
    words[0] = TESK_PORT_STATUS_IND, words[1] = 999, words[2] = own_ref(), words[3] = port;
    words[4] = link, words[5] = 2, words[6] = 101, words[12] = 4;
    return words;
}

// What the real server does, as far as these tests need it.
void obliging_server(const std::vector<uint32_t> &request)
{
    switch (request[0]) {
    case TESK_CONN_ESTABLISH_REQ:
        return mbx.deliver({TESK_CONN_ESTABLISH_CFM, request[1], client_id, 1});
    case TESK_GET_CAPABILITIES_REQ:
        return mbx.deliver({TESK_GET_CAPABILITIES_CFM, request[1], own_ref(), 1, 3, 8});
    case TESK_SHELL_GET_SFP_INFO_CACHE_REQ:
        return mbx.deliver({request[0] + 1, 1, 5, 2, 1000, 7, 0});
    case TESK_SUBSCRIBE_PORT_STATUS_REQ:
        mbx.deliver({request[0] + 1, request[1], own_ref(), request[3]});
        return mbx.deliver(status_ind(request[3], 2));
    default:
        return mbx.deliver({request[0] + 1, request[1], own_ref(), request[3]});
    }
}

} // namespace

extern "C" {
int mbx_init(int, int, int, int, int)
{
    return 0;
}
uint32_t mbx_create_mailbox(const char *, uint32_t)
{
    mbx.fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK);
    return mbx.mailbox = mbx.next_mailbox++;
}
void mbx_delete_mailbox(uint32_t)
{
    for (mbx_signal *signal : std::exchange(mbx.queue, {})) {
        mbx_free(&signal);
    }
    close(mbx.fd);
    mbx.fd = -1;
    mbx.mailbox = MBX_NO_MAILBOX;
}
int mbx_get_fd()
{
    return mbx.fd;
}
mbx_signal *mbx_alloc(size_t size, uint32_t number)
{
    mbx.blocks++;
    auto *made = static_cast<block *>(std::calloc(1, sizeof(block) + size));
    made->size = static_cast<uint32_t>(size);
    made->signal->number = number;
    return made->signal;
}
void mbx_free(mbx_signal **signal)
{
    mbx.blocks -= *signal != nullptr;
    std::free(*signal ? block_of(*signal) : nullptr);
    *signal = nullptr;
}
void mbx_send(mbx_signal **signal, uint32_t receiver, uint32_t)
{
    std::vector<uint32_t> words(mbx_size(*signal) / sizeof(uint32_t));
    std::memcpy(words.data(), *signal, mbx_size(*signal));
    for (size_t i = 1; i < words.size(); i++) {
        words[i] = __builtin_bswap32(words[i]);
    }
    mbx_free(signal);
    ASSERT_EQ(receiver, server);
    mbx.sent.push_back(words);
    mbx.react(words);
}
mbx_signal *mbx_receive(const uint32_t *, int timeout_ms, uint32_t)
{
    EXPECT_EQ(timeout_ms, 0);
    eventfd_t count;
    if (mbx.queue.empty() || eventfd_read(mbx.fd, &count) != 0) {
        return nullptr;
    }
    mbx_signal *signal = mbx.queue.front();
    mbx.queue.pop_front();
    return signal;
}
uint32_t mbx_sender(const mbx_signal *signal)
{
    return block_of(signal)->sender;
}
uint32_t mbx_size(const mbx_signal *signal)
{
    return block_of(signal)->size;
}
uint32_t mbx_monitor(uint32_t, mbx_signal **)
{
    return 1;
}
void mbx_unmonitor(uint32_t)
{
}
uint32_t mbx_locate(const char *)
{
    errno = mbx.locate_error;
    return mbx.locate_error ? MBX_NO_MAILBOX : server;
}
}

namespace
{

using strings = std::vector<std::string>;

// Callbacks write down what they hear as one word each: "status 3 2", "ok 4", "lost".
void on_status(const tesk_client_port_status *status, void *user)
{
    static_cast<strings *>(user)->push_back("status " + std::to_string(status->port_no) + " " +
                                            std::to_string(status->link));
}
void on_event(const tesk_client_event *event, void *user)
{
    const char *names[] = {"lost", "restored", "subscription lost: "};
    std::string name = names[event->type];
    static_cast<strings *>(user)->push_back(
        event->type == TESK_CLIENT_EVENT_SUBSCRIPTION_LOST ? name + event->text : name);
}
void on_answer(const tesk_client_answer *answer, void *user)
{
    static_cast<strings *>(user)->push_back(std::to_string(answer->port_no) + " " + answer->text);
}

class client : public testing::Test
{
  protected:
    void SetUp() override
    {
        mbx = {};
        mbx.react = obliging_server;
    }
    void TearDown() override
    {
        tesk_client_close(session);
        EXPECT_EQ(mbx.blocks, 0);
    }
    tesk_client_result connect()
    {
        options.on_port_status = on_status;
        options.on_event = on_event;
        options.user = &heard;
        return tesk_client_connect(&options, &session);
    }
    void request(tesk_client_request_type type, uint32_t port = 0)
    {
        ASSERT_EQ(tesk_client_request(session, type, port, on_answer, &heard), TESK_CLIENT_OK);
    }
    // Runs until so much has been heard.
    void run_until_heard(size_t count)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (heard.size() < count && std::chrono::steady_clock::now() < end) {
            tesk_client_run(session, 5);
        }
        ASSERT_GE(heard.size(), count);
    }

    tesk_client_options options{};
    tesk_client_session *session = nullptr;
    strings heard;
};

TEST_F(client, what_keeps_from_connecting_is_told_apart)
{
    const struct {
        int locate_error;
        tesk_client_result result;
    } cases[] = {{ENOENT, TESK_CLIENT_NO_SERVER},
                 {EACCES, TESK_CLIENT_NO_ACCESS},
                 {ETIMEDOUT, TESK_CLIENT_TIMEOUT},
                 {EMFILE, TESK_CLIENT_FAILED}};
    for (const auto &c : cases) {
        mbx.locate_error = c.locate_error;
        options.reconnect = true;
        EXPECT_EQ(connect(), c.result);
        EXPECT_STRNE(tesk_client_error(), "");
    }
    mbx.locate_error = 0;
    mbx.react = [](const auto &) {};
    options.deadline_ms = 10;
    EXPECT_EQ(connect(), TESK_CLIENT_TIMEOUT);
    mbx.react = [](const auto &) { mbx.die(); };
    options.reconnect = true;
    EXPECT_EQ(connect(), TESK_CLIENT_LOST);
    mbx.react = [](const auto &request) {
        std::vector<uint32_t> rej = rejection(TESK_CONN_ESTABLISH_REJ, request[1], 1, "");
        rej.resize(272 / 4);
        rej[4] = 0x6e6f2100; // "no!" over the place of its text
        mbx.deliver(rej);
    };
    EXPECT_EQ(connect(), TESK_CLIENT_REJECTED);
    EXPECT_STREQ(tesk_client_error(), "no!");
    EXPECT_EQ(mbx.mailbox, MBX_NO_MAILBOX);
}

TEST_F(client, requests_bear_the_servers_reference_and_their_exact_size)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.at(0), (std::vector<uint32_t>{0x1648400, 1, own_ref(), 1, 1}));
    EXPECT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 9), TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.at(1), (std::vector<uint32_t>{0x1648410, 2, client_id, 9, 0}));
    EXPECT_EQ(tesk_client_unsubscribe(session, TESK_CLIENT_SFP_INFO, 8), TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.at(2), (std::vector<uint32_t>{0x164840d, 3, client_id, 8}));
    tesk_client_capability capability;
    size_t count;
    EXPECT_EQ(tesk_client_read_capabilities(session, &capability, 1, &count), TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.at(3), (std::vector<uint32_t>{0x1648403, 4, client_id}));
    EXPECT_EQ(capability.id * 10 + capability.value, 38u);
    tesk_client_history_record record;
    EXPECT_EQ(tesk_client_read_history(session, TESK_CLIENT_HISTORY_SFP_INFO, &record, 1, &count),
              TESK_CLIENT_OK);
    EXPECT_EQ(mbx.sent.at(4), (std::vector<uint32_t>{0x119}));
    EXPECT_EQ(record.time_us, 1000000007u);
}

TEST_F(client, only_the_right_answer_of_the_server_counts)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &request) {
        const uint32_t ref = request[1], own = own_ref();
        const uint32_t cfm = TESK_GET_PM_COUNTERS_CFM, rej = TESK_GET_PM_COUNTERS_REJ;
        mbx.deliver(rejection(rej, ref, 4, "stranger"), stranger);
        mbx.deliver(rejection(rej, ref + 1, 4, "other request"));
        mbx.deliver(rejection(rej, ref, 5, "other port"));
        mbx.deliver(rejection(TESK_SUBSCRIBE_SFP_INFO_REJ, ref, 4, "other number"));
        mbx.deliver({cfm, ref, own, 4}, server, 103); // a byte short
        mbx.deliver(rejection(rej, ref, 4, "short"), server, 275);
        mbx.deliver({cfm}, server, 4);
        mbx.deliver({0x7777777, ref, own, 4});
        mbx.deliver({TESK_GET_CAPABILITIES_CFM, ref, own, 0xffffffff, 1, 1});
        mbx.deliver({TESK_SHELL_GET_ACTIONS_CACHE_CFM, 0xffffffff, 1, 1});
        mbx.deliver({MBX_MONITOR_DEFAULT_NO}, stranger);
        mbx.deliver(rejection(rej, ref, 4, "the real one"));
        mbx.deliver(rejection(rej, ref, 4, "once more"));
    };
    tesk_client_pm pm;
    EXPECT_EQ(tesk_client_read_pm(session, 4, &pm), TESK_CLIENT_REJECTED);
    EXPECT_STREQ(tesk_client_error(), "the real one");
}

TEST_F(client, a_history_that_claims_more_records_than_it_holds_is_no_answer)
{
    options.deadline_ms = 20;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &request) {
        mbx.deliver({request[0] + 1, 2, 5, 2, 1000, 7, 0});
        mbx.deliver({request[0] + 1, 0x10000001, 5, 2, 1000, 7, 0});
    };
    tesk_client_history_record record;
    size_t count = 1;
    EXPECT_EQ(tesk_client_read_history(session, TESK_CLIENT_HISTORY_SFP_INFO, &record, 1, &count),
              TESK_CLIENT_TIMEOUT);
    EXPECT_EQ(count, 0u);
}

TEST_F(client, an_indication_is_known_by_its_port_and_number_alone)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    ASSERT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 3), TESK_CLIENT_OK);
    mbx.deliver(status_ind(4, 2)); // not subscribed
    mbx.deliver(status_ind(3, 1), stranger);
    mbx.deliver(status_ind(3, 1), server, 95);
    std::vector<uint32_t> for_another = status_ind(3, 1);
    for_another[2]++;
    mbx.deliver(for_another);
    mbx.deliver(status_ind(3, 1));
    run_until_heard(2);
    EXPECT_EQ(heard, (strings{"status 3 2", "status 3 1"}));
}

TEST_F(client, requests_beyond_the_window_wait_for_an_answer)
{
    options.window = 2;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &) {};
    for (uint32_t port = 0; port < 5; port++) {
        request(TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO, port);
    }
    EXPECT_EQ(mbx.sent.size(), 3u); // the establishment and two
    mbx.react = obliging_server;
    obliging_server(mbx.sent.at(2)); // not in the order of the requests
    obliging_server(mbx.sent.at(1));
    run_until_heard(5);
    EXPECT_EQ(heard, (strings{"1 ", "0 ", "2 ", "3 ", "4 "}));
}

TEST_F(client, a_request_without_an_answer_ends_at_its_deadline_and_makes_room)
{
    options.window = 2;
    options.deadline_ms = 20;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &) {};
    for (uint32_t port = 0; port < 3; port++) {
        request(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, port);
    }
    run_until_heard(3); // the one that waited, too
    EXPECT_EQ(heard.front(), "0 no answer in time");
    obliging_server(mbx.sent.at(1)); // too late; but the server has subscribed us
    request(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, 8);
    EXPECT_EQ(mbx.sent.back().at(3), 8u);
    run_until_heard(4);
    EXPECT_EQ(heard.at(3), "status 0 2");
}

TEST_F(client, a_late_history_is_not_taken_for_the_next_one)
{
    options.deadline_ms = 20;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &) {};
    request(TESK_CLIENT_REQUEST_HISTORY_SFP_INFO);
    run_until_heard(1);
    mbx.react = [](const auto &) {
        for (uint32_t port : {1u, 2u}) {
            mbx.deliver({TESK_SHELL_GET_SFP_INFO_CACHE_CFM, 1, port, 2, 1000, 7, 0});
        }
    };
    tesk_client_history_record record;
    size_t count;
    EXPECT_EQ(tesk_client_read_history(session, TESK_CLIENT_HISTORY_SFP_INFO, &record, 1, &count),
              TESK_CLIENT_OK);
    EXPECT_EQ(record.port_no, 2u);
}

TEST_F(client, without_reconnection_the_loss_of_the_server_ends_everything)
{
    options.window = 1;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &) { mbx.die(); };
    request(TESK_CLIENT_REQUEST_PM, 1);
    request(TESK_CLIENT_REQUEST_PM, 2);
    EXPECT_EQ(tesk_client_run(session, 20000), TESK_CLIENT_LOST);
    EXPECT_EQ(heard, (strings{"lost", "1 the server went away", "2 the server went away"}));
    EXPECT_EQ(tesk_client_request(session, TESK_CLIENT_REQUEST_PM, 1, on_answer, &heard),
              TESK_CLIENT_LOST);
}

TEST_F(client, after_a_reconnection_the_confirmed_subscriptions_are_renewed_before_anything_else)
{
    options.window = 1;
    options.reconnect = true;
    options.retry_ms = 1;
    options.deadline_ms = 20000;
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    ASSERT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 3), TESK_CLIENT_OK);
    ASSERT_EQ(tesk_client_subscribe(session, TESK_CLIENT_PORT_STATUS, 4), TESK_CLIENT_OK);
    run_until_heard(2);
    heard.clear();
    mbx.locate_error = ENOENT;
    mbx.react = [](const auto &) {};
    request(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, 5); // never confirmed
    mbx.die();
    run_until_heard(2);
    EXPECT_FALSE(tesk_client_connected(session));
    request(TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS, 3);
    const uint32_t attempts = mbx.next_mailbox;
    while (mbx.next_mailbox < attempts + 3) { // each look for the server has a mailbox of its own
        ASSERT_EQ(tesk_client_run(session, 1), TESK_CLIENT_OK);
    }
    mbx.locate_error = 0;
    mbx.react = [](const auto &request) {
        if (request[0] == TESK_SUBSCRIBE_PORT_STATUS_REQ && request[3] == 4) {
            mbx.deliver(rejection(TESK_SUBSCRIBE_PORT_STATUS_REJ, request[1], 4, "invalid port"));
        } else {
            obliging_server(request);
        }
    };
    run_until_heard(6);
    EXPECT_EQ(heard, (strings{"lost", "5 the server went away", "restored", "status 3 2",
                              "subscription lost: invalid port", "3 "}));
}

TEST_F(client, a_session_that_ends_answers_its_requests_and_a_callback_cannot_wait)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    mbx.react = [](const auto &) {};
    static tesk_client_result inside;
    auto nested = [](const tesk_client_answer *answer, void *user) {
        tesk_client_pm pm;
        inside = tesk_client_read_pm(static_cast<tesk_client_session *>(user), 1, &pm);
        tesk_client_close(static_cast<tesk_client_session *>(user)); // does nothing here
        EXPECT_EQ(answer->result, TESK_CLIENT_CANCELLED);
    };
    ASSERT_EQ(tesk_client_request(session, TESK_CLIENT_REQUEST_PM, 1, nested, session),
              TESK_CLIENT_OK);
    tesk_client_close(std::exchange(session, nullptr));
    EXPECT_EQ(inside, TESK_CLIENT_MISUSE);
}

TEST_F(client, stop_ends_the_run_that_goes_on_or_the_next_one)
{
    ASSERT_EQ(connect(), TESK_CLIENT_OK);
    tesk_client_stop(session);
    tesk_client_capability capability;
    size_t count;
    tesk_client_read_capabilities(session, &capability, 1, &count); // takes the wake-up first
    EXPECT_EQ(tesk_client_run(session, -1), TESK_CLIENT_OK);
    EXPECT_EQ(tesk_client_run(session, 0), TESK_CLIENT_OK);
}

} // namespace
