/* SPDX-License-Identifier: Apache-2.0 */
/* forecast - announces the failure of a port's module or of its light, days before a limit is
   crossed.

   Readings of one port go in, one by one and in the order of their time; reports come out. The
   library reads no clock and no file, and uses no reading before it was given. A port with eight
   lanes takes at most 64 KiB, whatever it is given. Not thread-safe: one port, one thread at a
   time. No function throws but for exhausted memory.

   Order of work: `believed_time` decides whether the time of a reading is used; `series` keeps a
   value of a lane as blocks of three hours, learns its slope with temperature and finds steps;
   `trend` looks for a fall in the last days of a series; `alarm` raises, changes and withdraws. */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace forecast
{

enum class quantity : uint8_t {
    rx_power,    /* microwatts */
    tx_power,    /* microwatts */
    bias,        /* milliamperes */
    error_ratio, /* bit errors before correction, 0 to 1 */
    temperature, /* degrees Celsius; of the module, lane 0 */
};
constexpr int quantities = 5;

enum class cause : uint8_t {
    light_lost,   /* dirt, a bend, or the far laser */
    laser_ageing, /* the own laser */
    overheating,  /* a fan, a filter, dust */
    signal_worse, /* more bit errors, with powers as before */
    step,         /* a loss at once: a notice, no forecast */
};

/* In the unit of the quantity. Limits that aren't in ascending order count as missing. */
struct limits {
    double low_alarm = 0, low_warning = 0, high_warning = 0, high_alarm = 0;
};

/* Not a number: not measured. */
struct lane_reading {
    double rx_uw, tx_uw, bias_ma, error_ratio;
};

struct reading {
    int64_t time; /* seconds; the clock of the box, which may be wrong */
    bool has_link, has_module;
    std::string_view serial; /* empty: unknown */
    double temperature_c, voltage_v;
    std::span<const lane_reading> lanes;
    /* Of weeks ago, taken in after a start: looked at once a day, not each three hours. */
    bool is_past = false;
};

enum class change : uint8_t { raised, changed, withdrawn, notice };

struct report {
    change what;
    int64_t time; /* that of the reading with which it was found */
    int lane;     /* from 1; 0: the module */
    quantity value;
    forecast::cause cause;
    double days_left, low, high; /* from `time` on; low to high is an interval of 80 % */
    double level, limit;         /* in the unit of the quantity, or in dBm */
    bool is_default_limit;       /* the module has none that can be right */
    double change_per_day;       /* in dB, percent of bias, degrees, or decades */
    double days_since;           /* how long the fall has been going on, at least */
    const char *confidence;      /* "fair", "good" or "high" */
    std::string reason;          /* a sentence: the evidence, or why it was withdrawn */
};

class port_state;

class port
{
  public:
    port();
    port(port &&) noexcept;
    ~port();

    /* Limits may be set at any time: the next look at the readings uses them. */
    void set_limits(quantity value, const limits &own);
    /* Appends to `reports` what the reading changed. Readings nearer than four minutes to the one
       before are left out, and so are lanes beyond the 64th. */
    void feed(const reading &next, std::vector<report> &reports);
    /* The forecasts that hold now: for each alarm that is raised and not withdrawn, the result of
       the last look at its readings. Looks are three hours apart; `time` is that of the look. */
    std::vector<report> standing() const;

  private:
    std::unique_ptr<port_state> state_;
};

/* As in a file of readings: "rx_uw", "light_lost". */
const char *name_of(quantity value);
const char *name_of(cause why);

} // namespace forecast
