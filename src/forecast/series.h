/* SPDX-License-Identifier: Apache-2.0 */
/* series - one value of one lane over eight weeks, in fixed memory: blocks of three hours, the
   slope with temperature, and steps. One thread at a time. */
#pragma once

#include "forecast/rules.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

namespace forecast
{

/* Three hours: short enough for a fade of two days and for the swing of a day, long enough for a
   middle of 36 readings without noise. Eight weeks: the horizon and twice as much to compare. */
constexpr int64_t block_seconds = int64_t{3} * 3600;
constexpr int blocks_a_day = 8;
constexpr int kept_days = 56;
constexpr int kept_blocks = kept_days * blocks_a_day;
constexpr float none = std::numeric_limits<float>::quiet_NaN();

/* A ring of levels by the number of their block, 16 bits each. */
class block_ring
{
  public:
    explicit block_ring(double resolution) : resolution_(static_cast<float>(resolution))
    {
        clear();
    }
    void clear()
    {
        kept_.fill(missing);
    }
    void put(int64_t block, float level);
    /* Not a number where nothing is known. The caller keeps to the last kept_blocks. */
    float at(int64_t block) const
    {
        const int16_t found = kept_[static_cast<size_t>(block % kept_blocks)];
        return found == missing ? none : static_cast<float>(found) * resolution_;
    }

  private:
    static constexpr int16_t missing = INT16_MIN;
    float resolution_;
    std::array<int16_t, kept_blocks> kept_;
};

/* How a level follows temperature: straight and square, with what is known of physics as the
   start. Learnt from the differences within a day, in which neither a fade nor a season shows. */
class temperature_slope
{
  public:
    explicit temperature_slope(const rules &known) : rules_(&known), scale_(known.noise)
    {
    }
    /* Differences from the middle of the day around: of level, temperature, and square. */
    void learn(double level, double warmth, double square);
    void solve();
    /* The change of the level by a change of the temperature. */
    double effect(double from, double to) const;
    /* How wrong that may be: one standard deviation. */
    double doubt(double from, double to) const;

  private:
    const rules *rules_;
    double scale_;
    double ww_ = 0, ws_ = 0, ss_ = 0, wl_ = 0, sl_ = 0;
    float slope_ = 0, curve_ = 0, var_slope_ = 0, var_both_ = 0, var_curve_ = 0;
};

class series
{
  public:
    explicit series(quantity value);

    /* A reading: seconds of the series, measured value, temperature (or not a number). A result is
       a step that begins a new series: the change of the level. `expected` is how much the level
       falls a day by what is known. */
    std::optional<double> add(int64_t seconds, double measured, double temperature,
                              double expected);
    /* The link or the module was away, or readings are missing: a step is likelier. */
    void note_event()
    {
        since_event_ = 0;
    }
    /* Ends a block; `temperatures` already has its middle. */
    void close(int64_t block, const block_ring &temperatures);
    /* Begins anew for another module: nothing that was learnt holds. */
    void restart(int64_t block);

    quantity value() const
    {
        return value_;
    }
    const block_ring &blocks() const
    {
        return blocks_;
    }
    /* The first block of the present series. */
    int64_t first() const
    {
        return first_;
    }
    const temperature_slope &slope() const
    {
        return slope_;
    }
    /* Standard deviation of the change from one day to the next. */
    double noise() const
    {
        return std::sqrt(noise_);
    }
    /* The resolution of the module's readings, as a change of the level at its present value. */
    double quantum() const;
    /* What an earlier series of this module fell and recovered by, fading within two months. */
    double past_excursion() const
    {
        return excursion_;
    }
    void remember_excursion(double found);

  private:
    struct recent {
        float level, temperature;
        uint32_t seconds;
    };
    static constexpr int rows_a_block = 45; /* readings are four minutes apart, at least */
    static constexpr int half = 6;          /* readings on each side of a step: half an hour */

    bool find_step(double expected, double &change) const;
    void learn_slope(int64_t block, const block_ring &temperatures);
    void learn_noise(int64_t block, const block_ring &temperatures);

    quantity value_;
    uint8_t rows_ = 0, recents_ = 0;
    uint16_t since_event_ = UINT16_MAX;
    int64_t first_ = 0;
    double noise_;
    float excursion_ = 0;
    float row_noise_, last_measured_ = none, quantum_ = none;
    temperature_slope slope_;
    block_ring blocks_;
    std::array<float, rows_a_block> row_;
    std::array<recent, size_t{2} * half> recent_;
};

/* The middle of a day's blocks, the last of which is `last`: level without what the temperature
   makes of it, as if it were `reference`. Not a number with fewer than two blocks, or before
   `first`. */
struct day {
    float level, corrected, temperature, lowest, spread;
};
day day_of(const series &of, const block_ring &temperatures, int64_t last, double reference);

/* Middle of the values, of which the quarter at each end is left out. Reorders them. */
double middle(std::span<float> values);

} // namespace forecast
