/* SPDX-License-Identifier: Apache-2.0 */
/* Once a round the thread asks which links are up. It takes the due samples one after another, that
   of the fastest driver first, without the lock. add_before() and add_again() choose two samples
   and add their difference to the facts. */
#include "platform/dolm_ric/linux/error_counters.h"

#include "platform/dolm_ric/port_details.h"
#include "util/poll.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <system_error>

namespace linux_board
{

static constexpr int64_t one_ms = 1'000'000, one_second = 1000 * one_ms;

/* With these times each minute has three samples. */
static constexpr int64_t round_time = 20 * one_second, wanted_gap = 5 * one_second;

/* A driver that counts nothing is asked again after this time: driver or firmware may have been
   updated. */
static constexpr int64_t refusal_time = 3600 * one_second;

/* After a request the driver is left alone for so many times the duration of the request. */
static constexpr int64_t pause_per_time = 200;

/* The period for which errors are counted, and the shortest period that is significant. */
static constexpr int64_t counted_time = 60 * one_second, least_time = 4 * one_second;

/* A link that has just risen still adds errors from the time when it had no lock. */
static constexpr int64_t settling_time = 3 * one_second;

static constexpr size_t most_interfaces = 1024, most_samples = 16;
static constexpr std::chrono::seconds counters_patience{1};

bool error_sample::is_empty() const
{
    return !quality && std::ranges::all_of(count, [](uint64_t its) { return its == not_counted; });
}

void error_sample::add(const error_sample &part)
{
    for (size_t kind = 0; kind < count_kinds; kind++)
        if (part.count[kind] != not_counted)
            count[kind] = part.count[kind];
    if (part.quality) {
        quality = part.quality;
        quality_most = part.quality_most;
    }
}

/* The sum over all lanes comes first, then each lane; the list is empty if the driver doesn't count
   this. */
void take_fec_counts(netlink::byte_view attributes, error_sample &made)
{
    const netlink::byte_view counts = netlink::find_attribute(attributes, ETHTOOL_A_FEC_STATS);
    const auto take = [&](uint16_t number, count_kind kind) {
        made.count[kind] = netlink::read_record<uint64_t>(netlink::find_attribute(counts, number))
                               .value_or(error_sample::not_counted);
    };
    take(ETHTOOL_A_FEC_STAT_CORRECTED, count_corrected);
    take(ETHTOOL_A_FEC_STAT_UNCORR, count_uncorrectable);
    take(ETHTOOL_A_FEC_STAT_CORR_BITS, count_corrected_bits);
}

static void add_count(uint64_t more, uint64_t &to)
{
    if (more != error_sample::not_counted)
        to = to == error_sample::not_counted ? more : to + more;
}

/* Each counter has a nested attribute of its own, with its number in the group. */
void take_line_counts(netlink::byte_view attributes, error_sample &made)
{
    while (const auto outer = netlink::take_attribute(attributes)) {
        if (outer->number != ETHTOOL_A_STATS_GRP)
            continue;
        const auto group = netlink::read_record<uint32_t>(
            netlink::find_attribute(outer->value, ETHTOOL_A_STATS_GRP_ID));
        netlink::byte_view rest = outer->value;
        while (const auto nest = netlink::take_attribute(rest)) {
            netlink::byte_view inside = nest->value;
            const auto one = nest->number == ETHTOOL_A_STATS_GRP_STAT
                                 ? netlink::take_attribute(inside)
                                 : std::nullopt;
            const auto value = one ? netlink::read_record<uint64_t>(one->value) : std::nullopt;
            if (!value)
                continue;
            if (group == ETHTOOL_STATS_ETH_PHY && one->number == ETHTOOL_A_STATS_ETH_PHY_5_SYM_ERR)
                add_count(*value, made.count[count_symbols]);
            if (group == ETHTOOL_STATS_ETH_MAC &&
                (one->number == ETHTOOL_A_STATS_ETH_MAC_6_FCS_ERR ||
                 one->number == ETHTOOL_A_STATS_ETH_MAC_7_ALIGN_ERR))
                add_count(*value, made.count[count_frames]);
        }
    }
}

void take_quality(netlink::byte_view attributes, error_sample &made)
{
    made.quality = netlink::read_record<uint32_t>(
        netlink::find_attribute(attributes, ETHTOOL_A_LINKSTATE_SQI));
    made.quality_most = netlink::read_record<uint32_t>(
        netlink::find_attribute(attributes, ETHTOOL_A_LINKSTATE_SQI_MAX));
}

/* Nothing if a sample lacks the counter, or if the counter went back because it was reset. */
static causes::number counted(std::span<const error_sample> samples, count_kind kind)
{
    uint64_t last = 0;
    for (const error_sample &one : samples) {
        if (one.count[kind] == error_sample::not_counted || one.count[kind] < last)
            return std::nullopt;
        last = one.count[kind];
    }
    return samples.empty() ? std::nullopt
                           : causes::number(static_cast<double>(last - samples[0].count[kind]));
}

static std::span<const error_sample> between(std::span<const error_sample> samples, int64_t from,
                                             int64_t to)
{
    const auto begin = std::ranges::lower_bound(samples, from, {}, &error_sample::at);
    const auto end = std::ranges::upper_bound(samples, to, {}, &error_sample::at);
    return begin < end ? std::span(begin, end) : std::span<const error_sample>();
}

static int64_t span_of(std::span<const error_sample> samples)
{
    return samples.empty() ? 0 : samples.back().at - samples.front().at;
}

static double seconds_of(int64_t time)
{
    constexpr double ns = 1e9;
    return static_cast<double>(time) / ns;
}

/* The bit error ratio before correction, with RS-FEC. Without a counter of bits, each corrected
   block counts as one wrong bit, the least that it can have. */
static causes::number error_ratio(std::span<const error_sample> samples, const causes::text &fec,
                                  const causes::number &megabits)
{
    const causes::number bits = counted(samples, count_corrected_bits),
                         blocks = counted(samples, count_corrected);
    constexpr double mega = 1e6;
    if (fec.value_or("") != "RS" || !megabits || *megabits <= 0 || (!bits && !blocks))
        return std::nullopt;
    const double all = *megabits * mega * seconds_of(span_of(samples));
    return std::min((bits ? *bits : *blocks) / all, 1.0);
}

/* Whether the counter was unchanged until just after the fall. */
static bool is_still_none(std::span<const error_sample> samples, const error_sample &last,
                          int64_t fell_at, count_kind kind)
{
    const auto after = std::ranges::lower_bound(samples, fell_at, {}, &error_sample::at);
    return after != samples.end() && after->count[kind] == last.count[kind];
}

/* A PHY without a signal reports no quality, so only samples before the fall count. */
static void add_quality(std::span<const error_sample> samples, int64_t fell_at, causes::facts &seen)
{
    if (samples.empty() || fell_at - samples.back().at > oldest_before_fall)
        return;
    seen.signal_quality_before = samples.back().quality;
    seen.signal_quality_most = samples.back().quality_most;
}

void add_counts_before(std::span<const error_sample> samples, int64_t up_since, int64_t fell_at,
                       causes::facts &seen)
{
    if (up_since == 0)
        return;
    const auto minute = between(samples, std::max(up_since + settling_time, fell_at - counted_time),
                                fell_at - longest_delay);
    add_quality(minute, fell_at, seen);
    if (span_of(minute) < least_time || fell_at - minute.back().at > oldest_before_fall)
        return;
    const auto certain = [&](count_kind kind) {
        const causes::number its = counted(minute, kind);
        return its && *its == 0 && !is_still_none(samples, minute.back(), fell_at, kind)
                   ? std::nullopt
                   : its;
    };
    seen.corrected_in_minute = certain(count_corrected);
    seen.uncorrectable_in_minute = certain(count_uncorrectable);
    seen.symbol_errors_in_minute = certain(count_symbols);
    seen.frame_errors_in_minute = certain(count_frames);
    seen.counted_for_s = seconds_of(span_of(minute));
    if (!seen.errors_before)
        seen.errors_before = error_ratio(minute, seen.fec_before, seen.speed_before);
}

void add_counts_again(std::span<const error_sample> samples, int64_t since, causes::facts &seen)
{
    const auto again = between(samples, since, INT64_MAX);
    if (span_of(again) < least_time)
        return;
    seen.uncorrectable_again = counted(again, count_uncorrectable);
    if (!seen.errors_again)
        seen.errors_again = error_ratio(again, seen.fec_after, seen.speed_after);
}

void error_counters::start(interfaces up)
{
    up_ = std::move(up);
    thread_.start("dolm-ric-errors", [this] { run(); });
}

void error_counters::stop()
{
    thread_.stop();
}

void error_counters::want(int32_t index, int64_t since, int samples)
{
    {
        const std::lock_guard guard(lock_);
        if (watches_.size() >= most_interfaces && !watches_.contains(index))
            return;
        watch &its = watches_[index];
        if (!its.samples.empty() && its.samples.back().at >= since)
            return;
        its.wanted = samples;
        its.last_used_at = board::details_time();
        its.due = std::max(its.last_used_at, its.paused_until);
    }
    thread_.wake();
}

std::vector<error_sample> error_counters::samples_of(int32_t index) const
{
    const std::lock_guard guard(lock_);
    const auto found = watches_.find(index);
    return found == watches_.end()
               ? std::vector<error_sample>()
               : std::vector(found->second.samples.begin(), found->second.samples.end());
}

void error_counters::add_before(int32_t index, int64_t up_since, int64_t fell_at,
                                causes::facts &seen) const
{
    add_counts_before(samples_of(index), up_since, fell_at, seen);
}

void error_counters::add_again(int32_t index, int64_t since, causes::facts &seen) const
{
    add_counts_again(samples_of(index), since, seen);
}

/* If there is no memory or no connection, the next round tries again. */
void error_counters::run()
{
    while (!thread_.is_stopping()) {
        int64_t wait = one_second;
        try {
            take_round(board::details_time());
            wait = sample_due();
        } catch (const std::exception &) {
            ethtool_.reset();
        }
        pollfd wanted = {thread_.wake_fd(), POLLIN, 0};
        util::poll_or_pause({&wanted, 1}, static_cast<int>(std::max<int64_t>(wait / one_ms, 1)));
        thread_.clear_wake();
    }
}

bool error_counters::is_connected()
{
    if (!ethtool_)
        ethtool_.emplace(NETLINK_GENERIC);
    if (family_ == 0)
        family_ = netlink::find_family(*ethtool_, ETHTOOL_GENL_NAME, ETHTOOL_MSG_STATS_GET);
    return family_ != 0;
}

/* The samples of a link that is down are kept for the looks at its fall. */
void error_counters::take_round(int64_t now)
{
    if (now < round_due_)
        return;
    round_due_ = now + round_time;
    const std::vector<int32_t> up = up_();
    const std::lock_guard guard(lock_);
    for (auto &[index, its] : watches_)
        its.is_up = false;
    for (const int32_t index : up)
        if (watches_.size() < most_interfaces || watches_.contains(index)) {
            watches_[index].is_up = true;
            watches_[index].last_used_at = now;
        }
    std::erase_if(watches_, [&](const auto &one) {
        return now - one.second.last_used_at > 2 * counted_time;
    });
}

/* The due interface whose driver answers fastest, so that it doesn't wait for a slow driver. */
std::optional<int32_t> error_counters::next_due() const
{
    const int64_t now = board::details_time();
    const std::lock_guard guard(lock_);
    const std::pair<const int32_t, watch> *next = nullptr;
    for (const auto &one : watches_)
        if (one.second.is_due(now) &&
            (next == nullptr || one.second.last_took < next->second.last_took))
            next = &one;
    return next == nullptr ? std::nullopt : std::optional(next->first);
}

/* Takes the due samples; returns the time until the next one. */
int64_t error_counters::sample_due()
{
    while (!thread_.is_stopping() && board::details_time() < round_due_) {
        const auto index = next_due();
        if (!index)
            break;
        if (!is_connected())
            return round_time;
        sample(*index);
    }
    const int64_t now = board::details_time();
    int64_t next = round_due_;
    const std::lock_guard guard(lock_);
    for (const auto &[index, its] : watches_)
        if (its.is_up || its.wanted > 0)
            next = std::min(next, std::max(its.due, now + one_ms));
    return next - now;
}

static netlink::request fec_question(uint16_t family, int32_t index)
{
    return netlink::ethtool_request(family, ETHTOOL_MSG_FEC_GET, ETHTOOL_A_FEC_HEADER, index,
                                    ETHTOOL_FLAG_STATS);
}

static netlink::request line_question(uint16_t family, int32_t index)
{
    constexpr uint32_t groups = 1 << ETHTOOL_STATS_ETH_PHY | 1 << ETHTOOL_STATS_ETH_MAC;
    netlink::request made =
        netlink::ethtool_request(family, ETHTOOL_MSG_STATS_GET, ETHTOOL_A_STATS_HEADER, index);
    const size_t nest = made.begin_nest(ETHTOOL_A_STATS_GROUPS);
    made.put(ETHTOOL_A_BITSET_SIZE, uint32_t{ETHTOOL_STATS_ETH_MAC + 1});
    made.put(ETHTOOL_A_BITSET_VALUE, groups);
    made.put(ETHTOOL_A_BITSET_MASK, groups);
    made.end_nest(nest);
    return made;
}

static netlink::request quality_question(uint16_t family, int32_t index)
{
    return netlink::ethtool_request(family, ETHTOOL_MSG_LINKSTATE_GET, ETHTOOL_A_LINKSTATE_HEADER,
                                    index);
}

int error_counters::ask(size_t question, int32_t index, error_sample &made)
{
    static constexpr struct {
        netlink::request (*make)(uint16_t family, int32_t index);
        void (*take)(netlink::byte_view attributes, error_sample &made);
    } all[questions] = {{fec_question, take_fec_counts},
                        {line_question, take_line_counts},
                        {quality_question, take_quality}};
    netlink::request asked = all[question].make(family_, index);
    return ethtool_->ask(asked, counters_patience, [&](const netlink::message &answer) {
        all[question].take(netlink::generic_attributes(answer), made);
    });
}

/* A request that failed is repeated with the next sample, unless the driver doesn't support it. */
void error_counters::sample(int32_t index)
{
    std::array<int64_t, questions> refused_until = {};
    {
        const std::lock_guard guard(lock_);
        refused_until = watches_[index].refused_until;
    }
    const int64_t began_at = board::details_time();
    error_sample made;
    std::array<int, questions> errors = {};
    for (size_t question = 0; question < questions; question++) {
        error_sample part;
        if (refused_until[question] > began_at)
            continue;
        errors[question] = ask(question, index, part);
        if (errors[question] == 0 && part.is_empty())
            errors[question] = EOPNOTSUPP;
        made.add(part);
    }
    keep(index, made, errors, began_at);
}

/* A sample gets the time at which its answers were received: it contains no later error. If a
   driver that has answered before refuses, the reason may be another one, such as a link that is
   down. */
void error_counters::keep(int32_t index, const error_sample &made,
                          const std::array<int, questions> &errors, int64_t began_at)
{
    const int64_t now = board::details_time();
    const std::lock_guard guard(lock_);
    watch &its = watches_[index];
    for (size_t question = 0; question < questions; question++)
        if (errors[question] == EOPNOTSUPP && its.is_up && its.samples.empty())
            its.refused_until[question] = now + refusal_time;
    its.last_took = now - began_at;
    its.paused_until = now + its.last_took * pause_per_time;
    its.wanted = std::max(its.wanted - 1, 0);
    its.due = std::max(now + (its.wanted > 0 ? wanted_gap : round_time), its.paused_until);
    if (made.is_empty())
        return;
    its.samples.push_back(made);
    its.samples.back().at = now;
    if (its.samples.size() > most_samples)
        its.samples.pop_front();
}

} // namespace linux_board
