/* SPDX-License-Identifier: Apache-2.0 */
/* The client library with a server that sends anything at any time. Each accepted request is
   answered once, and not after its deadline; an unsubscribed port causes no callback; after the
   close there are none. The target has its own clock: a wait lets the server act and advances the
   time. A signal is a heap block of exactly its size. */
#include "tesk_client/tesk_client.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/fake_platform/server_words.h"
#include "tests/fuzz/fuzz_input.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <sys/epoll.h>

static constexpr uint32_t server = 7, stranger = 8, client_id = 41, port_count = 3;
static constexpr uint32_t deadline_ms = 20;
static constexpr size_t most_requests = 400;

namespace
{

struct made_request {
    tesk_client_request_type type;
    uint32_t port;
    int64_t deadline; /* ms */
    bool is_accepted, is_answered;
};

struct port_model {
    bool may_indicate;
    size_t subscribed_by; /* the last subscribe request */
};

} // namespace

static fuzz_input input;
static int64_t now_ms;
static tesk_client_session *session;
static bool is_open;               /* callbacks are allowed */
static std::vector<words_of> seen; /* requests that the server has received */
static words_of last_delivered;
static std::deque<made_request> requests; /* callbacks have pointers to its elements */
static port_model ports[2][port_count];

static void deliver(const words_of &words, size_t size, uint32_t sender)
{
    if (fake_mailbox::is_open())
        deliver_words(sender, words, size);
    last_delivered = words;
}

/* The size of a valid signal with this number. */
static size_t size_of(uint32_t number)
{
    static const std::map<uint32_t, size_t> sizes = {
        {TESK_CONN_ESTABLISH_REJ, sizeof(tesk_conn_establish_rej)},
        {TESK_CONN_ESTABLISH_CFM, sizeof(tesk_conn_establish_cfm)},
        {TESK_SFP_INFO_IND, sizeof(tesk_sfp_info_ind)},
        {TESK_PORT_STATUS_IND, sizeof(tesk_port_status_ind)},
        {TESK_GET_PM_COUNTERS_CFM, sizeof(tesk_get_pm_counters_cfm)},
        {TESK_GET_PM_COUNTERS_REJ, sizeof(tesk_port_rej)},
        {TESK_SUBSCRIBE_SFP_INFO_REJ, sizeof(tesk_port_rej)},
        {TESK_UNSUBSCRIBE_SFP_INFO_REJ, sizeof(tesk_port_rej)},
        {TESK_SUBSCRIBE_PORT_STATUS_REJ, sizeof(tesk_port_rej)},
        {TESK_UNSUBSCRIBE_PORT_STATUS_REJ, sizeof(tesk_port_rej)}};
    const auto found = sizes.find(number);
    return found == sizes.end() ? 24 : found->second;
}

/* Usually the valid signal; sometimes with one word, the size or the sender changed. */
static void deliver_changed(words_of words)
{
    size_t size = size_of(words[0]);
    uint32_t sender = server;
    const uint8_t change = input.byte();
    if (change & 0x80) {
        if (change & 1)
            words[input.byte() % words.size()] += input.byte();
        if (change & 2)
            size = 4 + input.byte();
        if (change & 4)
            sender = stranger;
        if (change & 8)
            words[input.byte() % words.size()] = input.number(4);
    }
    deliver(words, size, sender);
}

static void answer_one()
{
    if (seen.empty())
        return;
    const words_of &request =
        seen[seen.size() - 1 - input.byte() % std::min<size_t>(seen.size(), 8)];
    const uint32_t rejects = input.byte() % 4 == 0 ? 1 : 0, number = request[0];
    if (number == TESK_CONN_ESTABLISH_REQ)
        deliver_changed({number + 1 + rejects, request[1], client_id, 1});
    else if (number < 0x1000) /* the number of records, and a part of them */
        deliver_changed({number + 1, input.byte() % 3u, input.byte(), 2, 1000, 7, 0});
    else if (number == TESK_GET_CAPABILITIES_REQ)
        deliver_changed({number + 1, request[1], own_ref, input.byte() % 3u, 3, 8});
    else
        deliver_changed({number + 1 + rejects, request[1], own_ref, request[3], 1, 0x61620000});
}

