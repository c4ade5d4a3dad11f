/* SPDX-License-Identifier: Apache-2.0 */
/* Sends signals, hardware events and ticks through the server's dispatch. The input decides which
   board operations and allocations fail. After every step, the server's subscription counts are
   compared with the board's subscriptions and with the expected state kept here, and a confirmed
   change of a subscription with the history. At the end of an
   input, every subscription is removed. The block of a signal ends with its last byte, so that the
   sanitizer detects a read past it. */
#include "platform/zel/zel.h"
#include "tesk_server/leaky_bucket.h"
#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_event_queue.h"
#include "tesk_server/tesk_main.h"
/* Included for its subscription counts, which are static. */
#include "tesk_server/tesk_portsub.cpp" // NOLINT(bugprone-suspicious-include)
#include "tesk_server/tesk_signals.h"
#include "testkit/fake_platform/fake_platform.h"
#include "tests/fuzz/fuzz_input.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <set>
#include <utility>

struct subscription_kind {
    uint32_t kind;
    uint32_t (*count)(uint32_t port_no);
    int32_t (*remove)(uint32_t port_no);
    const char *subscribe;
    const char *unsubscribe;
};

/* The expected state of one kind of subscription to a port. */
struct expected_state {
    bool held = false;
    unsigned orphans = 0; /* counts of removed clients: the board refused to unsubscribe */
    bool stray = false;   /* subscribed without a count: a refusal when a bucket had no memory */
    int32_t bucket_id = 0;
};

template <auto find>
static uint32_t count_of(uint32_t port_no)
{
    const auto *record = find(port_no);
    assert(record == nullptr || record->subscribers > 0);
    return record == nullptr ? 0 : record->subscribers;
}

static constexpr int kind_count = 2;
static const subscription_kind kinds[kind_count] = {
    {tesk_subscription_sfp_info, count_of<find_sfp_info>, tesk_portsub_remove_sfp_info, "subsport",
     "unsubsport"},
    {tesk_subscription_port_status, count_of<find_port_status>, tesk_portsub_remove_port_status,
     "subslink", "unsubslink"}};

static constexpr uint32_t port_numbers[] = {0, 1, 2, 17, 65534, 65535};
static constexpr uint32_t senders[] = {0x201, 0x202, 0x203, 0x7fffffff, fake_platform::own_mailbox};

static std::map<uint32_t, expected_state[kind_count]> expected;
static std::vector<std::pair<uint32_t, int>> refused; /* refused in this step: port and kind */
static std::set<int32_t> tainted;      /* buckets that may have several pending ticks */
static bool memory_ends;               /* the next allocation of a bucket fails */
static std::vector<uint32_t> monitors; /* mailboxes that are monitored */

static void on_operation(const char *operation, uint32_t port_no, int32_t code)
{
    for (int index = 0; index < kind_count; index++) {
        expected_state &entry = expected[port_no][index];
        const bool subscribes = strcmp(operation, kinds[index].subscribe) == 0;
        if ((!subscribes && strcmp(operation, kinds[index].unsubscribe) != 0) ||
            (subscribes && code != 0))
            continue;
        assert(subscribes ? !entry.held || entry.stray : entry.held);
        entry.held = subscribes || code != 0;
        entry.stray = false;
        if (code != 0)
            refused.emplace_back(port_no, index);
        else if (!subscribes) /* a new bucket may get the old one's id while a tick is pending */
            tainted.insert(entry.bucket_id);
    }
}

/* The index of a subscription in the client's array, or -1. Searched without the server's index,
   whose result must be the same. */
static int32_t place_in(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    int32_t place = -1;
    const guint count = client->subscriptions == nullptr ? 0 : client->subscriptions->len;
    for (guint index = 0; index < count; index++) {
        const auto &held = g_array_index(client->subscriptions, tesk_client_subscription, index);
        if (held.port_no == port_no && held.kind == kind)
            assert(std::exchange(place, static_cast<int32_t>(index)) == -1);
    }
    assert(tesk_client_find_subscription(client, port_no, kind) == place);
    return place;
}

/* The number of clients with a subscription of the kind. The port's list of subscribers must
   contain the same clients in the reverse order of the client list. */
static unsigned holders(uint32_t port_no, uint32_t kind)
{
    const auto known = tesk_client_subscribers(port_no, kind);
    unsigned count = 0;
    for (tesk_client *client = tesk_client_first(); client != nullptr; client = client->next) {
        if (place_in(client, port_no, kind) == -1)
            continue;
        count++;
        assert(count <= known.size() && known[known.size() - count].client == client);
    }
    assert(count == known.size());
    return count;
}

