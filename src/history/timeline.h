/* SPDX-License-Identifier: Apache-2.0 */
/* timeline - the time of the history, which never goes back, whatever the clock of the box does.
   No clock of its own. One thread at a time.

   Its seconds are those of the wall clock while nobody sets that. Within a run of the exporter they
   go on with the time since boot. A run continues where the clock says, but where the clock is
   behind the end of the history, or more than 15 days ahead of it, right behind that end. The
   difference between the wall clock and this time is the offset; a change of it is a shift, which
   begins at a time of the history and is stored with it.

   For people a time is shown as the wall clock has it. A clock that is set during a run was wrong
   from the run's start on, so all times of the run move with it. Times before a shift are never
   shown as later than those behind it. */
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace history
{

struct shift {
    int64_t first;  /* the second of the history from which on it holds */
    int64_t offset; /* wall clock less time of the history, in seconds */
};

/* The two clocks of the box at one moment, in seconds. */
struct clocks {
    int64_t wall; /* since 1970 */
    int64_t boot; /* since boot, never goes back */
};

class timeline
{
  public:
    /* `known` are the stored shifts in ascending order, `end` the time behind all that is stored;
       both are empty or 0 in a new history. */
    timeline(std::vector<shift> known, int64_t end, const clocks &now);

    /* The present time of the history. */
    int64_t at(int64_t boot) const
    {
        return start_ + (boot - boot_at_start_);
    }
    /* Looks at the wall clock. By how much it was set, where that is a minute or more; shifts() has
       changed then. */
    std::optional<int64_t> follow(const clocks &now);
    /* By how much the clock was set between the end of the history and the start of this run;
       nothing below a minute. */
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
