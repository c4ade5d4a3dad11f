/* SPDX-License-Identifier: Apache-2.0 */
/* fall_facts - facts about a fall of a link from the details of its port. Pure functions; any
   thread, with one object at a time. Times are in ns of CLOCK_BOOTTIME. */
#pragma once

#include "causes/facts.h"
#include "platform/dolm_ric/dolm_ric_details.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace board
{

/* How a port lost its interface. */
enum class departure : uint8_t { none, removed, moved, unknown };

/* One look at a port's module, made with each change of its details. Needs no allocated memory. */
struct module_sample {
    struct lane {
        /* In mW and mA; negative where not known. */
        std::array<float, DOLM_RIC_LANE_VALUES> value = {-1, -1, -1};
        uint8_t known = 0, on = 0; /* bit n: signal n is known; signal n is present */
    };
    int64_t at = 0; /* time of the values; 0: no values */
    uint32_t presence = DOLM_RIC_PRESENCE_UNKNOWN;
    uint32_t module_state = DOLM_RIC_MODULE_STATE_NONE;
    uint32_t medium = DOLM_RIC_MEDIUM_UNKNOWN;
    char serial[sizeof(dolm_ric_details_identity::serial)] = ""; /* empty: not known */
    causes::number temperature, temperature_high_alarm, rx_low_alarm, errors, errors_limit;
    std::array<lane, DOLM_RIC_DETAILS_LANES> lane_of = {};
    size_t lane_count = 0; /* number of the port's lanes */
    int64_t lanes_at = 0;  /* when the oldest value of the lanes was read */

    std::span<const lane> lanes() const
    {
        return std::span(lane_of).first(lane_count);
    }
};

module_sample sample_of(const dolm_ric_details_record &record);

/* The serial number of the module in a record; empty where not known. */
const char *serial_in(const dolm_ric_details_record &record);

/* When the newest value of the module was read; 0 without values. */
int64_t values_read_at(const dolm_ric_details_record &record);

/* Drops the measured values, which may have changed since; keeps the identity of the module. */
void forget_values(module_sample &old);

/* The received light of the weakest lane in dBm; nothing if any lane's light isn't known. */
causes::number weakest_light(const module_sample &from);

/* The last looks at the light before a fall. */
class light_trail
{
  public:
    static constexpr size_t most = 30;
    void add(int64_t at, double dbm);
    void clear();
    /* Adds to the facts how much light was lost from `since` until `before`, and how fast. */
    void add_loss(int64_t since, int64_t before, causes::facts &seen) const;

  private:
    struct reading {
        int64_t at;
        double dbm;
    };
    std::array<reading, most> readings_ = {};
    size_t count_ = 0, next_ = 0;
};

/* Add the last look before the fall, and the first look after it, `age` seconds later; the values
   of that look count only if the link was still down. add_look_after() returns whether there was a
   new fact. */
void add_look_before(const module_sample &before, causes::facts &seen);
bool add_look_after(const module_sample &after, double age, bool is_down, causes::facts &seen);
/* Adds the first look while the link was up again. Returns whether there was a new fact. */
bool add_look_again(const module_sample &again, causes::facts &seen);

/* Add the state of the link before the fall, and after it came back. */
void add_link_before(const dolm_ric_details_link &before, causes::facts &seen);
void add_link_after(const dolm_ric_details_link &after, causes::facts &seen);

/* The name of the device that an interface's parent belongs to. The functions of a PCI device
   differ in the last digit only, which is left out. */
std::string device_of(const std::string &parent);

} // namespace board
