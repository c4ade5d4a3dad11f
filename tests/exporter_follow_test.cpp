/* SPDX-License-Identifier: Apache-2.0 */
/* The threads of tesk-exporter that have a session, with a client library of this test. Its server
   fails once, at each request in turn and in each way: the model must soon be right, and stay
   right. */
#include "tesk_exporter/collector.h"
#include "tesk_exporter/model.h"
#include "tesk_exporter/refresher.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace exporter;

namespace
{
enum class fault { none, no_call, late, unheard, refused, lost };
} // namespace

struct tesk_client_session {
    tesk_client_options options{};
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::set<std::pair<uint32_t, uint32_t>> held{}; /* at the server: kind and port */
    std::deque<std::function<void()>> due{};
    bool is_lost = false;
};

/* The server. */
static std::mutex guard;
static std::set<uint32_t> map_ports;
static tesk_client_session *follower; /* the session whose subscriptions are compared */
static unsigned calls, faulty_call;
static fault way;
static std::atomic<uint32_t> link_now, temperature_now;
static bool is_map_broken;
static constexpr uint32_t empty_port = 8, refused_port = 9; /* if the port map has them */
static std::map<std::pair<tesk_client_request_type, uint32_t>, unsigned> asked; /* type and port */

static void indicate(tesk_client_session &session, uint32_t kind, uint32_t port_no)
{
    if (kind == TESK_CLIENT_SFP_INFO) {
        tesk_client_sfp_info info{};
        info.port_no = port_no;
        info.type = port_no == empty_port ? TESK_CLIENT_SFP_NOT_PRESENT : TESK_CLIENT_SFP_OPTICAL;
        session.due.push_back([&session, info] {
            if (session.options.on_sfp_info)
                session.options.on_sfp_info(&info, session.options.user);
        });
    } else {
        tesk_client_port_status status{};
        status.port_no = port_no;
        status.link = link_now;
        session.due.push_back(
            [&session, status] { session.options.on_port_status(&status, session.options.user); });
    }
    eventfd_write(session.fd, 1);
}

/* The server's part for a request, in the order of tesk_client_request_type. True if an indication
   follows. */
static bool serve(tesk_client_session &session, tesk_client_answer &answer)
{
    const bool begins = answer.request % 2 == 0;
    const std::pair<uint32_t, uint32_t> key{answer.request / 2, answer.port_no};
    if (answer.request >= TESK_CLIENT_REQUEST_PM)
        return false;
    if (answer.port_no == refused_port) {
        answer.result = TESK_CLIENT_REJECTED;
        return false;
    }
    if (begins ? session.held.insert(key).second : session.held.erase(key) > 0)
        return begins;
    answer.result = TESK_CLIENT_REJECTED;
    answer.rejection =
        begins ? TESK_CLIENT_REJECTION_SUBSCRIBED : TESK_CLIENT_REJECTION_NOT_SUBSCRIBED;
    return false;
}

tesk_client_result tesk_client_connect(const tesk_client_options *options,
                                       tesk_client_session **session)
{
    const std::lock_guard lock(guard);
    *session = new tesk_client_session{*options};
    follower = options->on_sfp_info ? *session : follower;
    return TESK_CLIENT_OK;
}

void tesk_client_close(tesk_client_session *session)
{
    const std::lock_guard lock(guard);
    follower = session == follower ? nullptr : follower;
    close(session->fd);
    delete session;
}

int tesk_client_fd(const tesk_client_session *session)
{
    return session->fd;
}

tesk_client_result tesk_client_dispatch(tesk_client_session *session)
{
    eventfd_t count = 0;
    eventfd_read(session->fd, &count);
    for (;;) {
        std::function<void()> next;
        {
            const std::lock_guard lock(guard);
            if (session->due.empty())
                return session->is_lost ? TESK_CLIENT_LOST : TESK_CLIENT_OK;
            next = std::move(session->due.front());
            session->due.pop_front();
        }
        next();
    }
}

tesk_client_result tesk_client_run(tesk_client_session *session, int)
{
    return tesk_client_dispatch(session);
}

void tesk_client_stop(tesk_client_session *)
{
}

tesk_client_result tesk_client_request(tesk_client_session *session, tesk_client_request_type type,
                                       uint32_t port_no, tesk_client_answered answered, void *user)
{
    const std::lock_guard lock(guard);
    const fault here = ++calls == faulty_call ? way : fault::none;
    asked[{type, port_no}]++;
    if (session->is_lost || here == fault::no_call)
        return TESK_CLIENT_FAILED;
    tesk_client_answer answer{};
    answer.request = type;
    answer.port_no = port_no;
    answer.text = "no";
    const bool is_heard = here == fault::none || here == fault::late;
    const bool indicates = is_heard && serve(*session, answer) && here == fault::none;
    if (here == fault::late || here == fault::unheard)
        answer.result = TESK_CLIENT_TIMEOUT;
    if (here == fault::refused)
        answer.result = TESK_CLIENT_REJECTED;
    if (here == fault::lost)
        answer.result = TESK_CLIENT_LOST;
    session->is_lost = here == fault::lost;
    session->due.push_back([answered, user, answer]() mutable {
        tesk_client_pm pm{};
        pm.port_no = answer.port_no;
        pm.has_temperature = true;
        pm.temperature = static_cast<int32_t>(temperature_now);
        if (answer.request == TESK_CLIENT_REQUEST_PM && answer.result == TESK_CLIENT_OK)
            answer.pm = &pm;
        answered(&answer, user);
    });
    if (indicates)
        indicate(*session, type / 2, port_no);
    eventfd_write(session->fd, 1);
    return TESK_CLIENT_OK;
}

