/* SPDX-License-Identifier: Apache-2.0 */
/* believed_time - the time of a series, independent of changes of the box's clock. Header only. One
   thread at a time. */
#pragma once

#include <cstdint>
#include <optional>

namespace forecast
{

/* A box without a battery starts with an old clock and sets it minutes to hours later. If the time
   goes back, or ahead by more than any usual gap, readings are left out until the new time has been
   in use for a day; then the new time is accepted and the series continues. */
class believed_time
{
  public:
    /* Seconds since the first reading, never decreasing; nothing: the reading isn't used. */
    std::optional<int64_t> accept(int64_t time)
    {
        if (!is_begun_) {
            is_begun_ = true;
            offset_ = -time;
            last_ = time;
            return 0;
        }
        if (time > last_ && time - last_ <= longest_gap) {
            doubtful_since_ = doubtful_last_ = 0;
            is_doubtful_ = false;
            last_ = time;
            return time + offset_;
        }
        if (time == last_)
            return std::nullopt;
        if (!is_doubtful_ || time < doubtful_last_ || time - doubtful_last_ > longest_gap) {
            is_doubtful_ = true;
            doubtful_since_ = time;
        }
        doubtful_last_ = time;
        if (time - doubtful_since_ < believed_after)
            return std::nullopt;
        /* The time that passed while the clock was in doubt is measured by the new clock. */
        offset_ += last_ - doubtful_since_;
        is_doubtful_ = false;
        last_ = time;
        return time + offset_;
    }

  private:
    static constexpr int64_t longest_gap =
        int64_t{15} * 86400;                         /* a box may be away for repair this long */
    static constexpr int64_t believed_after = 86400; /* time synchronisation works within hours */

    bool is_begun_ = false, is_doubtful_ = false;
    int64_t offset_ = 0, last_ = 0, doubtful_since_ = 0, doubtful_last_ = 0;
};

} // namespace forecast
