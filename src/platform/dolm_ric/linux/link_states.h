/* SPDX-License-Identifier: Apache-2.0 */
/* link_states - requests the state that drivers report for links that are down. A thread of its own
   does so: a driver that takes seconds to answer holds the kernel's lock meanwhile, and the caller
   doesn't wait for it. */
#pragma once

#include "causes/facts.h"
#include "platform/dolm_ric/linux/worker.h"
#include "platform/linux_interfaces/netlink.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>

namespace linux_board
{

class link_states
{
  public:
    /* How long a look waits for its answer; no look waits while an earlier request is
       unanswered. */
    static constexpr std::chrono::milliseconds patience{200};

    void start();
    void stop();

    /* Requests the state of the interface, and adds to the facts the driver's answer to the last
       request that was sent at `since` or later, in ns of CLOCK_BOOTTIME. Without an answer in time
       the facts stay as they are. One thread. */
    void look(int32_t index, int64_t since, causes::facts &seen);

  private:
    struct answer {
        int64_t asked_at = 0;
        causes::facts seen;
    };
    void run();
    std::optional<int32_t> next_wanted();
    void ask(int32_t index);

    std::optional<netlink::connection> ethtool_; /* the thread's; made for the first request */
    uint16_t family_ = 0;

    std::mutex lock_; /* guards these */
    std::condition_variable answered_;
    std::set<int32_t> wanted_; /* interfaces to request, and the one whose request is in progress */
    std::map<int32_t, answer> answers_;
    bool is_stuck_ = false;

    worker thread_; /* last, so destroyed first: it uses the other members */
};

/* Takes the facts from an answer to ETHTOOL_MSG_LINKSTATE_GET. Pure function. */
void take_link_state(netlink::byte_view attributes, causes::facts &seen);

} // namespace linux_board