static void check_bucket(uint32_t port_no, expected_state &entry, std::set<int32_t> &live)
{
    entry.bucket_id = tesk_portsub_get_bucket_id(port_no);
    const leaky_bucket_data *bucket = leaky_bucket_find(entry.bucket_id);
    assert(bucket != nullptr);
    assert(live.insert(bucket->id).second);
    assert(bucket->level >= 0 && bucket->level <= 100 && bucket->level % 10 == 0);
    const auto chains = std::ranges::count(fake_platform::ticks, static_cast<uint32_t>(bucket->id),
                                           &fake_platform::tick::bucket);
    if (chains == (bucket->level > 0 ? 1 : 0))
        tainted.erase(bucket->id);
    else
        assert(tainted.contains(bucket->id));
}

static void check_state()
{
    std::set<int32_t> live;
    for (auto &[port_no, entries] : expected)
        for (int index = 0; index < kind_count; index++) {
            expected_state &entry = entries[index];
            const uint32_t count = kinds[index].count(port_no);
            assert(count == holders(port_no, kinds[index].kind) + entry.orphans);
            assert(entry.held == (count > 0 || entry.stray) && !(count > 0 && entry.stray));
            if (count > 0 && kinds[index].kind == tesk_subscription_port_status)
                check_bucket(port_no, entry, live);
        }
    for (int32_t id = -1; id < 16; id++)
        assert((leaky_bucket_find(id) != nullptr) == live.contains(id));
    /* A tick that is pending after its bucket's removal acts on the next bucket with that id. */
    for (const auto &tick : fake_platform::ticks)
        if (!live.contains(static_cast<int32_t>(tick.bucket)))
            tainted.insert(static_cast<int32_t>(tick.bucket));
    size_t clients = 0;
    for (const tesk_client *client = tesk_client_first(); client != nullptr;
         client = client->next, clients++) {
        assert(std::count(monitors.begin(), monitors.end(), client->mbox) == 1);
        assert(tesk_client_find_by_sender(client->mbox) == client);
        assert(tesk_client_find(client->client_id, client->mbox) == client);
        assert(tesk_client_find(client->client_id + 1, client->mbox) == nullptr);
    }
    assert(monitors.size() == clients);
    assert(fake_platform::live_blocks == 0);
}

/* If the board refuses to unsubscribe, a client that requested it keeps its subscription; for a
   lost client, or after a rejected subscription, the count remains without a client. */
static void note_refusals(uint32_t number)
{
    for (const auto &[port_no, index] : refused)
        if (number == MBX_MONITOR_DEFAULT_NO || number == TESK_SUBSCRIBE_SFP_INFO_REQ)
            expected[port_no][index].orphans++;
        else if (number == TESK_SUBSCRIBE_PORT_STATUS_REQ)
            expected[port_no][index].stray = true;
    refused.clear();
}

/* Handles the signals that the server has sent to its own mailbox. */
static void drain()
{
    while (fake_mailbox::has_signal())
        assert(tesk_handle_mailbox() == 0);
}

/* Handles the delivered signal. */
static void dispatch(uint32_t sender, uint32_t number)
{
    if (number == MBX_MONITOR_DEFAULT_NO) /* a monitor ends when it sends its signal */
        std::erase(monitors, sender);
    const bool stops = number == TESK_EXIT_SIGNAL && sender == fake_platform::own_mailbox;
    assert(tesk_handle_mailbox() == (stops ? 1 : 0));
    note_refusals(number);
    drain();
    for (const auto &signal : fake_platform::sent)
        assert(signal.receiver == sender || tesk_client_find_by_sender(signal.receiver) != nullptr);
}

/* A confirmed change of a subscription is the client's newest action in the history, except for an
   indication that a new subscription may cause. */
static void check_history(const tesk_client *client, uint32_t number, uint32_t port_no)
{
    static constexpr struct {
        uint32_t request, action, follows;
    } rows[] = {{TESK_SUBSCRIBE_SFP_INFO_REQ, TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE,
                 TESK_CACHE_ACTION_SFP_INFO_IND},
                {TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE,
                 TESK_CACHE_ACTION_PORT_STATUS_IND},
                {TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_CACHE_ACTION_SFP_INFO_UNSUBSCRIBE, 0},
                {TESK_UNSUBSCRIBE_PORT_STATUS_REQ, TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE, 0}};
    const auto *row =
        std::ranges::find(rows, number, [](const auto &each) { return each.request; });
    if (row == std::end(rows))
        return;
    uint32_t count = 0;
    tesk_cache_entry *entries = nullptr;
    tesk_cache_read(TESK_CACHE_ACTION, &count, &entries);
    assert(count > 0 && count <= tesk_cache_limit);
    const tesk_cache_action_record *newest = &entries[count - 1].action;
    if (row->follows != 0 && newest->action == row->follows && newest->port_no == port_no)
        newest = &entries[count - 2].action;
    assert(newest->action == row->action && newest->port_no == port_no &&
           newest->client_id == client->client_id && newest->conn_ref == client->conn_ref);
    free(entries);
}

