/* SPDX-License-Identifier: Apache-2.0 */
/* error_counters - reads the error counters of drivers, each 20 seconds for each link that is up,
   so that the errors of the minute before a fall are known. A thread of its own reads them, since a
   driver may ask its firmware and holds the kernel's lock meanwhile: requests take at most half a
   percent of a driver's time, and a driver that counts nothing is asked once an hour. Times are in
   ns of CLOCK_BOOTTIME. */
#pragma once

#include "causes/facts.h"
#include "platform/dolm_ric/linux/worker.h"
#include "platform/linux_interfaces/netlink.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace linux_board
{

/* The kernel reports a lost carrier up to a second late. A sample older than oldest_before_fall is
   no evidence for a fall, although modules are read each 4 s. */
inline constexpr int64_t longest_delay = 1'100'000'000, oldest_before_fall = 30'000'000'000;

/* Counters of FEC blocks, of bits that FEC corrected, of symbols, and of damaged frames. */
enum count_kind : uint8_t {
    count_corrected,
    count_uncorrectable,
    count_corrected_bits,
    count_symbols,
    count_frames,
    count_kinds
};

struct error_sample {
    static constexpr uint64_t not_counted = UINT64_MAX; /* the kernel's "not counted" */
    int64_t at = 0;
    std::array<uint64_t, count_kinds> count = {not_counted, not_counted, not_counted, not_counted,
                                               not_counted};
    /* The quality of the signal that a PHY for one pair receives, and the best possible one. */
    std::optional<uint32_t> quality, quality_most;

    bool is_empty() const;
    /* Adds the counts from the answer to one request. */
    void add(const error_sample &part);
};

class error_counters
{
  public:
    using interfaces = std::function<std::vector<int32_t>()>;

    /* `up` returns the interfaces whose links are up; it is called on the thread. */
    void start(interfaces up);
    void stop();

    /* Takes `samples` of the interface, the first one now and the next ones five seconds apart. No
       sample is taken now if there is one since the time `since`. Any thread, like the functions
       below. */
    void want(int32_t index, int64_t since, int samples);
    /* Adds the counts of the minute before a fall at `fell_at`, of a link that had been up since
       `up_since`; if that is 0 (not known), the facts stay as they are. */
    void add_before(int32_t index, int64_t up_since, int64_t fell_at, causes::facts &seen) const;
    /* Adds the counts since `since`, when the link was up again. */
    void add_again(int32_t index, int64_t since, causes::facts &seen) const;

  private:
    static constexpr size_t questions = 3;
    struct watch {
        std::deque<error_sample> samples;
        std::array<int64_t, questions> refused_until = {};
        int64_t due = 0, paused_until = 0, last_used_at = 0;
        int64_t last_took = 0; /* duration of the last sample */
        int wanted = 0;        /* number of samples to take even if the link is down */
        bool is_up = false;

        bool is_due(int64_t now) const
        {
            return due <= now && (is_up || wanted > 0);
        }
    };

    void run();
    void take_round(int64_t now);
    std::optional<int32_t> next_due() const;
    int64_t sample_due();
    void sample(int32_t index);
    int ask(size_t question, int32_t index, error_sample &made);
    void keep(int32_t index, const error_sample &made, const std::array<int, questions> &errors,
              int64_t began_at);
    bool is_connected();
    std::vector<error_sample> samples_of(int32_t index) const;

    interfaces up_;
    std::optional<netlink::connection> ethtool_; /* the thread's */
    uint16_t family_ = 0;
    int64_t round_due_ = 0;

    mutable std::mutex lock_; /* guards the next member */
    std::map<int32_t, watch> watches_;

    worker thread_; /* last, so destroyed first: it uses the other members */
};

/* Take the counts from the answers to ETHTOOL_MSG_FEC_GET, ETHTOOL_MSG_STATS_GET and
   ETHTOOL_MSG_LINKSTATE_GET. Pure functions, like those below. */
void take_fec_counts(netlink::byte_view attributes, error_sample &made);
void take_line_counts(netlink::byte_view attributes, error_sample &made);
void take_quality(netlink::byte_view attributes, error_sample &made);

/* Samples are in the order of time. Errors caused by the fall are left out: the count ends with the
   last sample that was certainly taken before the fall. A count of zero becomes a fact only if the
   sample at the fall shows that no error came later. */
void add_counts_before(std::span<const error_sample> samples, int64_t up_since, int64_t fell_at,
                       causes::facts &seen);
void add_counts_again(std::span<const error_sample> samples, int64_t since, causes::facts &seen);

} // namespace linux_board
