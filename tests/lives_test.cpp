/* SPDX-License-Identifier: Apache-2.0 */
/* A few hundred random clients of the real server. A model predicts each answer, each indication,
   the board's subscriptions and the history. */
#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>

using subscription = std::pair<uint32_t, uint32_t>; /* port, kind */
using action = std::array<uint32_t, 4>;             /* port, client_id, conn_ref, action */

static constexpr uint32_t ports = 4, absent_port = 40, clients = 5, lives_at_least = 300;

struct kind_numbers {
    uint32_t subscribe, unsubscribe, indication, subscribed, unsubscribed, indicated;
    const char *field;
};
static constexpr kind_numbers kinds[] = {
    {},
    {TESK_SUBSCRIBE_SFP_INFO_REQ, TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_SFP_INFO_IND,
     TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE, TESK_CACHE_ACTION_SFP_INFO_UNSUBSCRIBE,
     TESK_CACHE_ACTION_SFP_INFO_IND, "subscribed_port"},
    {TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_UNSUBSCRIBE_PORT_STATUS_REQ, TESK_PORT_STATUS_IND,
     TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE, TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE,
     TESK_CACHE_ACTION_PORT_STATUS_IND, "subscribed_link"}};

struct life {
    std::unique_ptr<testkit::test_client> client;
    uint32_t id = 0, conn_ref = 0, procedure_ref = 0;
    std::set<subscription> held;
};

class lives : public testing::Test
{
  protected:
    testkit::directory directory;
    const std::string traces = directory.path + "/traces";
    testkit::server server{{"ZEL_SINK=file:" + traces, "ZEL_GROUPS=12", "ZEL_FILE_SIZE=67108864"}};
    size_t seen = 0;
    testkit::test_client stranger;
    std::mt19937 random{20};
    std::vector<life> all{clients};
    std::deque<action> history;
    uint32_t next_id = 0, next_procedure = 0;
    bool up[ports] = {true, true, true, true}, ready[ports] = {true, true, true, true};
    int downs[ports] = {};

    uint32_t below(uint32_t limit)
    {
        return static_cast<uint32_t>(random()) % limit;
    }

    void note(uint32_t port, const life &of, uint32_t what)
    {
        history.push_back({port, of.id, of.conn_ref, what});
        if (history.size() > TESK_CACHE_LIMIT)
            history.pop_front();
    }

    std::deque<action> read_history()
    {
        const uint32_t request = TESK_SHELL_GET_ACTIONS_CACHE_REQ;
        stranger.send_raw(&request, sizeof(request));
        const testkit::message answer = stranger.receive();
        std::deque<action> read(answer.host_word(4));
        for (size_t at = 8; action & a : read) {
            for (size_t field = 0; field < a.size(); field++)
                a[field] = answer.host_word(at + 4 * field);
            at += 24;
        }
        return read;
    }

    std::vector<uint32_t> request_words(const life &of, uint32_t number, uint32_t port)
    {
        std::vector<uint32_t> words = {++next_procedure, of.id, port, 0};
        words.resize(number == TESK_SUBSCRIBE_PORT_STATUS_REQ ? 4 : 3);
        return words;
    }

    testkit::message ask(life &of, uint32_t number, uint32_t port)
    {
        testkit::message answer = of.client->ask(number, request_words(of, number, port));
        EXPECT_EQ(answer.word(4), next_procedure);
        return answer;
    }

    void begin(life &of)
    {
        of.client = std::make_unique<testkit::test_client>();
        of.conn_ref = 500 + below(3);
        of.id = of.client->connect(of.conn_ref);
        EXPECT_EQ(of.id, next_id++);
    }

    /* An indication that this client must get now. */
    void expect_indication(life &of, uint32_t port, uint32_t kind)
    {
        const testkit::message received = of.client->receive();
        ASSERT_EQ(received.number(), kinds[kind].indication);
        EXPECT_EQ(received.word(4), of.procedure_ref);
        EXPECT_EQ(received.word(8), of.conn_ref);
        EXPECT_EQ(received.word(12), port);
        EXPECT_EQ(received.word(16),
                  kind == TESK_SUBSCRIPTION_PORT_STATUS ? 1u + up[port] : 2u * ready[port]);
        note(port, of, kinds[kind].indicated);
    }

    void change(life &of, uint32_t port, uint32_t kind, bool subscribes)
    {
        const bool is_held = of.held.count({port, kind}) != 0;
        const char *refusal = !subscribes           ? is_held ? nullptr : "client is not subscribed"
                              : port == absent_port ? "invalid port"
                              : is_held             ? "already subscribed"
                                                    : nullptr;
        const kind_numbers &numbers = kinds[kind];
        const uint32_t number = subscribes ? numbers.subscribe : numbers.unsubscribe;
        const testkit::message answer = ask(of, number, port);
        ASSERT_EQ(answer.number(), number + (refusal == nullptr ? 1 : 2));
        if (refusal != nullptr) {
            EXPECT_EQ(answer.text(20), refusal);
            return;
        }
        of.procedure_ref = next_procedure;
        note(port, of, subscribes ? numbers.subscribed : numbers.unsubscribed);
        if (subscribes) {
            of.held.insert({port, kind});
            expect_indication(of, port, kind);
        } else {
            of.held.erase({port, kind});
            forget_empty_filters();
        }
    }