static void deliver_garbage()
{
    static const uint32_t numbers[] = {0,
                                       1,
                                       MBX_MONITOR_DEFAULT_NO,
                                       TESK_SHELL_GET_PORT_STATUS_CACHE_CFM,
                                       TESK_SHELL_GET_SFP_INFO_CACHE_CFM,
                                       TESK_SHELL_GET_ACTIONS_CACHE_CFM,
                                       TESK_EXIT_SIGNAL};
    const uint8_t which = input.byte();
    words_of words{which < 0x80 ? 0x1648400u + which % 0x18 : numbers[which % std::size(numbers)]};
    for (int i = input.byte() % 16; i > 0; i--)
        words.push_back(input.number(4));
    deliver(words, 4 + input.byte() % 300u, input.byte() % 8 == 0 ? stranger : server);
}

static void indicate()
{
    const uint32_t number = input.byte() % 2 == 0 ? TESK_SFP_INFO_IND : TESK_PORT_STATUS_IND;
    deliver_changed({number, 999, own_ref, input.byte() % port_count, 2, 2});
}

static void act_as_server()
{
    const uint8_t act = input.byte() % 16;
    if (act == 0)
        deliver({MBX_MONITOR_DEFAULT_NO}, 4, server);
    else if (act == 1)
        deliver_garbage();
    else if (act == 2 && !last_delivered.empty())
        deliver_changed(words_of(last_delivered));
    else if (act == 3)
        now_ms += input.byte() % 32;
    else if (act >= 4 && act <= 6)
        indicate();
    else if (act > 8)
        answer_one();
}

static void receive_at_server(const mbx_signal *signal, uint32_t receiver)
{
    assert(receiver == server);
    seen.push_back(received_words(signal));
    act_as_server();
}

static uint32_t locate_server()
{
    static const int errors[] = {ENOENT, EACCES, ETIMEDOUT, EMFILE};
    const uint8_t fate = input.byte();
    errno = errors[fate % 4];
    return fate < 0xc0 ? server : MBX_NO_MAILBOX;
}

const fake_mailbox::hooks fake_mailbox::script = {
    [](const char *name, const char *) {
        return strcmp(name, "mbx_create_mailbox") != 0 || input.byte() < 0xf8;
    },
    [](bool holds, const char *) { assert(holds); }, receive_at_server, locate_server, 0};

extern "C" {
int __real_epoll_wait(int epoll, epoll_event *events, int count, int timeout);
int __wrap_epoll_wait(int epoll, epoll_event *events, int count, int timeout);
int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv(); /* std::chrono::steady_clock::now() */

int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv()
{
    return now_ms * 1'000'000;
}

/* By the real clock the session's timer has expired: it wakes every wait for which it is set. */
int __wrap_epoll_wait(int epoll, epoll_event *events, int count, int)
{
    act_as_server();
    now_ms++;
    return __real_epoll_wait(epoll, events, count, 0);
}
}

static void note_end(made_request &request, tesk_client_result result)
{
    assert(!request.is_answered);
    request.is_answered = true;
    const size_t kind = request.type / 2;
    const bool unsubscribes = request.type == TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO ||
                              request.type == TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS;
    if (!unsubscribes || result != TESK_CLIENT_OK)
        return;
    port_model &port = ports[kind][request.port];
    for (size_t i = port.subscribed_by; i < requests.size(); i++)
        if (&requests[i] == &request)
            port.may_indicate = false;
}

static made_request &note_request(tesk_client_request_type type, uint32_t port)
{
    if (type == TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO ||
        type == TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS)
        ports[type / 2][port] = {true, requests.size()};
    requests.push_back({type, port, now_ms + deadline_ms, false, false});
    return requests.back();
}

static void request_something();

static void act_in_callback()
{
    const uint8_t act = input.byte();
    if (act >= 0xf0) {
        tesk_client_pm pm;
        assert(tesk_client_read_pm(session, 0, &pm) == TESK_CLIENT_MISUSE);
        assert(tesk_client_dispatch(session) == TESK_CLIENT_MISUSE);
        tesk_client_close(session); /* is ignored inside a callback */
    } else if (act >= 0xc0) {
        request_something();
    }
}

