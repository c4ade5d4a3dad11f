/* SPDX-License-Identifier: Apache-2.0 */
/* tesktmo: order, receiver and lifetime of timers, on a fake mailbox library: every block that the
   service takes is sent or freed. */
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#include "platform/tesktmo/tesktmo.h"

#include <array>
#include <condition_variable>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using signals = std::vector<std::array<uint32_t, 3>>; /* number, receiver, sender */

static std::mutex lock;
static std::condition_variable changed;
static signals sent;
static std::vector<uint32_t> freed;
static uint32_t own_mailbox;
static mbx_signal blocks[] = {{0}, {1}, {2}, {3}, {4}, {5}};

static thread_local bool is_memory_exhausted;

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return is_memory_exhausted ? nullptr : malloc(size);
}

void *operator new(size_t size)
{
    void *block = operator new(size, std::nothrow);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}

extern "C" uint32_t mbx_own_mailbox(void)
{
    return own_mailbox;
}

extern "C" void mbx_send(mbx_signal **signal, uint32_t receiver, uint32_t sender)
{
    const std::lock_guard locked(lock);
    sent.push_back({std::exchange(*signal, nullptr)->number, receiver, sender});
    changed.notify_all();
}

extern "C" void mbx_free(mbx_signal **signal)
{
    freed.push_back(std::exchange(*signal, nullptr)->number);
}

static void request(uint32_t interval, uint32_t number, uint32_t mailbox = 7)
{
    mbx_signal *signal = &blocks[number];
    own_mailbox = mailbox;
    tmo_request_sig(interval, &signal);
    EXPECT_EQ(signal, nullptr);
}

static signals wait_for_sent(size_t count)
{
    std::unique_lock locked(lock);
    EXPECT_TRUE(changed.wait_for(locked, 30s, [=] { return sent.size() >= count; }));
    return std::exchange(sent, {});
}

TEST(tesktmo, ticks_come_in_order_of_expiry_and_of_request_never_early_and_from_the_receiver)
{
    setenv("TESKTMO_UNIT_MS", "1", 1);
    ASSERT_TRUE(tmo_service_init() && tmo_service_init());
    /* If the machine stalls between the requests, another order is right: then the case is
       repeated. */
    for (bool has_stalled = true; has_stalled;) {
        const auto begin = steady_clock::now();
        request(400, 5), request(200, 2, 8), request(200, 3), request(300, 4), request(0, 1);
        has_stalled = steady_clock::now() - begin > std::chrono::milliseconds(90);
        const signals got = wait_for_sent(5);
        EXPECT_GE(steady_clock::now() - begin, 400ms);
        EXPECT_TRUE(has_stalled ||
                    got == (signals{{1, 7, 7}, {2, 8, 8}, {3, 7, 7}, {4, 7, 7}, {5, 7, 7}}));
    }
    tmo_service_stop();
}

TEST(tesktmo, exhausted_memory_frees_the_block_or_fails_the_start)
{
    freed.reserve(8);
    is_memory_exhausted = true;
    EXPECT_FALSE(tmo_service_init());
    is_memory_exhausted = false;
    ASSERT_TRUE(tmo_service_init());
    is_memory_exhausted = true;
    mbx_signal *signal = &blocks[5];
    own_mailbox = 7;
    tmo_request_sig(0, &signal);
    is_memory_exhausted = false;
    EXPECT_EQ(std::exchange(freed, {}), std::vector<uint32_t>{5});
    request(0, 1);
    EXPECT_EQ(wait_for_sent(1), (signals{{1, 7, 7}}));
    tmo_service_stop();
}

TEST(tesktmo, undeliverable_blocks_are_freed_and_a_wrong_unit_gives_the_default)
{
    for (const char *unit : {"0", "101", "1ms", "", "1"}) {
        setenv("TESKTMO_UNIT_MS", unit, 1);
        ASSERT_TRUE(tmo_service_init());
        const auto begin = steady_clock::now();
        request(1, 5);
        wait_for_sent(1);
        EXPECT_GE(steady_clock::now() - begin, unit == std::string("1") ? 1ms : 100ms) << unit;
        request(UINT32_MAX, 1), request(60000, 2), request(0, 3, MBX_NO_MAILBOX);
        tmo_service_stop();
        request(0, 4);
        EXPECT_EQ(std::exchange(freed, {}), (std::vector<uint32_t>{3, 2, 1, 4}));
    }
}
