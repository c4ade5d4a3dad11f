/* SPDX-License-Identifier: Apache-2.0 */
/* instructions - the server's procedures one by one, on the fake platform, for callgrind to count
   the instructions of the server's own modules. The order is the same each time, so the counts
   repeat to the instruction.

   Prints, as JSON, how often each procedure ran and how many traces it passed; the argument
   "traces" enables the groups, without which no trace is counted. Callgrind writes one profile for
   each procedure, triggered by its name. */
#include "tesk_server/tesk_event_queue.h"
#include "tesk_server/tesk_main.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/fake_platform/fake_platform.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sched.h>
#include <string>
#include <valgrind/callgrind.h>

static constexpr uint32_t times = 100;
static constexpr uint32_t many = 1000; /* clients, and ports */
static constexpr uint32_t first_mailbox = 0x1000;

static std::string results;

static uint32_t mailbox_of(uint32_t client)
{
    return first_mailbox + client;
}

/* The n-th client to connect has the number n. */
static void send(uint32_t client, uint32_t number, const std::vector<uint32_t> &words)
{
    fake_platform::deliver(mailbox_of(client), number, words);
    tesk_handle_mailbox();
    fake_platform::sent.clear();
}

static void connect(uint32_t client)
{
    send(client, TESK_CONN_ESTABLISH_REQ, {0, 0, 1, 1});
}

static void lose(uint32_t client)
{
    fake_platform::deliver_host(mailbox_of(client), MBX_MONITOR_DEFAULT_NO, {});
    tesk_handle_mailbox();
}

static void ask(uint32_t client, uint32_t number, uint32_t port)
{
    send(client, number, {0, client, port, 0});
}

static void raise_link_event(uint32_t port, uint32_t state)
{
    const int freed = fake_platform::freed_events();
    dolm_ric_event event = {};
    event.type = DOLM_RICEVT_RILINKSTATUS;
    event.link_status.id = 0x00020000 | port;
    event.link_status.state = state;
    fake_platform::raise_event(event);
    while (fake_platform::freed_events() == freed)
        sched_yield();
    fake_platform::await_event_thread();
    tesk_handle_queued_events();
    fake_platform::sent.clear();
}

static void tick(uint32_t port)
{
    const auto bucket = static_cast<uint32_t>(tesk_portsub_get_bucket_id(port));
    fake_platform::deliver_host(fake_platform::own_mailbox, TESK_PORT_STATUS_FILTER_TICK,
                                {bucket, port});
    tesk_handle_mailbox();
}

static long count_traces()
{
    const auto log = fake_platform::take_log();
    return std::count_if(log.begin(), log.end(),
                         [](const std::string &line) { return line.starts_with('['); });
}

/* Calls `run` with 0, 1, ... and dumps a profile of it. */
static void count(const char *name, const std::function<void(uint32_t)> &run)
{
    fake_platform::take_log();
    CALLGRIND_ZERO_STATS;
    for (uint32_t index = 0; index < times; index++)
        run(index);
    CALLGRIND_DUMP_STATS_AT(name);
    results += results.empty() ? "{" : ",\n ";
    results += "\"" + std::string(name) + "\": {\"times\": " + std::to_string(times) +
               ", \"traces\": " + std::to_string(count_traces()) + "}";
}

static void count_for(const char *name, uint32_t client, uint32_t number, uint32_t first_port = 0)
{
    count(name, [=](uint32_t index) { ask(client, number, first_port + index); });
}

static void hold_ports(uint32_t client, uint32_t first, uint32_t last)
{
    for (uint32_t port = first; port < last; port++) {
        ask(client, TESK_SUBSCRIBE_SFP_INFO_REQ, port);
        ask(client, TESK_SUBSCRIBE_PORT_STATUS_REQ, port);
    }
}

