/* SPDX-License-Identifier: Apache-2.0 */
/* link_follower - the thread that follows the network interfaces of the ports by rtnetlink. It asks
   for speeds, and afresh for a link that is about to be read. No other thread asks the kernel about
   links, since such a question waits for a lock that a slow module read may hold for a second. */
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

/* Called on the follower's thread, and by start() on its caller's. */
struct follower_listener : link_listener {
    /* A run of reports was taken. */
    virtual void reports_taken() = 0;
    /* The active FEC of an operational link as enum dolm_ric_details_fec, after its rise. */
    virtual void fec_reported(uint32_t /*port*/, uint32_t /*fec*/)
    {
    }
};

class link_follower
{
  public:
    static constexpr int default_receive_buffer = 1 << 20;
    /* The longest wait of a read, and of many that follow each other together. */
    static constexpr std::chrono::milliseconds read_patience{10};
    /* A link that was reported so shortly ago is read without a wait. */
    static constexpr std::chrono::milliseconds fresh_age{50};
    /* Between two looks at the queue; a longer time shows that the thread was kept from it, as in a
       process that was stopped or on a machine that was suspended. */
    static constexpr std::chrono::milliseconds longest_gap{1000};

    /* Throws a std::system_error. */
    explicit link_follower(follower_listener &listener,
                           int receive_buffer = default_receive_buffer);
    ~link_follower();

    /* Before start(). */
    void add(uint32_t port, link_table::port_filter fits);
    /* `look` runs on the follower's thread when `fd` becomes readable, and each 30 s. Before
     * start().
     */
    void also_watch(int fd, std::function<void()> look);

    /* As link_table has them; on the follower's thread. The interfaces of new ports are found soon
       after. */
    bool change(uint32_t port, link_table::port_filter fits, bool is_same);
    void take_out(uint32_t port);

    /* Reads the state of all interfaces, then starts the thread. Throws a std::system_error. */
    void start();

    /* Ends the thread. */
    void stop();

    /* Has the kernel asked afresh about a port's link, and waits until the listener has the answer.
       It doesn't wait where the link was reported just now, as the caller then reads because of
       that report, nor while this thread is behind or an earlier question is stuck, nor once its
       waits have taken read_patience together. The question is then asked a little later. Any
       thread but the follower's. */
    void refresh(uint32_t port);

    /* Whether what is reported may have happened more than longest_gap ago. In the listener's calls
       alone. */
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
    bool is_reading_due_ = false;           /* of all interfaces */
    bool is_behind_ = false;                /* messages were lost since all interfaces were read */
    bool is_late_ = false;                  /* until all that was queued is taken */
    link_table::time_point looked_at_ = {}; /* at the queue; of boot_time() */
    int notices_taken_ = 0;                 /* since the thread woke up */
    bool is_later_due_ = false; /* wake_later() woke it, and later_ports_ aren't asked about yet */
    std::atomic<uint64_t> losses_{0};

    std::mutex refresh_lock_;
    std::condition_variable refreshed_;
    std::map<uint32_t, link_table::time_point> reported_at_;
    std::set<uint32_t> refresh_ports_;
    std::set<uint32_t> later_ports_; /* those that no read waits for */
    bool has_backlog_ = false;       /* of notices */
    std::chrono::steady_clock::duration waited_ = {};
    link_table::time_point waited_at_ = {};
    uint64_t refreshes_asked_ = 0;
    uint64_t refreshes_done_ = 0;
    bool is_stuck_ = false;

    worker thread_; /* last, so destroyed first: it uses the other members */
};

} // namespace linux_board
