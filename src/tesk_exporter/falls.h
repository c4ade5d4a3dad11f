/* SPDX-License-Identifier: Apache-2.0 */
/* falls - the falls of links that the board records, with their verdicts: what the follower's
   thread reports of each, and what the main thread keeps.

   GET /api/falls?port=3&last=5
     {"falls": [{..}]}   newest first, those of all ports without "port": the objects of
                         teskctl why --json, with the facts. "last" is 32 if it isn't given */
#pragma once

#include "causes/facts.h"
#include "causes/verdict.h"
#include "tesk_client/tesk_details.h"
#include "tesk_exporter/facts.h"
#include "tesk_exporter/worker.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace exporter
{

struct recorded_fall {
    uint32_t port_no;
    bool is_new; /* false: it was reported before and has new facts, or is from before the start */
    bool is_ill_now; /* the link came back worse than before, as is known since this report */
    bool is_counted; /* as the verdict won't change any more: once for each fall */
    causes::facts seen;
    causes::verdict its;
};

/* Looks each second which files of the folder have changed; one that can't be read is left out
   until it can be read. */
class fall_follower
{
  public:
    explicit fall_follower(std::string folder) : folder_(std::move(folder))
    {
    }
    /* Starts the thread. */
    void start(fact_queue &reports);
    void stop()
    {
        thread_.stop();
    }
    /* The changes since the last call. Called by the thread, or by a test in its place. */
    std::vector<fall_fact> scan(std::chrono::steady_clock::time_point now);

    /* The record of a fall grows: a module that was swapped is seen up to ten seconds later. The
       facts from the looks and from a new module are known by then; the next fall ends the wait. */
    static constexpr std::chrono::seconds counted_after{15};

  private:
    struct known_file {
        int64_t changed_at = 0; /* ns */
        uint64_t inode = 0;
        double last = 0;     /* the time of its last fall */
        bool is_ill = false; /* the link has been ill since its last fall */
        fall_fact uncounted; /* the last fall, until it is counted */
        std::chrono::steady_clock::time_point due = {}; /* when it is counted */
    };
    using time_point = std::chrono::steady_clock::time_point;
    void scan_folder(time_point now, std::vector<fall_fact> &found);
    bool scan_file(uint32_t port_no, time_point now, std::vector<fall_fact> &found);
    void scan_port(uint32_t port_no, time_point now, std::vector<fall_fact> &found);
    void count_due(time_point now, std::vector<fall_fact> &found);

    const std::string folder_;
    std::map<uint32_t, known_file> files_;
    int64_t listed_at_ = 0;   /* ns; when the folder was changed last, at the last listing */
    bool was_listed_ = false; /* at all */
    worker thread_;           /* last, so destroyed first: it uses the other members */
};

/* The main thread's. */
class fall_log
{
  public:
    struct of_port {
        std::array<uint64_t, causes::cause_count> count{}; /* since the exporter's start */
        fall_fact ill; /* the last fall from which the link came back worse than before, or null */
        steady_time ill_since{};

        /* Whether the link still is ill, by the port's details, which may be null. A value that
           isn't measured any more counts for `ill_for`, or until the next fall. */
        bool is_ill(const dolm_ric_details_record *present, steady_time now) const;
    };
    static constexpr std::chrono::hours ill_for{1};

    void take(const fall_fact &reported, steady_time now);
    const std::map<uint32_t, of_port> &ports() const
    {
        return ports_;
    }
    /* Newest first. */
    std::string json(size_t most) const;

  private:
    std::map<uint32_t, of_port> ports_;
    std::deque<fall_fact> newest_;
};

/* "link fell: light lost, likely: The received light is gone .." */
std::string describe(const recorded_fall &fall);

/* The body of /api/falls for one port, from its file. Throws a tool_error. */
std::string falls_json(const std::string &folder, uint32_t port_no, size_t most);

} // namespace exporter
