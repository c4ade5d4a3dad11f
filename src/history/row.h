/* SPDX-License-Identifier: Apache-2.0 */
/* row - the measured values of a port as the history stores them: 16 bits each, one value for a
   step of five minutes, three for an hour or a day. No state, no clock.

   A blob begins with the number of lanes (bit 7: it has error ratios), and the share of the time in
   which the link was operational, in percent; 255 if not known. Then come 16-bit numbers,
   little-endian: temperature, voltage, and for each lane receive power, transmit power, bias and,
   where bit 7 is set, the error ratio. For hours and days there are three such lists: least,
   middle, greatest. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace history
{

enum class measure : uint8_t {
    temperature, /* degrees Celsius, in steps of 0.01 */
    voltage,     /* volts; 0.2 mV */
    rx_power,    /* dBm in steps of 0.002 dB, finer than the noise that forecasts average out */
    tx_power,    /* dBm; 0.002 dB */
    bias,        /* milliamperes; 0.01 mA */
    error_ratio, /* decimal logarithm, in steps of 0.001 */
};

/* The order of a row's values: temperature and voltage, then those of each lane. */
inline constexpr size_t per_port = 2, per_lane = 4;
inline constexpr size_t most_lanes = 64;
inline constexpr int16_t absent = INT16_MIN;
inline constexpr uint8_t unknown_share = 255;

measure measure_at(size_t index);
/* The step in which a value is stored: `multiple` times the last of so many decimal places. */
struct decimal_step {
    int multiple, places;
};
decimal_step step_of(measure what);
/* A value that is not a number, such as the logarithm of no light, is stored as `absent`, and read
   back as not a number. */
int16_t stored(measure what, double value);
double value_of(measure what, int16_t kept);

using row = std::vector<int16_t>; /* per_port + lanes * per_lane values */

struct record {
    uint8_t link = unknown_share; /* percent of the time with a link */
    row middle;
    row least, greatest; /* empty for a step */
};

/* For a step only the middle is written. */
std::string encode(const record &kept, bool is_summary);
/* Nothing if the bytes can't be a record. */
std::optional<record> decode(std::string_view blob);

/* Combines records of shorter times, or readings, into one record of a longer time. The middle is
   the median of the first `most_middles` middle values. */
class accumulator
{
  public:
    void add(const record &next);
    bool is_empty() const
    {
        return count_ == 0;
    }
    /* The record of everything added; starts again with an empty one. */
    record finish();

  private:
    static constexpr size_t most_middles = 64; /* readings of five minutes; bounds memory */

    size_t count_ = 0;
    uint32_t link_sum_ = 0, link_count_ = 0;
    std::vector<row> middles_;
    row least_, greatest_;
};

} // namespace history
