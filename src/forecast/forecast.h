/* SPDX-License-Identifier: Apache-2.0 */
/* forecast - announces the failure of a port's module or of its light, days before a limit is
   crossed.

   Readings of one port go in, one by one and in the order of their time; reports come out. The
   library reads no clock and no file; a report uses only the readings given so far. A port with
   eight lanes takes at most 64 KiB, whatever the readings are. Not thread-safe: one port, one
   thread at a time. No function throws but for exhausted memory.

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
    temperature, /* degrees Celsius; of the whole module, lane 0 */
};
constexpr int quantities = 5;

enum class cause : uint8_t {
    light_lost,   /* dirt, a bend, or the far end's laser */
    laser_ageing, /* this module's laser */
    overheating,  /* a fan, a filter or dust */
    signal_worse, /* more bit errors, with unchanged powers */
    step,         /* a sudden loss: a notice, no forecast */
};

/* In the unit of the quantity. Limits that aren't in ascending order count as missing. */
struct limits {
    double low_alarm = 0, low_warning = 0, high_warning = 0, high_alarm = 0;
};

/* A value that isn't a number was not measured. */
struct lane_reading {
    double rx_uw, tx_uw, bias_ma, error_ratio;
};

struct reading {
    int64_t time; /* seconds of the box's clock, which may be wrong */
    bool has_link, has_module;
    std::string_view serial; /* empty: unknown */
    double temperature_c, voltage_v;
    std::span<const lane_reading> lanes;
    /* A reading of weeks ago, fed after a start: such readings are evaluated once a day, not each
       three hours. */
    bool is_past = false;
};

enum class change : uint8_t { raised, changed, withdrawn, notice };

struct report {
    change what;
    int64_t time; /* time of the reading that led to the report */
    int lane;     /* from 1; 0: the whole module */
    quantity value;
    forecast::cause cause;
    double days_left, low, high; /* days from `time` on; low to high is an interval of 80 % */
    double level, limit;         /* in the unit of the quantity; powers in dBm */
    bool is_default_limit;       /* the module has no valid limit of its own */
    double change_per_day;       /* in dB, percent of bias, degrees or decades */
    double days_since;           /* duration of the fall so far, at least */
    const char *confidence;      /* "fair", "good" or "high" */
    std::string reason;          /* a sentence: the evidence, or why the alarm was withdrawn */
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
    /* Appends to `reports` the alarms that the reading changed. A reading less than four minutes
       after the previous one is left out, and so are lanes beyond the 64th. */
    void feed(const reading &next, std::vector<report> &reports);
    /* The present forecasts: for each alarm that is raised and not withdrawn, the result of the
       last look at its readings. Looks are three hours apart; the report's time is that of the
       look. */
    std::vector<report> standing() const;

  private:
    std::unique_ptr<port_state> state_;
};

/* As in a file of readings: "rx_uw", "light_lost". */
const char *name_of(quantity value);
const char *name_of(cause why);

} // namespace forecast
