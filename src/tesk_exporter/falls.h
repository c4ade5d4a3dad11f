/* SPDX-License-Identifier: Apache-2.0 */
/* falls - the falls of links that the board records, with their verdicts: the reports of the
   follower's thread, and the state that the main thread keeps.

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
    bool is_new;     /* false: reported before, with new facts now, or older than the start */
    bool is_ill_now; /* this report is the first to show that the link came back worse */
    bool is_counted; /* the verdict is final; true once for each fall */
    causes::facts seen;
    causes::verdict its;
};

/* Checks each second which files of the folder have changed; a file that can't be read is left out
   until it can. */
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
    /* The changes since the last call. Called by the thread, or by a test instead. */
    std::vector<fall_fact> scan(std::chrono::steady_clock::time_point now);

    /* The record of a fall grows: a swapped module is seen up to ten seconds later. After this time
       the facts from the looks and from a new module are known; another fall ends the wait
       earlier. */
    static constexpr std::chrono::seconds counted_after{15};

  private:
    struct known_file {
        int64_t changed_at = 0; /* ns */
        uint64_t inode = 0;
        double last = 0;     /* the time of its last fall */
        bool is_ill = false; /* the link has been ill since its last fall */
        fall_fact uncounted; /* the last fall, while it isn't counted */
        std::chrono::steady_clock::time_point due = {}; /* when it will be counted */
    };
    using time_point = std::chrono::steady_clock::time_point;
    void scan_folder(time_point now, std::vector<fall_fact> &found);
    bool scan_file(uint32_t port_no, time_point now, std::vector<fall_fact> &found);
    void scan_port(uint32_t port_no, time_point now, std::vector<fall_fact> &found);
    void count_due(time_point now, std::vector<fall_fact> &found);

    const std::string folder_;
    std::map<uint32_t, known_file> files_;
    int64_t listed_at_ = 0;   /* ns; the folder's time of change at the last listing */
    bool was_listed_ = false; /* at all */
    worker thread_;           /* last, so destroyed first: it uses the other members */
};

/* The falls that the main thread keeps. */
class fall_log
{
  public:
    struct of_port {
        std::array<uint64_t, causes::cause_count> count{}; /* since the exporter's start */
        fall_fact ill; /* the last fall after which the link came back worse, or null */
        steady_time ill_since{};

        /* Whether the link is still ill, judged by the port's details, which may be null. An
           illness whose value isn't measured any more lasts for `ill_for`, or until the next
           fall. */
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
