/* SPDX-License-Identifier: Apache-2.0 */
/* Exhausted memory, refused entries of the history, and blocks that must be freed exactly once: the
   linker redirects the server's calls of the allocator and of the cache to this test. */
#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_portsub.h"
#include "testkit/fake_platform/client_fixture.h"

#include <algorithm>
#include <csignal>

using fake_platform::sent;

static size_t failing_size; /* allocations of this size fail */
static bool is_cache_refusing;
static size_t watched_size; /* the block of the next allocation of this size is watched */
static const void *watched;
static int watched_frees;

static bool fails(size_t size)
{
    if (failing_size == 0 || size != failing_size)
        return false;
    errno = ENOMEM;
    return true;
}

extern "C" {
decltype(malloc) __real_malloc, __wrap_malloc;
decltype(calloc) __real_calloc, __wrap_calloc;
decltype(realloc) __real_realloc, __wrap_realloc;
decltype(free) __real_free, __wrap_free;
decltype(tesk_cache_add) __real__Z14tesk_cache_addPK16tesk_cache_entry,
    __wrap__Z14tesk_cache_addPK16tesk_cache_entry;

void *__wrap_malloc(size_t size) noexcept
{
    void *block = fails(size) ? nullptr : __real_malloc(size);
    if (size == watched_size) {
        watched = block;
        watched_size = 0;
    }
    return block;
}

void *__wrap_calloc(size_t count, size_t size) noexcept
{
    return fails(count * size) ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *block, size_t size) noexcept
{
    return fails(size) ? nullptr : __real_realloc(block, size);
}

void __wrap_free(void *block) noexcept
{
    if (block != nullptr && block == watched)
        watched_frees++;
    __real_free(block);
}

int __wrap__Z14tesk_cache_addPK16tesk_cache_entry(const tesk_cache_entry *entry)
{
    return is_cache_refusing ? 1 : __real__Z14tesk_cache_addPK16tesk_cache_entry(entry);
}
}

struct memory : client_fixture {
    ~memory() override
    {
        failing_size = 0;
        is_cache_refusing = false;
        watched = nullptr;
    }
};

TEST_F(memory, a_client_without_memory_is_rejected_and_may_try_again)
{
    connect(bob);
    failing_size = sizeof(tesk_client);
    trace({1, 4, 12});
    send(alice, TESK_CONN_ESTABLISH_REQ, {9, 4294967295, 1, 1});
    expect_rejection(TESK_CONN_ESTABLISH_REJ, 1, "failed to initialize client: 4294967295");
    expect_bytes(sent[0], 4, "00000009 00000000");
    expect_log({"send 0x1648402 to 0x71"});
    EXPECT_EQ(tesk_client_find_by_sender(alice), nullptr);
    failing_size = 0;
    EXPECT_EQ(connect(alice), 1u);
}

TEST_F(memory, a_bucket_without_memory_ends_its_subscription_with_a_result)
{
    const uint32_t reference = connect(alice);
    trace({1, 13});
    failing_size = sizeof(leaky_bucket_data);
    send(alice, subscribe_status, {9, reference, 3, 0});
    expect_rejection(TESK_SUBSCRIBE_PORT_STATUS_REJ, 1, "invalid port");
    expect_log({"subslink 0x20003", "[1] Allocation failed for leaky_bucket_data",
                "[1] Failed to bound bucket with id -1 to port 3", "unsubslink 0x20003",
                "send 0x1648412 to 0x71"});
    EXPECT_EQ(tesk_portsub_find_port_status(3), -1);
    failing_size = 0;
    /* The table of ids doubles when it is full. */
    for (int32_t id = 1; id <= 64; id++)
        ASSERT_EQ(leaky_bucket_add(100, 50), id);
    failing_size = 128 * sizeof(void *);
    trace({1, 13});
    EXPECT_EQ(leaky_bucket_add(100, 50), -1);
    expect_log({"[1] Allocation failed for leaky_bucket_data"});
    leaky_bucket_remove(7);
    EXPECT_EQ(leaky_bucket_add(100, 50), 7);
    failing_size = 0;
    EXPECT_EQ(leaky_bucket_add(100, 50), 65);
    EXPECT_EQ(leaky_bucket_find(64)->id, 64);
    EXPECT_EQ(leaky_bucket_find(66), nullptr);
}

