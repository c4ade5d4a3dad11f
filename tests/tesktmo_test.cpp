/* tesktmo: order, receiver and life of timers, on a scripted mailbox library: every block that the
   service takes is either sent or freed. */
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#include "platform/tesktmo/tesktmo.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/resource.h>
#include <vector>

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using sent_signal = std::array<uint32_t, 3>; /* number, receiver, sender */

static std::mutex lock;
static std::condition_variable changed;
static std::vector<sent_signal> sent;
static std::vector<uint32_t> freed;
static uint32_t own_mailbox;
static mbx_signal blocks[] = {{0}, {1}, {2}, {3}, {4}, {5}};

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

static std::vector<sent_signal> wait_for_sent(size_t count)
{
    std::unique_lock locked(lock);
    EXPECT_TRUE(changed.wait_for(locked, 30s, [=] { return sent.size() >= count; }));
    return std::exchange(sent, {});
}

static bool start_with_unit(const char *unit)
{
    setenv("TESKTMO_UNIT_MS", unit, 1);
    return tmo_service_init();
}

TEST(tesktmo, ticks_come_in_order_of_expiry_and_of_request_never_early_and_from_the_receiver)
{
    const std::vector<sent_signal> expected{{1, 7, 7}, {2, 8, 8}, {3, 7, 7}, {4, 7, 7}, {5, 7, 7}};
    ASSERT_TRUE(start_with_unit("1") && tmo_service_init());
    /* On a machine that stalls between the requests another order is right: once more, then. */
    for (bool has_stalled = true; has_stalled;) {
        const auto begin = steady_clock::now();
        request(400, 5);
        request(200, 2, 8);
        request(200, 3);
        request(300, 4);
        request(0, 1);
        has_stalled = steady_clock::now() - begin > 90ms;
        const auto got = wait_for_sent(5);
        EXPECT_GE(steady_clock::now() - begin, 400ms);
        EXPECT_TRUE(has_stalled || got == expected);
    }
    int found = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string status;
        std::getline(std::ifstream(task.path() / "status"), status, '\0');
        found += status.starts_with("Name:\ttesktmo\n") &&
                 status.find("SigBlk:\tfffffffe7ffbfeff") != std::string::npos;
    }
    EXPECT_EQ(found, 1) << "a thread of the service's name, with all signals blocked";
    tmo_service_stop();
}

TEST(tesktmo, what_cannot_be_delivered_is_freed)
{
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(start_with_unit("1"));
        request(UINT32_MAX, 1);
        request(60000, 2);
        request(0, 3, MBX_NO_MAILBOX);
        tmo_service_stop();
        request(0, 4);
        EXPECT_EQ(std::exchange(freed, {}), (std::vector<uint32_t>{3, 2, 1, 4}));
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(tmo_service_init());
    setrlimit(RLIMIT_NOFILE, &limit);
    tmo_service_stop();
}

TEST(tesktmo, a_wrong_unit_is_told_and_gives_the_usual_one)
{
    for (const char *unit : {"0", "101", "1ms", ""}) {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(start_with_unit(unit));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "libtesktmo: TESKTMO_UNIT_MS must be 1 to 100 milliseconds; 100 is used\n");
        const auto begin = steady_clock::now();
        request(1, 1);
        wait_for_sent(1);
        EXPECT_GE(steady_clock::now() - begin, 100ms) << unit;
        tmo_service_stop();
    }
}
