/* A few hundred random client lives against the real server. A model says what each answer, each
   indication, the board's subscriptions and the history must be. */
#include "system.h"

#include "tesk_cache.h"
#include "tesk_client_data.h"
#include "tesk_signals.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>

using subscription = std::pair<uint32_t, uint32_t>; /* port, kind */
using action = std::array<uint32_t, 4>;             /* port, client_id, conn_ref, action */

static constexpr uint32_t ports = 4, absent_port = 40, clients = 5;
static constexpr int lives_at_least = 300;

struct kind_numbers {
    uint32_t subscribe, unsubscribe, indication, subscribed, unsubscribed, told;
    const char *field;
};
static constexpr kind_numbers kinds[] = {
    {},
    {TESK_SUBSCRIBE_SFP_INFO_REQ, TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_SFP_INFO_IND,
     TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE, TESK_CACHE_ACTION_SFP_INFO_UNSUBSCRIBE,
     TESK_CACHE_ACTION_SFP_INFO_IND, "subscribed_port"},
    {TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_UNSUBSCRIBE_PORT_STATUS_REQ, TESK_PORT_STATUS_IND,
     TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE, TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE,
     TESK_CACHE_ACTION_PORT_STATUS_IND, "subscribed_link"},
};

struct life {
    std::unique_ptr<rig::puppet> client;
    uint32_t id = 0, conn_ref = 0, procedure_ref = 0;
    std::set<subscription> held;
};