tesk_client_result tesk_client_subscribe(tesk_client_session *session, tesk_client_kind kind,
                                         uint32_t port_no)
{
    const std::lock_guard lock(guard);
    const fault here = ++calls == faulty_call ? way : fault::none;
    if (here == fault::none || here == fault::late)
        indicate(*session, kind, port_no);
    return here == fault::none ? TESK_CLIENT_OK : TESK_CLIENT_TIMEOUT;
}

tesk_client_result tesk_client_read_port_map(const char *, tesk_client_port_named each, void *user)
{
    const std::lock_guard lock(guard);
    if (std::exchange(is_map_broken, false))
        return TESK_CLIENT_BAD_PORT_MAP;
    for (const uint32_t port_no : map_ports)
        each(port_no, "eth", user);
    return TESK_CLIENT_OK;
}

const char *tesk_client_error(void)
{
    return "";
}

/* Changes all ports at the server, reports the changes that are subscribed, and waits until the
   model shows them and the server has the right subscriptions. */
static bool is_followed(fact_queue &facts, model &board, const std::set<uint32_t> &ports)
{
    {
        const std::lock_guard lock(guard);
        is_map_broken = ports == map_ports;
        map_ports = ports;
        link_now = link_now == 2 ? 1 : 2;
        temperature_now = temperature_now + 1;
        for (const auto &[kind, port_no] : follower ? follower->held : decltype(follower->held){})
            indicate(*follower, kind, port_no);
    }
    const auto is_right = [&] {
        const std::lock_guard lock(guard);
        return board.is_ready() && board.ports().size() == ports.size() && follower &&
               follower->held.size() == 2 * ports.size() &&
               std::ranges::all_of(board.ports(), [](const auto &entry) {
                   const port_state &port = entry.second;
                   return has_module(port) && port.status && port.status->link == link_now &&
                          port.reading &&
                          port.reading->temperature == static_cast<int32_t>(temperature_now);
               });
    };
    const auto end = steady_clock::now() + testkit::deadline;
    while (!is_right() && steady_clock::now() < end) {
        pollfd polled{facts.fd(), POLLIN, 0};
        poll(&polled, 1, 20);
        for (const fact &reported : facts.take())
            board.apply(reported, {steady_clock::now(), 1});
    }
    return is_right();
}

TEST(exporter_follow, a_request_that_fails_once_leaves_neither_a_silence_nor_an_old_value)
{
    for (const fault each :
         {fault::no_call, fault::late, fault::unheard, fault::refused, fault::lost})
        for (unsigned at = 1; at <= 24; at++) {
            SCOPED_TRACE("fault " + std::to_string(static_cast<int>(each)) + ", request " +
                         std::to_string(at));
            calls = 0;
            way = each;
            faulty_call = at;
            map_ports = {0, 1};
            event_ring events(64, "e");
            model board(events);
            fact_queue facts;
            collector followed({std::nullopt, std::chrono::milliseconds(5)}, facts);
            for (const auto &ports : {std::set<uint32_t>{0, 1}, {0, 1}, {0}, {0, 1}})
                EXPECT_TRUE(is_followed(facts, board, ports)) << ports.size();
            facts.close();
            followed.stop();
        }
}

TEST(exporter_follow, a_refresh_that_fails_once_is_made_anew)
{
    for (const fault each : {fault::late, fault::unheard}) {
        calls = 0;
        way = each;
        faulty_call = 1;
        fact_queue facts;
        refresher graded(facts);
        for (const bool succeeds : {false, true}) {
            link_now = succeeds ? 2 : 1;
            graded.request(0);
            testkit::await(facts.fd(), "the grades");
            const auto got = std::get<grades_fact>(facts.take().at(0));
            EXPECT_EQ(got.succeeded, succeeds);
            EXPECT_TRUE(!succeeds || got.status.link == 2);
        }
        facts.close();
        graded.stop();
    }
}

TEST(exporter_follow, ports_that_are_empty_or_refused_are_asked_rarely)
{
    way = fault::none;
    map_ports = {0, empty_port, refused_port};
    asked.clear();
    fact_queue facts;
    collector followed({std::nullopt, std::chrono::milliseconds(1)}, facts);
    const auto count = [](tesk_client_request_type type, uint32_t port_no) {
        const std::lock_guard lock(guard);
        return asked[{type, port_no}];
    };
    const auto end = steady_clock::now() + testkit::deadline;
    while (count(TESK_CLIENT_REQUEST_PM, 0) < 200 && steady_clock::now() < end) {
        pollfd polled{facts.fd(), POLLIN, 0};
        poll(&polled, 1, 20);
        facts.take();
    }
    facts.close();
    followed.stop();
    const unsigned rounds = count(TESK_CLIENT_REQUEST_PM, 0);
    EXPECT_GE(rounds, 200U);
    EXPECT_GE(count(TESK_CLIENT_REQUEST_PM, empty_port), rounds / 40) << "it may be ready by now";
    EXPECT_LE(count(TESK_CLIENT_REQUEST_PM, empty_port), rounds / 8);
    EXPECT_LE(count(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, refused_port), rounds / 8);
}
