/* SPDX-License-Identifier: Apache-2.0 */
/* fall_recorder - keeps the facts of the last falls of each port's link in files, one for each
   port, for docs/causes.md. Both board libraries have one.

   The recorder receives each change of a port's details, and keeps the last looks before a fall.
   Its thread asks the board for further facts at the fall, 200 ms and 2 s later, since drivers
   report some of them late. The record is written then, and again when the link is up. A fall
   within ten seconds after another fall of the same port is counted in the same record, unless the
   interface was set down or left.

   Writing a file is retried each second after a failure; one line on stderr says why, for each
   reason, until all files can be written. */
#pragma once

#include "causes/facts.h"
#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/fall_facts.h"
#include "platform/dolm_ric/port_details.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace board
{

/* Facts about the message that reported a change; the port's details don't have them. */
struct link_news {
    bool is_reported = false; /* reported by a message of the kernel, and none was lost before */
    bool is_exact = false;    /* the message contains this change alone */
    bool is_late = false;     /* it may have been queued long: the time of the change isn't known */
    std::string device;       /* the device that the port belongs to; empty: not known */
};

/* How old a look may be to count as evidence for a fall; each board has its own limits. */
struct fall_rules {
    /* A look before a fall counts as evidence if its age is between the two, in ns. A younger look
       may have been made after the fall, since links are reported late. */
    int64_t oldest_look, youngest_look;
};

class fall_recorder
{
  public:
    /* When a link was seen to rise, or first seen up, and when it fell; `up_since` is 0 if the link
       wasn't seen up between two falls. */
    struct up_time {
        int64_t up_since, fell_at;
    };
    /* Functions that add a board's own facts; called on the recorder's thread. */
    struct lookers {
        /* Called at each look after a fall. */
        std::function<void(uint32_t port, const up_time &, causes::facts &)> fell;
        /* Called at least twice after a rise; errors of the line count as new from `since` on. */
        std::function<void(uint32_t port, int64_t since, causes::facts &)> risen;
    };

    /* Returns ns of CLOCK_BOOTTIME. */
    using clock = std::function<int64_t()>;

    explicit fall_recorder(const fall_rules &rules, clock now = details_time);
    fall_recorder(const fall_recorder &) = delete;
    fall_recorder &operator=(const fall_recorder &) = delete;
    ~fall_recorder();

    /* Starts recording falls in `folder`, which is created. Without `has_thread` the caller must
       call work(). */
    void start(const std::string &folder, lookers look, bool has_thread = true);
    /* Writes the open records. */
    void stop() noexcept;

    /* The functions below are called in the order of the changes; on any thread, one at a time for
       each port. */
    /* Reports a message about the link; called before the details change. */
    void report_link(uint32_t port, const link_news &news);
    /* Reports that the interface leaves the port; called before the details change. */
    void report_departure(uint32_t port, departure how);
    /* Reports that the port is taken out of the configuration, which is no fall of its link. */
    void leave_out(uint32_t port);
    /* Takes the new details of a port. Called after each change. */
    void see(const dolm_ric_details_record &record);

    /* Makes all looks, and writes all records, that are due. Called by the thread, or by a test
       instead. */
    void work();

    static constexpr size_t most_ports = 1024;

  private:
    struct fall {
        causes::facts seen;
        int64_t at = 0, last_at = 0; /* times of the first and the last fall in this record */
        int64_t up_since = 0;        /* when the link rose before the first fall */
        int64_t up_at = 0;           /* 0: not yet */
        int64_t due = 0;             /* time of the next look or write */
        size_t looks = 0;            /* number of looks made */
        size_t lanes = 0;            /* length of all lists; 0: not known */
        /* Members of the link_news of the first fall. */
        bool is_reported = false, is_exact = false, is_late = false;
        departure left = departure::none;
        bool is_changed = true; /* since the record was last written */
        bool is_written = false;
        bool is_seen_again = false; /* a look at the module was added after the rise */
    };
    struct port_watch {
        dolm_ric_details_link link = {};
        int64_t up_since = 0;       /* 0: the link isn't up */
        bool is_rise_known = false; /* false: the link was up when first seen */
        int64_t set_down_at = 0;    /* time of the last fall by a set-down */
        link_news news;
        departure left = departure::none;
        module_sample last, before; /* the latest look, and the one before it */
        light_trail trail;
        std::deque<int64_t> falls; /* falls of the last day */
        std::shared_ptr<fall> open;
        std::deque<std::shared_ptr<fall>> closed; /* records still to be written */
        bool is_slow = false;                     /* the last look at this port took long */
    };

    port_watch *find_or_make(uint32_t port);
    void see_link(port_watch &its, const dolm_ric_details_link &now, int64_t at);
    void see_module(port_watch &its, const dolm_ric_details_record &record, int64_t now);
    static void count(port_watch &its, int64_t at);
    void begin(port_watch &its, const dolm_ric_details_link &now, int64_t at);
    void take_fall(port_watch &its, const dolm_ric_details_link &now, int64_t at);
    void add_last_look(const port_watch &its, fall &made) const;
    static void rise(port_watch &its, int64_t at);
    static void take_look(fall &open, module_sample found);
    static void close(port_watch &its);
    void add_neighbours(uint32_t port, const port_watch &its, fall &open) const;
    void finish_looks(uint32_t port, port_watch &its, fall &open);
    /* Called by the thread; `guard` is released during calls of the board and while files are
       written. */
    void look(uint32_t port, std::unique_lock<std::mutex> &guard);
    bool look_again(uint32_t port, fall &its, std::unique_lock<std::mutex> &guard);
    void report_result(uint32_t port, int error);
    bool write(uint32_t port, fall &its, std::unique_lock<std::mutex> &guard);
    bool write_closed(uint32_t port, std::unique_lock<std::mutex> &guard);
    void settle(uint32_t port, int64_t now, std::unique_lock<std::mutex> &guard);
    void work_on(uint32_t port, int64_t now, std::unique_lock<std::mutex> &guard);
    std::vector<uint32_t> busy_ports() const;
    int64_t next_due(int64_t now) const;
    bool try_work();
    void start_thread();
    void run();

    const fall_rules rules_;
    const clock now_;
    lookers look_;
    std::string folder_;
    causes::text boot_; /* the kernel's id of this start of the machine */

    std::mutex lock_; /* guards these */
    std::condition_variable changed_;
    std::map<uint32_t, port_watch> ports_;
    std::set<uint32_t> busy_; /* ports with an open or closed record */
    int64_t next_ = INT64_MAX;
    bool is_on_ = false, is_stopping_ = false;
    std::set<uint32_t> failing_; /* ports whose file couldn't be written */
    std::set<int> reported_;     /* reported since all files could be written */

    size_t taken_ = 0; /* bytes that the folder takes; used by the thread only */

    std::thread thread_;
};

} // namespace board