static constexpr uint32_t requests[] = {
    TESK_CONN_ESTABLISH_REQ,        TESK_GET_CAPABILITIES_REQ,     TESK_SUBSCRIBE_SFP_INFO_REQ,
    TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_UNSUBSCRIBE_SFP_INFO_REQ, TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
    TESK_GET_PM_COUNTERS_REQ};

/* The client's reference if the choice is 4 or more, else the choice itself. */
static uint32_t connection_ref(uint32_t sender, uint8_t choice)
{
    const tesk_client *client = tesk_client_find_by_sender(sender);
    return choice >= 4 && client != nullptr ? client->client_id : choice;
}

static bool sent_to(uint32_t receiver, uint32_t number)
{
    return std::ranges::any_of(fake_platform::sent, [&](const auto &signal) {
        return signal.receiver == receiver && signal.number == number;
    });
}

/* A request of a known client is answered once, with number + 1 or number + 2; one of an unknown
   client isn't answered. */
static void request(fuzz_input &in)
{
    const uint32_t number = in.one_of(requests);
    const uint32_t sender = in.one_of(senders);
    const uint32_t ref = connection_ref(sender, in.byte());
    const bool answered = number == TESK_CONN_ESTABLISH_REQ || tesk_client_find(ref, sender);
    const uint32_t word = number == TESK_CONN_ESTABLISH_REQ ? in.byte() : in.one_of(port_numbers);
    fake_platform::deliver(sender, number, {in.byte(), ref, word, in.byte() % 3u});
    dispatch(sender, number);
    const auto answers = std::ranges::count_if(fake_platform::sent, [&](const auto &signal) {
        return signal.receiver == sender && signal.number - number - 1 < 2;
    });
    assert(sender == fake_platform::own_mailbox || answers == (answered ? 1 : 0));
    if (answers == 1 && sent_to(sender, number + 1))
        check_history(tesk_client_find_by_sender(sender), number, word);
}

/* The numbers that the server handles are these, or up to 7 above. */
static constexpr uint32_t numbers[] = {0x117,     0x1648400, 0x1648408,  0x1648410,
                                       0x1648501, 0x1901001, 0xdeadbeaf, 0xffffffff};

static void raw_signal(fuzz_input &in)
{
    constexpr uint8_t anything = 255;
    const uint8_t offset = in.byte();
    const uint32_t number =
        offset == anything ? in.number(4) : in.one_of(numbers) + (offset < 64 ? 0 : offset % 8u);
    const uint8_t from = in.byte();
    const uint32_t sender = from == anything ? in.number(4) : senders[from % std::size(senders)];
    const uint32_t short_size = in.byte();
    std::vector<uint8_t> payload(short_size == anything ? in.number(2) : short_size);
    std::generate_n(payload.begin(), std::min<size_t>(payload.size(), anything),
                    [&in] { return in.byte(); });
    int32_t bucket_id = 0;
    if (payload.size() >= sizeof(bucket_id) && number == TESK_PORT_STATUS_FILTER_TICK) {
        memcpy(&bucket_id, payload.data(), sizeof(bucket_id));
        tainted.insert(bucket_id);
    }
    fake_mailbox::deliver(sender, number, payload.data(), payload.size());
    dispatch(sender, number);
}

/* Delivers one of the requested ticks; the input chooses which. */
static void tick(fuzz_input &in)
{
    if (fake_platform::ticks.empty())
        return;
    const auto due =
        fake_platform::ticks.begin() + in.byte() % static_cast<int>(fake_platform::ticks.size());
    const auto [bucket_id, port_no, interval] = *due;
    fake_platform::ticks.erase(due);
    fake_platform::deliver_host(fake_platform::own_mailbox, TESK_PORT_STATUS_FILTER_TICK,
                                {bucket_id, port_no});
    assert(interval == 10);
    dispatch(fake_platform::own_mailbox, TESK_PORT_STATUS_FILTER_TICK);
}

/* Up to three events that are handled together. */
static void hardware_events(fuzz_input &in)
{
    for (int count = in.byte() % 3; count >= 0; count--) {
        auto *event = static_cast<tesk_hw_event *>(malloc(sizeof(tesk_hw_event)));
        const uint8_t what = in.byte();
        *event = {what % 3u, in.one_of(port_numbers), what / 3 % 6u, nullptr};
        tesk_event_queue_put(event);
    }
    tesk_handle_queued_events();
    drain();
}

