/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_instructions - the instructions of libmbx in user space for a signal, counted by callgrind: a
   server's mailbox, and clients in processes of their own that answer each signal with one, so that
   the order is the same each time. Prints, as JSON, how often each case ran; callgrind writes one
   profile for each. */
#include "benchmarks/harness.h"
#include "platform/mbx/mbx.h"

#include <csignal>
#include <functional>
#include <poll.h>
#include <unistd.h>
#include <valgrind/callgrind.h>
#include <vector>

using namespace bench;

static constexpr uint32_t times = 200;
static constexpr char name[] = "instructions";

static std::string results;
static std::vector<uint32_t> clients;

static void send(uint32_t receiver)
{
    mbx_signal *signal = mbx_alloc(event_size, 1);
    mbx_send(&signal, receiver, MBX_OWN_MAILBOX);
}

namespace
{

struct received {
    uint32_t number;
    uint32_t sender;
};

} // namespace

/* Receives as a server does: any signal, once the descriptor is readable. */
static received receive()
{
    pollfd wanted = {mbx_get_fd(), POLLIN, 0};
    while (poll(&wanted, 1, -1) != 1) {
    }
    mbx_signal *signal = mbx_receive(nullptr, -1, MBX_ANY_SENDER);
    const received result = {signal->number, mbx_sender(signal)};
    mbx_free(&signal);
    return result;
}

[[noreturn]] static void be_a_client()
{
    if (mbx_init(5, 0, 0, 0, 0) != 0 || mbx_create_mailbox(nullptr, 0) == MBX_NO_MAILBOX)
        _exit(1);
    const uint32_t server = mbx_locate(name);
    mbx_monitor(server, nullptr);
    do
        send(server);
    while (receive().number != MBX_MONITOR_DEFAULT_NO);
    _exit(0);
}

static void add_client()
{
    if (need(fork(), "fork") == 0)
        be_a_client();
    clients.push_back(receive().sender);
}

static void count(const char *what, const std::function<void()> &run)
{
    run(); /* includes work that is done once only */
    CALLGRIND_ZERO_STATS;
    for (uint32_t index = 0; index < times; index++)
        run();
    CALLGRIND_DUMP_STATS_AT(what);
    results += (results.empty() ? "{" : ",\n ") + ("\"" + std::string(what)) +
               "\": {\"times\": " + std::to_string(times) + "}";
}

static void exchange_with_each()
{
    for (const uint32_t client : clients)
        send(client);
    for (size_t answers = 0; answers < clients.size(); answers++)
        receive();
}

static int run(std::span<char *>)
{
    if (mbx_init(5, 0, 0, 0, 0) != 0)
        fail("no mailbox library");
    const uint32_t own = mbx_create_mailbox(name, 0);
    if (own == MBX_NO_MAILBOX)
        fail("no mailbox");
    count("a signal to oneself and its reception", [own] { send(own), receive(); });
    add_client();
    count("a signal to the only client and its answer", exchange_with_each);
    for (int more = 1; more < 10; more++)
        add_client();
    count("a signal to each of 10 clients and their answers", exchange_with_each);
    puts((results + "}").c_str());
    mbx_exit();
    return 0;
}

int main(int count, char **words)
{
    return report_failures(run, count, words);
}
