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

/* Blocks of three hours: short enough for a fade of two days and for the swing within a day, long
   enough for a mean of 36 readings with little noise. Eight weeks: the horizon, and twice as much
   for comparison. */
constexpr int64_t block_seconds = int64_t{3} * 3600;
constexpr int blocks_a_day = 8;
constexpr int kept_days = 56;
constexpr int kept_blocks = kept_days * blocks_a_day;
constexpr float none = std::numeric_limits<float>::quiet_NaN();

/* A ring of levels, 16 bits each, indexed by the number of their block. */
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
    /* Not a number if the block has no value. The caller asks only for the last kept_blocks. */
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

/* How a level depends on temperature: linearly and with the square, starting from the values of
   physics. Learnt from differences within a day, which contain neither a fade nor a season. */
class temperature_slope
{
  public:
    explicit temperature_slope(const rules &known) : rules_(&known), scale_(known.noise)
    {
    }
    /* Differences from the middle of the surrounding day: of the level, the temperature and its
       square. */
    void learn(double level, double warmth, double square);
    void solve();
    /* The change of the level caused by a change of temperature. */
    double effect(double from, double to) const;
    /* The uncertainty of effect(): one standard deviation. */
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

    /* Adds a reading: seconds of the series, measured value, temperature (or not a number). If the
       reading shows a step that begins a new series, returns the change of the level. `expected` is
       the fall per day of a known fade. */
    std::optional<double> add(int64_t seconds, double measured, double temperature,
                              double expected);
    /* The link or the module was away, or readings are missing: a step is more likely then. */
    void note_event()
    {
        since_event_ = 0;
    }
    /* Ends a block; `temperatures` already contains its middle. */
    void close(int64_t block, const block_ring &temperatures);
    /* Begins again for another module: everything learnt is dropped. */
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
    /* How much an earlier series of this module fell and recovered; it decays over two months. */
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
    static constexpr int rows_a_block = 45; /* as readings are at least four minutes apart */
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

/* The middle of the blocks of the day that ends with block `last`: the level as it would be at the
   temperature `reference`. Not a number with fewer than two blocks, or before `first`. */
struct day {
    float level, corrected, temperature, lowest, spread;
};
day day_of(const series &of, const block_ring &temperatures, int64_t last, double reference);

/* The mean of the values without the lowest and the highest quarter. Reorders the values. */
double middle(std::span<float> values);

} // namespace forecast
