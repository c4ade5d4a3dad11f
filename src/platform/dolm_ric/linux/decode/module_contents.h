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

/* The module's own alarm and warning flags of one value. Modules clear them when they are read, so
   that another reader may have cleared them first: they are shown to developers only, and no grade
   depends on them. */
enum measurement_flag : uint8_t {
    low_warning_flag = 1,
    high_warning_flag = 2,
    low_alarm_flag = 4,
    high_alarm_flag = 8,
};

/* In the unit of the values that they belong to. */
struct measurement_limits {
    double high_alarm;
    double low_alarm;
    double high_warning;
    double low_warning;

    /* Limits in any other order, all zeros among them, are nonsense. */
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

/* Temperatures and voltages have one lane. Without lanes it isn't measured. Limits that are not in
   order stay here as they are; module_decode.h has the rule for them. */
struct measurement {
    std::vector<lane_value> lanes;
    std::optional<measurement_limits> limits;
    bool is_claimed = false; /* an auxiliary monitor that the module has, running or not */
};

enum class module_family : uint8_t { unknown, sfp, qsfp, cmis };

enum class diagnostics_state : uint8_t {
    none,     /* by its identity the module has none, or none that can be reached */
    not_read, /* expected of this module, but not read yet, or invalid */
    available,
};

struct module_contents {
    module_family family = module_family::unknown;
    /* The identity has been read and its checksums are right. Nothing else is valid without. */
    bool ready = false;
    diagnostics_state diagnostics = diagnostics_state::none;
    /* Of copper: no measured value of it is light. */
    bool copper = false;
    bool externally_calibrated = false;
    bool has_average_power = false; /* otherwise rx power is the modulation amplitude (OMA) */
    bool has_flags = false;
    bool has_trusted_sum = false; /* a checksum is wrong, and the owner trusts the module */
    /* Bit n: lane n. Lanes that are off are dark on purpose: the host has switched off their
       transmitters, or both directions. They have values and count for no grade. */
    uint32_t rx_los_lanes = 0;
    uint32_t tx_fault_lanes = 0;
    uint32_t tx_off_lanes = 0;
    uint32_t rx_off_lanes = 0;
    uint32_t tx_off_unread = 0; /* the host's switches are not known: dark may be on purpose */
    /* By lane of the host, the lanes of light that carry it. Empty: each carries its own. */
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

    /* Constant texts, each with something that was found wrong. */
    std::vector<const char *> doubts;
};

} // namespace linux_board
