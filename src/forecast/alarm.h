/* SPDX-License-Identifier: Apache-2.0 */
/* alarm - what is announced about one series: raises, changes and withdraws. One thread at a
   time.

   Hysteresis: raised when two looks in a row, three hours apart, find a fade that meets its limit
   within the horizon. It stays through gaps and beyond the limit, until half of the fall came back,
   the level has stood for a week, or a step began a new series; then none is raised for two days.
   It is changed when the day of the limit moved by a quarter of what was left, or by half a day
   where that is more, at most twice a day. standing() has no hysteresis: it is what the last look
   found. */
#pragma once

#include "forecast/trend.h"

namespace forecast
{

class alarm
{
  public:
    alarm(quantity value, int lane, const std::optional<limits> &own);

    void set_limits(const std::optional<limits> &own);
    /* After the block `last` was ended. `time` is written into the reports. */
    void evaluate(series &of, const block_ring &temperatures, int64_t last, int64_t time,
                  std::vector<report> &reports);
    /* `change` of the level at once. */
    void note_step(double change, int64_t time, std::vector<report> &reports);
    void withdraw(int64_t time, const std::string &reason, std::vector<report> &reports);
    /* Another module. */
    void forget();
    /* The result of the last look, while an alarm is raised; its time is that of the look. */
    std::optional<report> standing() const;
    /* The known fall of the level per day; 0 if none is known. */
    double pace() const
    {
        return pace_;
    }

  private:
    void choose_limit(const days &seen);
    void look_for_one(const series &of, const block_ring &temperatures, int64_t last,
                      const days &seen, std::vector<report> &reports);
    void follow(int64_t last, int64_t time, const days &seen, std::vector<report> &reports);
    void update_pace(const days &seen);
    outlook ahead(const days &seen) const;
    report form(change what, int64_t time) const;

    quantity value_;
    int lane_;
    double own_limit_ = none, limit_ = none;
    bool is_default_ = false, is_raised_ = false, is_limit_old_ = false;
    int seen_in_a_row_ = 0;
    int64_t quiet_until_ = 0; /* block */
    int64_t began_ = 0;       /* block at which the fall began, at the latest */
    double pace_ = 0, first_pace_ = 0, certainty_ = 0;
    /* The result of the last look. */
    outlook next_{};
    double level_ = 0, fall_ = 0;
    int64_t look_block_ = 0, look_time_ = 0;
    /* The values that were announced. */
    double told_day_ = 0; /* of the limit, in days of the series */
    int64_t told_block_ = 0;
};

} // namespace forecast