static void answered(const tesk_client_answer *answer, void *user)
{
    auto &request = *static_cast<made_request *>(user);
    assert(is_open && request.is_accepted);
    assert(answer->request == request.type && answer->port_no == request.port);
    assert(answer->text != nullptr && strlen(answer->text) < 256);
    const bool is_ok = answer->result == TESK_CLIENT_OK;
    assert((answer->pm != nullptr) == (is_ok && request.type == TESK_CLIENT_REQUEST_PM));
    for (size_t i = 0; i < answer->count; i++)
        assert(is_ok && (answer->history != nullptr || answer->capabilities != nullptr));
    assert((answer->rejection != 0) == (answer->result == TESK_CLIENT_REJECTED));
    note_end(request, answer->result);
    act_in_callback();
}

static void request_something()
{
    if (requests.size() >= most_requests)
        return;
    const auto type = static_cast<tesk_client_request_type>(input.byte() % 9);
    const uint32_t port = type <= TESK_CLIENT_REQUEST_PM ? input.byte() % port_count : 0;
    made_request &request = note_request(type, port);
    /* The server may act, but no callback is called before the request has returned. */
    request.is_accepted =
        tesk_client_request(session, type, port, answered, &request) == TESK_CLIENT_OK;
}

static void call_and_wait()
{
    if (requests.size() >= most_requests)
        return;
    static const tesk_client_request_type types[] = {TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO,
                                                     TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO,
                                                     TESK_CLIENT_REQUEST_HISTORY_ACTIONS};
    const auto type = input.one_of(types);
    const uint32_t port = type == types[2] ? 0 : input.byte() % port_count;
    made_request &request = note_request(type, port);
    tesk_client_history_record records[2];
    size_t count = 0;
    tesk_client_result result = TESK_CLIENT_OK;
    if (type == types[2])
        result = tesk_client_read_history(session, TESK_CLIENT_HISTORY_ACTIONS, records, 2, &count);
    else if (type == types[1])
        result = tesk_client_unsubscribe(session, TESK_CLIENT_SFP_INFO, port);
    else
        result = tesk_client_subscribe(session, TESK_CLIENT_SFP_INFO, port);
    assert(count <= 2);
    note_end(request, result);
}

static void expect_indicated(tesk_client_kind kind, uint32_t port)
{
    assert(is_open && port < port_count && ports[kind][port].may_indicate);
    act_in_callback();
}

static void act_as_client()
{
    const uint8_t act = input.byte() % 8;
    if (act == 0)
        call_and_wait();
    else if (act == 1)
        tesk_client_stop(session);
    else if (act == 2)
        tesk_client_run(session, input.byte() % 8);
    else if (act == 3)
        act_as_server();
    else if (act == 4)
        tesk_client_dispatch(session);
    else
        request_something();
}

/* Once the last deadline has passed and all signals are read, no request is open. */
static void expect_all_answered_in_time()
{
    input.at = input.end;
    now_ms += deadline_ms;
    do
        tesk_client_dispatch(session);
    while (fake_mailbox::is_open() && fake_mailbox::has_signal());
    tesk_client_dispatch(session);
    for (const made_request &request : requests)
        assert(!request.is_accepted || request.is_answered || request.deadline > now_ms);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input = {data, data + size};
    now_ms = 1000;
    seen.clear();
    requests.clear();
    last_delivered.clear();
    memset(ports, 0, sizeof(ports));
    tesk_client_options options{};
    options.deadline_ms = deadline_ms;
    options.window = 1 + input.byte() % 4;
    options.reconnect = input.byte() % 4 != 0;
    options.retry_ms = 1;
    options.longest_retry_ms = 8;
    options.on_sfp_info = [](const tesk_client_sfp_info *info, void *) {
        assert(strlen(info->vendor_sn) < sizeof(info->vendor_sn));
        expect_indicated(TESK_CLIENT_SFP_INFO, info->port_no);
    };
    options.on_port_status = [](const tesk_client_port_status *status, void *) {
        expect_indicated(TESK_CLIENT_PORT_STATUS, status->port_no);
    };
    options.on_event = [](const tesk_client_event *event, void *) {
        assert(is_open && event->text != nullptr);
        act_in_callback();
    };
    is_open = true;
    if (tesk_client_connect(&options, &session) == TESK_CLIENT_OK) {
        while (input.at != input.end)
            act_as_client();
        if (size % 2 == 0)
            expect_all_answered_in_time();
        tesk_client_close(session);
    }
    is_open = false;
    session = nullptr;
    for (const made_request &request : requests)
        assert(!request.is_accepted || request.is_answered);
    assert(fake_mailbox::live_blocks == 0 && !fake_mailbox::is_open());
    return 0;
}
