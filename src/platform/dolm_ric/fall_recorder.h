/* SPDX-License-Identifier: Apache-2.0 */
/* fall_recorder - keeps the facts of the last falls of each port's link in files, one for each
   port, for docs/causes.md. Both board libraries have one.

   It sees each change of a port's details, and remembers the last looks before a fall. A thread of
   its own asks what else there is to know, at the fall, 200 ms and 2 s later, since drivers fill
   some of it late; then it writes the record, and once more when the link is up again. A fall that
   follows another one of its port within ten seconds counts in the record of that one, unless
   something else happened to the interface.

   A file that can't be written is tried again each second; one line on stderr says why, for each
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

/* Facts about the message of a change that the port's details don't have. */
struct link_news {
    bool is_reported = false; /* by a message of the kernel, before which none was lost */
    bool is_exact = false;    /* the message contains this change alone */
    bool is_late = false;     /* the message may have waited: the time of the change isn't known */
    std::string device;       /* of which the port is one; empty: not known */
};

/* The ages of looks that are evidence for a fall, by the board. */
struct fall_rules {
    /* An older look is no evidence for the fall; nor is a younger one, since links are reported
       late and the look may have been made after the fall. In ns. */
    int64_t oldest_look, youngest_look;
};

class fall_recorder
{
  public:
    /* When a link was seen to rise, or to be up, and when it fell; `up_since` is 0 if it was never
       seen between two falls. */
    struct up_time {
        int64_t up_since, fell_at;
    };
    /* These add facts that a board has beside the details; called on the thread. */
    struct lookers {
        /* At each look. */
        std::function<void(uint32_t port, const up_time &, causes::facts &)> fell;
        /* Twice at least; with the time since when the link is looked at again. */
        std::function<void(uint32_t port, int64_t since, causes::facts &)> risen;
    };

    /* ns of CLOCK_BOOTTIME. */
    using clock = std::function<int64_t()>;

    explicit fall_recorder(const fall_rules &rules, clock now = details_time);
    fall_recorder(const fall_recorder &) = delete;
    fall_recorder &operator=(const fall_recorder &) = delete;
    ~fall_recorder();

    /* Falls are recorded from now on, in `folder`, which is made. Without a thread of its own, the
       caller calls work(). */
    void start(const std::string &folder, lookers look, bool has_thread = true);
    /* Writes the open records. */
    void stop() noexcept;

    /* These are called in the order of the changes; any thread, one at a time for each port. */
    /* A message about the link; called before the details change by it. */
    void report_link(uint32_t port, const link_news &news);
    /* The interface leaves the port; called before the details change by that. */
    void report_departure(uint32_t port, departure how);
    /* The port is taken out of the configuration: its link doesn't fall by that. */
    void leave_out(uint32_t port);
    /* Takes the new details of a port. Called after each change. */
    void see(const dolm_ric_details_record &record);

    /* Makes all looks and writings that are due. Called by the thread, or by a test in its place.
     */
    void work();

    static constexpr size_t most_ports = 1024;

  private:
    struct fall {
        causes::facts seen;
        int64_t at = 0, last_at = 0; /* of the first and the last one in this record */
        int64_t up_since = 0;        /* before the first one */
        int64_t up_at = 0;           /* 0: not yet */
        int64_t due = 0;             /* of the next look or writing */
        size_t looks = 0;            /* that were made */
        size_t lanes = 0;            /* of all lists; 0: not known */
        /* As in the news of the first one. */
        bool is_reported = false, is_exact = false, is_late = false;
        departure left = departure::none;
        bool is_changed = true; /* since the record was written */
        bool is_written = false;
        bool is_seen_again = false; /* the module, since the link is up again */
    };
    struct port_watch {
        dolm_ric_details_link link = {};
        int64_t up_since = 0;       /* 0: it isn't up */
        bool is_rise_known = false; /* false: it was up already when it was seen first */
        int64_t set_down_at = 0;    /* time of the last fall by a set-down */
        link_news news;
        departure left = departure::none;
        module_sample last, before; /* the latest look, and the one before it */
        light_trail trail;
        std::deque<int64_t> falls; /* of the last day */
        std::shared_ptr<fall> open;
        std::deque<std::shared_ptr<fall>> closed; /* still to be written */
        bool is_slow = false;                     /* the last look at it was */
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
    /* Called by the thread; `guard` is released while facts are asked for and files are written. */
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
    std::set<int>
        reported_; /* the errors that were reported since all files could last be written */

    size_t taken_ = 0; /* by the folder; the thread's */

    std::thread thread_;
};

} // namespace board
