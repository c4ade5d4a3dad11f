/* SPDX-License-Identifier: Apache-2.0 */
/* link_follower - the thread that follows the network interfaces of the ports by rtnetlink. It asks
   for speeds, and afresh for a link that is about to be read. No other thread asks the kernel about
   links, since such a question waits for a lock that a slow module read may hold for a second. */
#pragma once

#include "platform/dolm_ric/linux/link_table.h"
#include "platform/dolm_ric/linux/netlink.h"
#include "platform/dolm_ric/linux/worker.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace linux_board
{

/* Called on the follower's thread, and by start() on its caller's. */
struct follower_listener : link_listener {
    /* A run of reports was taken. */
    virtual void reports_taken() = 0;
};

class link_follower
{
  public:
    static constexpr int default_receive_buffer = 1 << 20;
    static constexpr std::chrono::milliseconds read_patience{20};

    /* Throws a std::system_error. */
    explicit link_follower(follower_listener &listener,
                           int receive_buffer = default_receive_buffer);
    ~link_follower();

    /* Before start(). */
    void add(uint32_t port, link_table::port_filter fits);

    /* Reads the state of all interfaces, then starts the thread. Throws a std::system_error. */
    void start();

    /* Ends the thread. */
    void stop();

    /* Asks the kernel afresh about a port's link, and waits for the answer, which has then been
       given to the listener; at most read_patience. While an earlier question is stuck it doesn't
       wait at all. Any thread but the follower's. */
    void refresh(uint32_t port);

    /* How often messages were lost and all interfaces were read again. */
    uint64_t losses() const
    {
        return losses_;
    }

  private:
    void run();
    bool drain();
    void take(const netlink::message &notice);
    void take_report(const link_report &report, link_table::origin from);
    void read_all();
    void ask_about(int32_t index);
    void answer_refreshes();
    void ask_speed(int32_t index);
    void ask_speed_if_wanted(int32_t index);
    void ask_speeds();
    int poll_timeout() const;

    follower_listener &listener_;
    link_table table_;
    netlink::connection notices_;
    netlink::connection questions_;
    netlink::connection ethtool_;
    uint16_t ethtool_family_ = 0;
    std::set<int32_t> speeds_wanted_;
    link_table::time_point speeds_due_ = {};
    bool is_behind_ = false; /* messages were lost since all interfaces were read */
    std::atomic<uint64_t> losses_{0};

    std::mutex refresh_lock_;
    std::condition_variable refreshed_;
    std::set<uint32_t> refresh_ports_;
    uint64_t refreshes_asked_ = 0;
    uint64_t refreshes_done_ = 0;
    bool is_stuck_ = false;

    worker thread_; /* last: it ends before what it uses */
};

} // namespace linux_board