static void drop_ports(uint32_t client, uint32_t first, uint32_t last)
{
    for (uint32_t port = first; port < last; port++) {
        ask(client, TESK_UNSUBSCRIBE_SFP_INFO_REQ, port);
        ask(client, TESK_UNSUBSCRIBE_PORT_STATUS_REQ, port);
    }
}

static void count_link_events(const char *name)
{
    count(name, [](uint32_t port) { raise_link_event(port, DOLM_RICRILINKSTATE_NOOPERATION); });
}

static void count_single_client(uint32_t alice)
{
    connect(alice);
    count_for("get capabilities", alice, TESK_GET_CAPABILITIES_REQ);
    count_for("get PM counters", alice, TESK_GET_PM_COUNTERS_REQ);
    count_for("subscribe to SFP info", alice, TESK_SUBSCRIBE_SFP_INFO_REQ);
    count_for("subscribe to port status", alice, TESK_SUBSCRIBE_PORT_STATUS_REQ);
    count_link_events("link event, 1 subscriber");
    count("filter tick", tick);
    count_for("unsubscribe from port status", alice, TESK_UNSUBSCRIBE_PORT_STATUS_REQ);
    count_for("unsubscribe from SFP info", alice, TESK_UNSUBSCRIBE_SFP_INFO_REQ);
}

static void count_fan_out(uint32_t alice)
{
    for (uint32_t client = 1; client <= 100; client++) {
        connect(alice + client);
        hold_ports(alice + client, 0, times);
    }
    count_link_events("link event, 100 subscribers");
    for (uint32_t client = 1; client <= 100; client++)
        drop_ports(alice + client, 0, times);
}

static void count_many_clients(uint32_t alice)
{
    for (uint32_t client = 101; client < many; client++)
        connect(alice + client);
    hold_ports(alice, times, many + times);
    for (uint32_t client = 1; client < many; client++)
        hold_ports(alice + client, times + client % (many - 10), times + client % (many - 10) + 10);
    count_for("get capabilities, 1000 clients", alice, TESK_GET_CAPABILITIES_REQ);
    count_for("subscribe to SFP info, 1000 clients and ports", alice, TESK_SUBSCRIBE_SFP_INFO_REQ);
    count_for("subscribe to port status, 1000 clients and ports", alice,
              TESK_SUBSCRIBE_PORT_STATUS_REQ);
    count_link_events("link event, 1 subscriber, 1000 clients and ports");
    count_for("unsubscribe from port status, 1000 clients and ports", alice,
              TESK_UNSUBSCRIBE_PORT_STATUS_REQ);
    count_for("unsubscribe from SFP info, 1000 clients and ports", alice,
              TESK_UNSUBSCRIBE_SFP_INFO_REQ);
    count("lose a client, 20 subscriptions, 1000 clients and ports",
          [=](uint32_t index) { lose(alice + many - 1 - index); });
}

/* A client's number gives its mailbox: the numbers of clients that have ended are skipped. */
static void count_all()
{
    count("establish a connection", connect);
    count("lose a client", [](uint32_t index) { lose(times - 1 - index); });
    const uint32_t alice = times;
    count_single_client(alice);
    count_fan_out(alice);
    count_many_clients(alice);
}

int main(int, char **words)
{
    if (words[1] != nullptr && std::string_view(words[1]) == "traces")
        fake_platform::reset({1, 4, 12, 13, 17, 18});
    else
        fake_platform::reset();
    for (uint32_t port = 0; port < many + times; port++)
        fake_platform::ports[port] = {
            .status = DOLM_RICRIPORT_STARTED | DOLM_RICRIPORT_MODINSERTED | DOLM_RICRIPORT_MODREADY,
            .link_state = DOLM_RICRILINKSTATE_OPERATIONAL,
            .speed = 0x0040,
            .module = {},
            .module_status = {},
            .diag = {}};
    if (tesk_server_init() != 0)
        return 1;
    fake_platform::await_event_thread();
    count_all();
    std::puts((results + "}").c_str());
    tesk_server_shutdown();
    return 0;
}
