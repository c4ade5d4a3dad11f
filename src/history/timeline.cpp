/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the constructor chooses the time at which this run continues, follow() notices
   that the clock was set, wall_of() converts a time for people. */
#include "history/timeline.h"

#include <algorithm>
#include <cstdlib>

namespace history
{

/* A box may be away for repair this long. A clock that is further ahead is probably wrong; with it
   all rows of the history would be too old and dropped. */
static constexpr int64_t longest_gap = int64_t{15} * 86400;
/* Time synchronisation corrects smaller differences slowly. */
static constexpr int64_t least_shift = 60;

timeline::timeline(std::vector<shift> known, int64_t end, const clocks &now)
    : shifts_(std::move(known)), boot_at_start_(now.boot)
{
    const int64_t offset = shifts_.empty() ? 0 : shifts_.back().offset;
    start_ = now.wall - offset;
    if (shifts_.empty()) {
        start_ = std::max(start_, end);
        shifts_.push_back({start_, now.wall - start_});
        return;
    }
    if (start_ < end && end - start_ < least_shift)
        start_ = end; /* a previous run wrote rows in this second */
    if (start_ >= end && start_ - end <= longest_gap)
        return;
    start_ = end;
    shifts_.push_back({start_, now.wall - start_});
    if (std::abs(now.wall - start_ - offset) >= least_shift)
        shift_at_start_ = now.wall - start_ - offset;
}

std::optional<int64_t> timeline::follow(const clocks &now)
{
    const int64_t change = now.wall - at(now.boot) - shifts_.back().offset;
    if (std::abs(change) < least_shift)
        return std::nullopt;
    if (shifts_.back().first < start_)
        shifts_.push_back({start_, shifts_.back().offset});
    shifts_.back().offset += change;
    return change;
}

int64_t timeline::wall_of(int64_t time) const
{
    int64_t offset = shifts_.back().offset;
    for (size_t i = shifts_.size(); i-- > 0;) {
        offset = std::min(offset, shifts_[i].offset);
        if (time >= shifts_[i].first)
            break;
    }
    return time + offset;
}

} // namespace history
