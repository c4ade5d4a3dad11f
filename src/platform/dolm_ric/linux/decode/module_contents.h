/* SPDX-License-Identifier: Apache-2.0 */
/* module_contents - the content of a module's memory, decoded but neither rounded nor graded.
   Pure data. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace linux_board
{

/* The module's own alarm and warning flags of one value. Reading the flags clears them, so another
   reader may have cleared them first: they are shown to developers only, and no grade depends on
   them. */
enum measurement_flag : uint8_t {
    low_warning_flag = 1,
    high_warning_flag = 2,
    low_alarm_flag = 4,
    high_alarm_flag = 8,
};

/* Limits in the unit of the values that they apply to. */
struct measurement_limits {
    double high_alarm;
    double low_alarm;
    double high_warning;
    double low_warning;

    /* Limits in any other order, such as all zeros, are invalid. */
    bool are_in_order() const
    {
        return low_alarm <= low_warning && low_warning < high_warning && high_warning <= high_alarm;
    }
};

struct lane_value {
    uint8_t lane; /* from 0 */
    double value;
    uint8_t flags; /* measurement_flag */
};

/* Temperatures and voltages have one lane. A measurement without lanes isn't measured. Limits that
   are not in order are kept as they are; module_decode.h says how they are treated. */
struct measurement {
    std::vector<lane_value> lanes;
    std::optional<measurement_limits> limits;
    bool is_claimed = false; /* the module has this auxiliary monitor, running or not */
};

enum class module_family : uint8_t { unknown, sfp, qsfp, cmis };

enum class diagnostics_state : uint8_t {
    none,     /* by its identity the module has no diagnostics, or none that can be reached */
    not_read, /* the diagnostics are expected, but not yet read, or invalid */
    available,
};

struct module_contents {
    module_family family = module_family::unknown;
    /* The identity has been read and its checksums are right. Otherwise no other member is
       valid. */
    bool ready = false;
    diagnostics_state diagnostics = diagnostics_state::none;
    /* The module is for copper: none of its values is a power of light. */
    bool copper = false;
    bool externally_calibrated = false;
    bool has_average_power = false; /* false: rx power is the modulation amplitude (OMA) */
    bool has_flags = false;
    bool has_trusted_sum = false; /* a checksum is wrong, but the owner trusts the module */
    /* Bit n: lane n. Lanes are off if the host has switched off their transmitters, or both
       directions: such lanes are dark on purpose. They have values, which are not graded. */
    uint32_t rx_los_lanes = 0;
    uint32_t tx_fault_lanes = 0;
    uint32_t tx_off_lanes = 0;
    uint32_t rx_off_lanes = 0;
    uint32_t tx_off_unread = 0; /* lanes with unknown switches: a dark lane may be off on purpose */
    /* For each lane of the host, the lanes of light that carry it. Empty: host lane n is lane n of
       light. */
    std::vector<uint32_t> lanes_of_host = {};

    dolm_sfp_info identity = {};

    /* In the units of dolm_ric_module_diag: 0.001 degrees Celsius, microvolts, microamperes and
       microwatts. */
    measurement temperature;
    measurement voltage;
    measurement laser_temperature;
    measurement tec_current; /* 0.001 percent of the largest */
    measurement tx_bias;
    measurement tx_power;
    measurement rx_power;

    /* Constant texts, one for each fault that was found in the memory. */
    std::vector<const char *> doubts;
};

} // namespace linux_board
