/* SPDX-License-Identifier: Apache-2.0 */
/* outlooks - the forecast of all ports over the history. A forecast is announced when it is raised
   and withdrawn when it is over, also where its module left the port; a restart announces nothing
   again. The history's thread only.

   GET /api/forecast
     {"forecasts": [{"port", "interface", "vendor", "part", "serial", .. the keys of
        forecast_json.h ..}]}        soonest first; from the last look at the readings,
                                     which is made each three hours, less the time since;
                                     lanes from 0; null: the whole module */
#pragma once

#include "forecast/forecast.h"
#include "history/chronicle.h"

#include <array>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace exporter
{

/* Lanes of a forecast::report are numbered from 1; users see lanes from 0, as in the details. */
std::string lane_label(int lane); /* empty: the whole module */
std::string lane_text(int lane);  /* " of lane 2", or empty */

/* A present forecast, for the metrics. */
struct forecast_sample {
    uint32_t port;
    int lane; /* as in forecast::report */
    const char *value;
    double days_left;
};

class outlooks
{
  public:
    /* A forecast was raised, or withdrawn. */
    struct news {
        bool is_raised;
        history::place of;
        forecast::report told;
    };

    /* By forecast::quantity; all zero: the module has no limits. */
    using module_limits = std::array<forecast::limits, forecast::quantities>;
    /* Sets the limits of the module that is in a port now. The history stores them, since after a
       restart the forecast needs them before any module is read. */
    void know_limits(history::chronicle &kept, uint32_t port, const module_limits &own);

    /* Forgets everything and takes in the readings of the history: 25 s with 512 ports of 8 lanes.
       Ends early once must_stop() is true. */
    void restore(
        history::chronicle &kept, const std::function<bool()> &must_stop = [] { return false; });
    /* Takes a step that has ended; with `is_past` an hour of weeks ago. */
    void feed(const history::place &of, int64_t time, const history::record &read,
              bool is_past = false);
    /* To be called after steps and each hour. Returns the changes since the last call, which are
       also recorded in the history. */
    std::vector<news> settle(history::chronicle &kept, const history::clocks &now);

    std::string json(const history::chronicle &kept, int64_t boot) const;
    std::vector<forecast_sample> samples(const history::chronicle &kept, int64_t boot) const;

  private:
    using key = std::tuple<int64_t, int, forecast::quantity>; /* place, lane */
    struct followed {
        forecast::port port{};
        int64_t fed = 0;
    };

    int64_t feed_all(history::chronicle &kept, const std::function<bool()> &must_stop);
    void look(int64_t present);
    std::vector<forecast::report> now_of(const history::chronicle &kept, int64_t boot,
                                         std::vector<history::place> &places) const;

    std::map<int64_t, followed> ports_;       /* by place */
    std::map<int64_t, module_limits> limits_; /* by place */
    std::map<key, forecast::report> active_;  /* at the last settle() */
    std::map<key, forecast::report> announced_;
    std::map<key, std::string> reasons_; /* why a forecast is no longer active */
};

} // namespace exporter