/* The process aborts after the last of these lines, and before anything else is traced. */
TEST_F(memory, a_read_without_memory_traces_it_and_aborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static const struct {
        size_t size;
        log lines;
        void (*act)();
    } cases[] = {{sizeof(dolm_sfp_info),
                  {"getmoduleinfo 0x20003", "[1] malloc: 12 (Cannot allocate memory)"},
                  [] {
                      tesk_sfp_info info = {};
                      get_sfp_info(3, sfp_present_and_ready, &info);
                  }},
                 {sizeof(tesk_cache_entry), {"[1] Memory error"}, [] {
                      uint32_t count;
                      tesk_cache_entry *entries;
                      tesk_cache_read(TESK_CACHE_ACTION, &count, &entries);
                  }}};
    static const log *expected;
    for (const auto &read : cases) {
        const auto run = [&read] {
            trace({1, 12});
            expected = &read.lines;
            signal(SIGABRT, [](int) {
                if (fake_platform::take_log() != *expected)
                    _exit(1);
            });
            failing_size = read.size;
            read.act();
        };
        EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT), "");
    }
}

/* Blocks of an event, freed after handling and at the end; of a bucket, a client and a copy, freed
   at their ends. */
TEST_F(memory, a_block_is_freed_exactly_once)
{
    static const auto expect_freed = [](const void *block, auto act) {
        watched = block;
        watched_frees = 0;
        act();
        EXPECT_EQ(watched_frees, 1);
    };
    static const auto put_event = [](uint32_t type, uint32_t port) {
        auto *event = static_cast<tesk_hw_event *>(malloc(sizeof(tesk_hw_event)));
        *event = {type, port, port_down, nullptr};
        tesk_event_queue_put(event);
        return event;
    };
    subscriber(alice, 3, subscribe_status);
    for (uint32_t type : {0u, 1u, 2u})
        for (uint32_t port : {3u, 4u})
            expect_freed(put_event(type, port), [] { tesk_handle_queued_events(); });
    expect_freed(put_event(0, 3), [] {
        put_event(0, 3);
        tesk_event_queue_shutdown();
        EXPECT_EQ(tesk_event_queue_get_fd(), -1);
        tesk_event_queue_init();
    });
    const int32_t id = leaky_bucket_add(100, 50);
    expect_freed(leaky_bucket_find(id), [id] { leaky_bucket_remove(id); });
    expect_freed(leaky_bucket_find(1), [] { send(alice, unsubscribe_status, {9, 0, 3}); });
    const tesk_client *client = tesk_client_find_by_sender(alice);
    expect_freed(client, [] { lose(alice); });
    expect_freed(nullptr, [] {
        watched_size = sizeof(tesk_cache_entry); /* the copy of an empty cache */
        history(TESK_SHELL_GET_SFP_INFO_CACHE_REQ);
    });
    expect_freed(nullptr, [] {
        tesk_sfp_info info = {};
        watched_size = sizeof(dolm_sfp_info);
        get_sfp_info(3, sfp_present_and_ready, &info);
    });
    connect(bob);
    leaky_bucket_add(100, 50);
    expect_freed(leaky_bucket_find(1), [] { tesk_server_shutdown(); });
    EXPECT_EQ(leaky_bucket_find(1), nullptr);
}

TEST_F(memory, a_refused_entry_of_the_history_is_traced_and_nothing_else)
{
    static const struct {
        uint32_t request;
        log traces;
    } steps[] = {
        {subscribe_info,
         {"[4] Failed to cache sfp subscription data for port 3, client 0",
          "[4] Failed to cache sfp info ind for port 3, client id 0, conn ref 1113"}},
        {subscribe_status,
         {"[4] Failed to cache port status subscription data for port 3, client 0",
          "[4] Failed to cache port status ind for port 3, client id 0, conn ref 1113"}},
        {unsubscribe_status,
         {"[4] Failed to cache port status unsubscribe data for port 3, client 0"}},
        {unsubscribe_info, {"[4] Failed to cache sfp info unsubscribe for port 3, client 0"}}};
    const auto refused_of = [](log lines) {
        std::erase_if(lines, [](const auto &line) { return !line.starts_with("[4]"); });
        return lines;
    };
    const uint32_t reference = connect(alice);
    is_cache_refusing = true;
    for (const auto &step : steps) {
        trace({1, 4});
        send(alice, step.request, {5, reference, 3, 0});
        EXPECT_EQ(sent.at(0).number, step.request + 1);
        /* The history is written before the answer is sent. */
        const auto lines = fake_platform::take_log();
        const auto answer = std::ranges::find_if(
            lines, [](const auto &line) { return line.starts_with("send 0x"); });
        EXPECT_EQ(std::count(lines.begin(), answer, step.traces.at(0)), 1);
        EXPECT_EQ(refused_of(lines), step.traces);
        if (step.request != subscribe_status)
            continue;
        handle_events({link_event(3, 1)});
        EXPECT_EQ(sent.size(), 1u);
        EXPECT_EQ(refused_of(fake_platform::take_log()).at(0),
                  "[4] Failed to cache port status change for port 3, state 1");
        handle_events({port_event(3, 1)});
        EXPECT_EQ(sent.size(), 2u);
        EXPECT_EQ(refused_of(fake_platform::take_log()).at(0),
                  "[4] Failed to cache sfp info for port 3, presence 0");
    }
}
