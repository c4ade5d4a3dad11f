/* SPDX-License-Identifier: Apache-2.0 */
/* plots - the measured values of one port over the last day in fixed memory. Main thread only.

   The last hour is kept in slots of 15 s, each with the last value that was read in it; the last
   day in slots of 10 minutes, each with the least and the greatest value, so that a short dip
   remains visible. Values have 16 bits: 10 bytes for a short slot, 20 for a long one, 5280 for a
   port, which are allocated with its first value. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

namespace exporter
{

/* The plotted values; each is an index into a slot. */
enum plotted : size_t {
    plotted_tx_power,    /* 0.01 dBm */
    plotted_rx_power,    /* 0.01 dBm */
    plotted_temperature, /* 0.1 degrees Celsius */
    plotted_voltage,     /* 1 mV */
    plotted_bias,        /* 0.01 mA, up to 327.67 */
    plotted_values,      /* number of plotted values */
};

class plots
{
  public:
    static constexpr int16_t absent = INT16_MIN;
    static constexpr uint64_t hour_step_s = 15;
    static constexpr uint64_t day_step_s = 600;
    static constexpr size_t hour_slots = 240;
    static constexpr size_t day_slots = 144;

    using slot = std::array<int16_t, plotted_values>;
    struct range {
        slot least;
        slot greatest;
    };

    /* Adds a reading. `now_s` is in seconds of any clock that never goes back. */
    void add(const tesk_client_pm &pm, uint64_t now_s);

    /* The slot that is `age` slots older than that of `now_s`; its values are absent if nothing was
       read then, or if the slot is too old. */
    slot hour(uint64_t now_s, size_t age) const;
    range day(uint64_t now_s, size_t age) const;

    /* Converts a stored number to the unit of teskctl's key. */
    static double in_unit(plotted value, int16_t stored);

  private:
    struct rings {
        std::array<slot, hour_slots> hour;
        std::array<range, day_slots> day;
        uint64_t hour_end; /* number of the newest slot */
        uint64_t day_end;
    };
    void advance(uint64_t now_s);

    std::unique_ptr<rings> rings_;
};

} // namespace exporter