    /* The subscribers, newest first. */
    std::vector<life *> holders(uint32_t port, uint32_t kind)
    {
        std::vector<life *> found;
        for (life &of : all)
            if (of.held.count({port, kind}) != 0)
                found.push_back(&of);
        std::sort(found.begin(), found.end(), [](auto *a, auto *b) { return a->id > b->id; });
        return found;
    }

    /* A port without a subscriber has no filter: its next one starts empty. */
    void forget_empty_filters()
    {
        for (uint32_t port = 0; port < ports; port++)
            if (holders(port, TESK_SUBSCRIPTION_PORT_STATUS).empty())
                downs[port] = 0;
    }

    void compare_board()
    {
        for (uint32_t port = 0; port < ports; port++) {
            const auto shown = testkit::board("show " + std::to_string(port));
            for (uint32_t kind : {1u, 2u})
                EXPECT_EQ(shown.at(kinds[kind].field), holders(port, kind).empty() ? "0" : "1");
        }
    }

    void end(life &of)
    {
        const bool in_the_middle = below(3) == 0;
        if (in_the_middle) {
            const uint32_t number = kinds[1 + below(2)].subscribe;
            of.client->send(number, request_words(of, number, below(ports)));
        }
        of.client->kill();
        of.client.reset();
        of.held.clear();
        forget_empty_filters();
        testkit::await_line(traces, "Removing clients data: " + std::to_string(of.id), seen);
        compare_board();
        if (!in_the_middle)
            return;
        /* Whether the last request was handled is open, but nothing else may have been written. */
        const std::deque<action> now = read_history();
        const auto is_its = [&](const action &a) { return a[1] == of.id; };
        EXPECT_LE(std::count_if(now.begin(), now.end(), is_its),
                  std::count_if(history.begin(), history.end(), is_its) + 2);
        history = now;
    }

    /* Newest first, as far as a test of separate processes can tell: by the history. */
    void tell(uint32_t port, uint32_t kind)
    {
        for (life *of : holders(port, kind))
            expect_indication(*of, port, kind);
    }

    void flip_link(uint32_t port)
    {
        if (holders(port, TESK_SUBSCRIPTION_PORT_STATUS).empty() || (up[port] && downs[port] == 2))
            return; /* another test checks the filter */
        up[port] = !up[port];
        downs[port] += up[port] ? 0 : 1;
        testkit::board("set " + std::to_string(port) + (up[port] ? " link=up" : " link=down"));
        tell(port, TESK_SUBSCRIPTION_PORT_STATUS);
    }

    void change_module(uint32_t port)
    {
        if (holders(port, TESK_SUBSCRIPTION_SFP_INFO).empty())
            return;
        ready[port] = !ready[port];
        testkit::board("set " + std::to_string(port) +
                       (ready[port] ? " inserted=yes ready=yes" : " inserted=no ready=no"));
        tell(port, TESK_SUBSCRIPTION_SFP_INFO);
        tell(port, TESK_SUBSCRIPTION_PORT_STATUS);
    }

    void live(life &of)
    {
        const uint32_t kind = 1 + below(2), port = below(20) == 0 ? absent_port : below(ports);
        const uint32_t deed = below(10), number = TESK_GET_PM_COUNTERS_REQ;
        if (deed == 0)
            end(of);
        else if (deed == 3 && port != absent_port)
            EXPECT_EQ(ask(of, number, port).number(), number + (ready[port] ? 1 : 2));
        else if (deed == 4)
            flip_link(below(ports));
        else if (deed == 5)
            change_module(below(ports));
        else
            change(of, port, kind, deed > 2);
    }
};

TEST_F(lives, clients_answers_indications_and_history_are_as_the_model_predicts)
{
    for (uint32_t port = 0; port < ports; port++)
        testkit::board("set " + std::to_string(port) +
                       " link=up inserted=yes ready=yes readable=yes connector=lc");
    for (int step = 0; next_id < lives_at_least && !HasFailure(); step++) {
        life &of = all[below(clients)];
        of.client == nullptr ? begin(of) : live(of);
        EXPECT_TRUE(step % 16 != 0 || read_history() == history) << step;
    }
    for (life &of : all)
        if (of.client != nullptr)
            end(of);
    EXPECT_EQ(testkit::board("board").at("subscribed_port"), "0");
    EXPECT_EQ(testkit::board("board").at("subscribed_link"), "0");
    EXPECT_EQ(server.stop(), 0);
}