static void order_failure(fuzz_input &in)
{
    static constexpr const char *operations[] = {"subsport",      "subslink",      "unsubsport",
                                                 "unsubslink",    "getportstatus", "getlinkstatus",
                                                 "getmoduleinfo", "getmodstatus",  "getmodulediag"};
    static constexpr int32_t codes[] = {0, 0, -11, -3, -4, -6, 1};
    const char *operation = in.one_of(operations);
    fake_platform::failing[operation] = in.one_of(codes);
    memory_ends = in.byte() % 8 == 7;
}

static void change_port(fuzz_input &in)
{
    const uint32_t port_no = in.one_of(port_numbers);
    const uint8_t what = in.byte();
    if (what == 0) {
        fake_platform::ports.erase(port_no);
        return;
    }
    fake_platform::port &port = fake_platform::ports[port_no];
    const uint8_t fill = in.byte();
    port.status = what & 0xf;
    port.link_state = what >> 4 & 3;
    port.speed = fill;
    port.module_status.status = fill & 3;
    memset(&port.module, fill, sizeof(port.module));
    port.module.mode_type = what >> 6 & 1;
    port.module.sfp.sfp_connector = fill & 3;
    memset(&port.diag, fill, sizeof(port.diag));
    port.diag.mode_type = what >> 7;
    constexpr size_t first = offsetof(dolm_ric_module_diag, diag_cap), words = 26;
    for (int step = 0; step < 4; step++) {
        const size_t at = first + in.byte() % words * sizeof(uint32_t);
        const uint32_t value = in.byte() * 0x01000001u;
        memcpy(reinterpret_cast<uint8_t *>(&port.diag) + at, &value, sizeof(value));
    }
}

static void (*const steps[])(fuzz_input &in) = {
    request, request, raw_signal, hardware_events, tick,
    request, request, raw_signal, order_failure,   change_port};

/* Empties the tables and the board; the mailbox and the event thread are kept. */
static void begin()
{
    leaky_bucket_init();
    tesk_portsub_init();
    tesk_cache_init();
    for (uint32_t port_no : port_numbers)
        fake_platform::ports[port_no].status = DOLM_RICRIPORT_STARTED | DOLM_RICRIPORT_MODREADY;
}

static void empty_tables()
{
    tesk_portsub_shutdown();
    leaky_bucket_shutdown();
    tesk_cache_shutdown();
}

/* Removes all subscriptions and clients. */
static void end()
{
    memory_ends = false;
    fake_platform::failing.clear();
    for (auto &[port_no, entries] : expected) {
        fake_platform::ports[port_no];
        for (int index = 0; index < kind_count; index++) {
            while (kinds[index].count(port_no) > 0)
                assert(kinds[index].remove(port_no) == 0);
            assert(entries[index].held == entries[index].stray);
        }
    }
    while (tesk_client *client = tesk_client_first())
        tesk_client_remove(client);
    tesk_client_data_reset();
    empty_tables();
    fake_platform::ports.clear();
    fake_platform::ticks.clear();
    expected.clear();
    monitors.clear();
    tainted.clear();
}

/* Runs once, and restores the fuzzer's signal handlers and signal mask. */
static bool start_server()
{
    sigset_t mask;
    struct sigaction terminate, interrupt;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigaction(SIGTERM, nullptr, &terminate);
    sigaction(SIGINT, nullptr, &interrupt);
    assert(tesk_server_init() == 0);
    fake_platform::await_event_thread();
    sigaction(SIGTERM, &terminate, nullptr);
    sigaction(SIGINT, &interrupt, nullptr);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    empty_tables();
    fake_platform::observer = on_operation;
    return atexit(tesk_server_shutdown) == 0;
}

/* The linker redirects the server's calls of calloc to these. Only allocations of buckets can
   fail. */
extern "C" decltype(calloc) __real_calloc, __wrap_calloc;

void *__wrap_calloc(size_t count, size_t size) noexcept
{
    if (!memory_ends || size != sizeof(leaky_bucket_data))
        return __real_calloc(count, size);
    memory_ends = false;
    return nullptr;
}

extern "C" decltype(mbx_monitor) __real_mbx_monitor, __wrap_mbx_monitor;

uint32_t __wrap_mbx_monitor(uint32_t watched, mbx_signal **signal)
{
    monitors.push_back(watched);
    return __real_mbx_monitor(watched, signal);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool started = start_server();
    fuzz_input in = {data, data + size};

    begin();
    procInfo[3] = (in.byte() & 1) != 0 ? 0xffffffff : 0;
    while (in.at != in.end) {
        fake_platform::sent.clear();
        in.one_of(steps)(in);
        assert(refused.empty());
        check_state();
    }
    end();
    return 0;
}
