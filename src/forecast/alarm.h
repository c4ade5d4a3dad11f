/* SPDX-License-Identifier: Apache-2.0 */
/* alarm - decides for one series when an alarm is raised, changed and withdrawn. One thread at a
   time.

   Hysteresis: an alarm is raised when two looks in a row, three hours apart, find a fade that
   reaches its limit within the horizon. It stays through gaps and beyond the limit, until half of
   the fall has recovered, the level hasn't moved for a week, or a step began a new series; then no
   alarm is raised for two days. The alarm is changed, at most twice a day, when the expected day
   has moved by a quarter of the remaining time, and by at least half a day. standing() has no
   hysteresis: it is the result of the last look. */
#pragma once

#include "forecast/trend.h"

namespace forecast
{

class alarm
{
  public:
    alarm(quantity value, int lane, const std::optional<limits> &own);

    void set_limits(const std::optional<limits> &own);
    /* To be called after block `last` has ended. `time` is written into the reports. */
    void evaluate(series &of, const block_ring &temperatures, int64_t last, int64_t time,
                  std::vector<report> &reports);
    /* Reports a step: the level changed by `change` at once. */
    void note_step(double change, int64_t time, std::vector<report> &reports);
    void withdraw(int64_t time, const std::string &reason, std::vector<report> &reports);
    /* Another module. */
    void forget();
    /* The result of the last look, while an alarm is raised; its time is that of this look. */
    std::optional<report> standing() const;
    /* The known fall of the level per day; 0 if no fall is known. */
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
    int64_t began_ = 0;       /* latest possible block in which the fall began */
    double pace_ = 0, first_pace_ = 0, certainty_ = 0;
    /* The result of the last look. */
    outlook next_{};
    double level_ = 0, fall_ = 0;
    int64_t look_block_ = 0, look_time_ = 0;
    /* Values of the last announcement. */
    double told_day_ = 0; /* day of the limit, in days of the series */
    int64_t told_block_ = 0;
};

} // namespace forecast