class lives : public testing::Test
{
  protected:
    rig::directory directory;
    const std::string traces = directory.path + "/traces";
    rig::server server{{"ZEL_SINK=file:" + traces, "ZEL_GROUPS=12", "ZEL_FILE_SIZE=67108864"}};
    size_t seen = 0;
    rig::puppet stranger;
    std::mt19937 random{20};
    std::vector<life> all{clients};
    std::deque<action> history;
    uint32_t next_id = 0, next_procedure = 0;
    int begun = 0;
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
        const rig::message answer = stranger.receive();
        std::deque<action> read;
        for (uint32_t index = 0; index < answer.host_word(4); index++) {
            const size_t at = 8 + 24 * index;
            read.push_back({answer.host_word(at), answer.host_word(at + 4),
                            answer.host_word(at + 8), answer.host_word(at + 12)});
        }
        return read;
    }

    std::vector<uint32_t> request_words(const life &of, uint32_t number, uint32_t port)
    {
        std::vector<uint32_t> words = {++next_procedure, of.id, port};
        if (number == TESK_SUBSCRIBE_PORT_STATUS_REQ)
            words.push_back(0);
        return words;
    }

    void begin(life &of)
    {
        of.client = std::make_unique<rig::puppet>();
        of.conn_ref = 500 + below(3);
        of.id = of.client->connect(of.conn_ref);
        EXPECT_EQ(of.id, next_id++);
        begun++;
    }

    /* An indication that this client must get now. */
    void expect_indication(life &of, uint32_t port, uint32_t kind)
    {
        const rig::message told = of.client->receive();
        ASSERT_EQ(told.number(), kinds[kind].indication);
        EXPECT_EQ(told.word(4), of.procedure_ref);
        EXPECT_EQ(told.word(8), of.conn_ref);
        EXPECT_EQ(told.word(12), port);
        if (kind == TESK_SUBSCRIPTION_PORT_STATUS) {
            EXPECT_EQ(told.word(16), up[port] ? 2u : 1u);
        } else {
            EXPECT_EQ(told.word(16), ready[port] ? 2u : 0u);
        }
        note(port, of, kinds[kind].told);
    }

    void subscribe(life &of, uint32_t port, uint32_t kind)
    {
        const uint32_t number = kinds[kind].subscribe;
        const rig::message answer = of.client->ask(number, request_words(of, number, port));
        EXPECT_EQ(answer.word(4), next_procedure);
        if (port == absent_port || of.held.count({port, kind}) != 0) {
            ASSERT_EQ(answer.number(), number + 2);
            EXPECT_EQ(answer.text(20), port == absent_port ? "invalid port" : "already subscribed");
            return;
        }
        ASSERT_EQ(answer.number(), number + 1);
        of.procedure_ref = next_procedure;
        of.held.insert({port, kind});
        note(port, of, kinds[kind].subscribed);
        expect_indication(of, port, kind);
    }

    void unsubscribe(life &of, uint32_t port, uint32_t kind)
    {
        const uint32_t number = kinds[kind].unsubscribe;
        const rig::message answer = of.client->ask(number, request_words(of, number, port));
        if (of.held.erase({port, kind}) == 0) {
            ASSERT_EQ(answer.number(), number + 2);
            EXPECT_EQ(answer.text(20), "client is not subscribed");
            return;
        }
        ASSERT_EQ(answer.number(), number + 1);
        of.procedure_ref = next_procedure;
        note(port, of, kinds[kind].unsubscribed);
        forget_empty_filters();
    }

    bool is_held(uint32_t port, uint32_t kind)
    {
        return std::any_of(all.begin(), all.end(), [&](const life &of) {
            return of.held.count({port, kind}) != 0;
        });
    }

    /* A port without a subscriber has no filter: its next one starts empty. */
    void forget_empty_filters()
    {
        for (uint32_t port = 0; port < ports; port++)
            if (!is_held(port, TESK_SUBSCRIPTION_PORT_STATUS))
                downs[port] = 0;
    }

    void compare_board()
    {
        for (uint32_t port = 0; port < ports; port++) {
            const auto shown = rig::board("show " + std::to_string(port));
            for (uint32_t kind : {TESK_SUBSCRIPTION_SFP_INFO, TESK_SUBSCRIPTION_PORT_STATUS})
                EXPECT_EQ(shown.at(kinds[kind].field), is_held(port, kind) ? "1" : "0");
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
        rig::await_line(traces, "Removing clients data: " + std::to_string(of.id), seen);
        compare_board();
        if (!in_the_middle)
            return;
        /* Whether the last request was handled is open, but nothing else may have been written. */
        const std::deque<action> now = read_history();
        const auto added =
            std::count_if(now.begin(), now.end(), [&](const action &a) { return a[1] == of.id; }) -
            std::count_if(history.begin(), history.end(),
                          [&](const action &a) { return a[1] == of.id; });
        EXPECT_TRUE(added <= 2);
        history = now;
    }

    void measure(life &of, uint32_t port)
    {
        const rig::message answer =
            of.client->ask(TESK_GET_PM_COUNTERS_REQ, request_words(of, 0, port));
        EXPECT_EQ(answer.word(4), next_procedure);
        EXPECT_EQ(answer.number(), ready[port] ? uint32_t{TESK_GET_PM_COUNTERS_CFM}
                                               : uint32_t{TESK_GET_PM_COUNTERS_REJ});
    }

    /* Newest first, as far as a test of separate processes can tell: by the history. */
    void tell(uint32_t port, uint32_t kind)
    {
        std::vector<life *> told;
        for (life &of : all)
            if (of.held.count({port, kind}) != 0)
                told.push_back(&of);
        std::sort(told.begin(), told.end(), [](auto *a, auto *b) { return a->id > b->id; });
        for (life *of : told)
            expect_indication(*of, port, kind);
    }

    void flip_link(uint32_t port)
    {
        if (!is_held(port, TESK_SUBSCRIPTION_PORT_STATUS) || (up[port] && downs[port] == 2))
            return; /* the filter is another test's */
        up[port] = !up[port];
        downs[port] += up[port] ? 0 : 1;
        rig::board("set " + std::to_string(port) + (up[port] ? " link=up" : " link=down"));
        tell(port, TESK_SUBSCRIPTION_PORT_STATUS);
    }

    void change_module(uint32_t port)
    {
        if (!is_held(port, TESK_SUBSCRIPTION_SFP_INFO))
            return;
        ready[port] = !ready[port];
        rig::board("set " + std::to_string(port) +
                   (ready[port] ? " inserted=yes ready=yes" : " inserted=no ready=no"));
        tell(port, TESK_SUBSCRIPTION_SFP_INFO);
        tell(port, TESK_SUBSCRIPTION_PORT_STATUS);
    }

    void live(life &of)
    {
        const uint32_t kind = 1 + below(2);
        const uint32_t port = below(20) == 0 ? absent_port : below(ports);
        switch (below(10)) {
        case 0:
            return end(of);
        case 1:
        case 2:
            return unsubscribe(of, port, kind);
        case 3:
            return measure(of, below(ports));
        case 4:
            return flip_link(below(ports));
        case 5:
            return change_module(below(ports));
        default:
            return subscribe(of, port, kind);
        }
    }
};

TEST_F(lives, leave_everything_as_it_must_be)
{
    for (uint32_t port = 0; port < ports; port++)
        rig::board("set " + std::to_string(port) +
                   " link=up inserted=yes ready=yes readable=yes connector=lc");
    for (int step = 0; begun < lives_at_least && !HasFailure(); step++) {
        life &of = all[below(clients)];
        of.client == nullptr ? begin(of) : live(of);
        if (step % 16 == 0) {
            EXPECT_EQ(read_history(), history);
        }
    }
    for (life &of : all)
        if (of.client != nullptr)
            end(of);
    const auto left = rig::board("board");
    EXPECT_EQ(left.at("subscribed_port"), "0");
    EXPECT_EQ(left.at("subscribed_link"), "0");
    EXPECT_EQ(server.stop(), 0);
}
