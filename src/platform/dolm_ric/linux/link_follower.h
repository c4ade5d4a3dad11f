/* SPDX-License-Identifier: Apache-2.0 */
/* link_follower - the thread that follows the network interfaces of the ports by rtnetlink. It also
   requests speeds, and the state of a link that is about to be read. No other thread asks the
   kernel about links, since a request waits for a lock that a slow module read may hold for a
   second. */
#pragma once

#include "platform/dolm_ric/linux/link_table.h"
#include "platform/dolm_ric/linux/worker.h"
#include "platform/linux_interfaces/netlink.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace linux_board
{

/* Called on the follower's thread, and by start() on its caller's thread. */
struct follower_listener : link_listener {
    /* Called after a run of reports. */
    virtual void reports_taken() = 0;
    /* The active FEC of an operational link, as enum dolm_ric_details_fec; called after the link's
       rise. */
    virtual void fec_reported(uint32_t /*port*/, uint32_t /*fec*/)
    {
    }
};

class link_follower
{
  public:
    static constexpr int default_receive_buffer = 1 << 20;
    /* The longest wait of one read, and the longest total of the waits of reads that follow each
       other. */
    static constexpr std::chrono::milliseconds read_patience{10};
    /* If a link was reported within this time, a read doesn't wait. */
    static constexpr std::chrono::milliseconds fresh_age{50};
    /* The longest time between two looks at the queue. A longer one shows that the thread could not
       run, as in a stopped process or on a suspended machine. */
    static constexpr std::chrono::milliseconds longest_gap{1000};

    /* Throws a std::system_error. */
    explicit link_follower(follower_listener &listener,
                           int receive_buffer = default_receive_buffer);
    ~link_follower();

    /* Before start(). */
    void add(uint32_t port, link_table::port_filter fits);
    /* `look` runs on the follower's thread when `fd` becomes readable, and each 30 s. Call this
       before start(). */
    void also_watch(int fd, std::function<void()> look);

    /* The functions of link_table with these names; called on the follower's thread. The interfaces
       of new ports are found soon after. */
    bool change(uint32_t port, link_table::port_filter fits, bool is_same);
    void take_out(uint32_t port);

    /* Reads the state of all interfaces, then starts the thread. Throws a std::system_error. */
    void start();

    /* Ends the thread. */
    void stop();

    /* Requests a port's link state from the kernel, and waits until the listener has the answer.
       There is no wait if the link was reported just now, as the caller then reads because of that
       report, if the follower's thread is behind or an earlier request is unanswered, or once all
       waits together have reached read_patience. The request is then sent a little later. Any
       thread but the follower's. */
    void refresh(uint32_t port);

    /* Whether the reported change may have happened more than longest_gap ago. Valid only during
       the listener's calls. */
    bool is_late() const
    {
        return is_late_;
    }

    /* How often messages were lost and all interfaces were read again. */
    uint64_t losses() const
    {
        return losses_;
    }

  private:
    void run();
    void take_turn();
    void take_round();
    void note_time();
    bool drain();
    void take(const netlink::message &notice);
    void take_report(const link_report &report, link_table::origin from);
    void read_all();
    void ask_about(int32_t index);
    void answer_refreshes();
    uint32_t fec_now(int32_t index);
    std::optional<link_speed> speed_now(int32_t index);
    std::optional<link_speed> speed_of_risen(int32_t index);
    void ask_speed_if_wanted(int32_t index);
    void ask_speeds();
    void ask_next_fec();
    int poll_timeout() const;
    bool is_wait_worth_it(uint32_t port, link_table::time_point now);

    follower_listener &listener_;
    link_table table_;
    int watched_fd_ = -1;
    std::function<void()> look_;
    netlink::connection notices_;
    netlink::connection questions_;
    netlink::connection ethtool_;
    uint16_t ethtool_family_ = 0;
    std::set<int32_t> speeds_wanted_;
    link_table::time_point speeds_due_ = {};
    link_table::time_point round_due_ = {};
    std::set<int32_t> fecs_wanted_;
    bool is_reading_due_ = false;           /* all interfaces are to be read */
    bool is_behind_ = false;                /* messages were lost since all interfaces were read */
    bool is_late_ = false;                  /* until the queue has been emptied */
    link_table::time_point looked_at_ = {}; /* time of the last look at the queue, by boot_time() */
    int notices_taken_ = 0;                 /* number of notices since the thread woke up */
    bool is_later_due_ = false; /* wake_later() was called; later_ports_ are to be requested */
    std::atomic<uint64_t> losses_{0};

    std::mutex refresh_lock_;
    std::condition_variable refreshed_;
    std::map<uint32_t, link_table::time_point> reported_at_;
    std::set<uint32_t> refresh_ports_;
    std::set<uint32_t> later_ports_; /* ports that no read waits for */
    bool has_backlog_ = false;       /* of notices */
    std::chrono::steady_clock::duration waited_ = {};
    link_table::time_point waited_at_ = {};
    uint64_t refreshes_asked_ = 0;
    uint64_t refreshes_done_ = 0;
    bool is_stuck_ = false;

    worker thread_; /* last, so destroyed first: it uses the other members */
};

} // namespace linux_board
