/* SPDX-License-Identifier: Apache-2.0 */
/* timeline - the time of the history, which never goes back, even if the clock of the box is set.
   No clock of its own. One thread at a time.

   Its seconds equal those of the wall clock until that is set. Within a run of the exporter they
   follow the time since boot. A run starts at the time of the clock; but if the clock is before the
   end of the history, or more than 15 days after it, the run starts at that end. The difference
   between the wall clock and this time is the offset; a change of it is a shift, which begins at a
   time of the history and is stored with it.

   For people a time is converted to the wall clock. A clock that is set during a run was wrong from
   the run's start on, so all times of the run move with it. Times before a shift are never shown as
   later than those behind it. */
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace history
{

struct shift {
    int64_t first;  /* the first second of the history for which the offset holds */
    int64_t offset; /* wall clock minus time of the history, in seconds */
};

/* The two clocks of the box at one moment, in seconds. */
struct clocks {
    int64_t wall; /* since 1970 */
    int64_t boot; /* since boot, never decreases */
};

class timeline
{
  public:
    /* `known` are the stored shifts in ascending order, `end` the end of the stored data; for a new
       history they are empty and 0. */
    timeline(std::vector<shift> known, int64_t end, const clocks &now);

    /* The present time of the history. */
    int64_t at(int64_t boot) const
    {
        return start_ + (boot - boot_at_start_);
    }
    /* Compares with the wall clock. If the clock was set by a minute or more, returns by how much;
       shifts() has changed then. */
    std::optional<int64_t> follow(const clocks &now);
    /* By how much the clock was set between the end of the history and the start of this run;
       nothing if by less than a minute. */
    std::optional<int64_t> shift_at_start() const
    {
        return shift_at_start_;
    }
    int64_t start() const
    {
        return start_;
    }
    const std::vector<shift> &shifts() const
    {
        return shifts_;
    }
    /* The time of the wall clock, in seconds since 1970, for a time of the history. */
    int64_t wall_of(int64_t time) const;

  private:
    std::vector<shift> shifts_;
    int64_t start_ = 0, boot_at_start_ = 0;
    std::optional<int64_t> shift_at_start_;
};

} // namespace history
