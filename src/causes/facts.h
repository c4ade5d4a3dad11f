/* SPDX-License-Identifier: Apache-2.0 */
/* facts - what was seen of one fall of a link. Each fact is known or not; none is guessed. Pure
   data.

   "After" is the first look after the fall, "before" the last one before it: a module's flag that
   was read before the fall is no evidence for the fall. Levels of light are in dBm, by lane; a lane
   without light has -40. */
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace causes
{

using flag = std::optional<bool>;
using number = std::optional<double>;
using text = std::optional<std::string>;
using by_lane = std::optional<std::vector<double>>; /* flags as 0 and 1 */

constexpr double no_light = -40;
constexpr size_t most_lanes = 16;
constexpr size_t longest_text = 256;

struct facts {
    /* Of which port, and when. */
    text interface, device, neighbour;
    number port;
    number time;          /* seconds of UTC */
    text boot;            /* of which start of the machine this is the time, by a clock that */
    number since_boot_s;  /* nobody sets */
    number clock_error_s; /* the bound of the clock */
    number up_for_s;      /* since its last rise; not known if that wasn't seen */
    number falls_in_minute, falls_in_hour, falls_in_day; /* counting this fall */

    /* Other ports that fell within a second, or stayed up; without those that were set down. */
    number device_others_fell, device_others_stayed;   /* ports of the same device */
    number machine_others_fell, machine_others_stayed; /* ports of other devices */

    /* The kernel. True only where its message reported the fall, or came before it;
       what comes later may be the answer to the fall. Not known where messages were lost. */
    flag set_down; /* the interface was set down */
    flag interface_removed, interface_moved;
    flag driver_unbound, device_removed; /* a device that is removed loses its driver, too */
    number left_after_s;   /* the interface was gone so long after the fall: removed separately, or
                              slowly */
    flag device_reset;     /* the driver's own report of a reset; an uevent alone is none */
    text driver_error;     /* what the driver reported as failed, in its own word */
    flag settings_changed; /* speed, negotiation or FEC were changed within five seconds before */
    text extended_state;   /* the kernel's name, such as "Autoneg" */
    flag remote_fault;     /* the far end reports that it doesn't receive */
    flag negotiates;
    number speed_before, speed_after; /* Mbit/s; after: when it was up again */
    number lanes_before, lanes_after; /* of the link */
    text fec_before, fec_after;
    /* Counted in the last minute before the fall, and for how long in it: blocks of FEC, symbols
       and frames that were damaged. */
    number corrected_in_minute, uncorrectable_in_minute;
    number symbol_errors_in_minute, frame_errors_in_minute;
    number counted_for_s;
    number signal_quality_before, signal_quality_most; /* of a PHY for one pair, and its best */

    /* The module. */
    flag present_before, present_after;
    text serial_before, serial_after;
    number serial_after_s;          /* how long after the fall that was read */
    text medium;                    /* "light" or "copper" */
    text state_before, state_after; /* "ready", "low power", "starting" or "fault" */
    number temperature_before, temperature_high_alarm; /* degrees Celsius */
    by_lane rx_before, rx_after, tx_before, tx_after;
    by_lane bias_before, bias_after; /* mA */
    by_lane rx_los_after, rx_lol_after, tx_los_after;
    by_lane tx_fault_before, tx_fault_after, tx_off_before, tx_off_after;
    number rx_low_alarm;                /* dBm */
    number rx_lost_before, lost_in_s;   /* dB that the weakest lane lost, in the readings before */
    number errors_before, errors_limit; /* bit error ratio before correction, and where it fails */

    /* Whether the link came back, and in which state. */
    flag is_up;
    number down_for_s;
    by_lane rx_again;                         /* with the link up again */
    number errors_again, uncorrectable_again; /* blocks since it was up for three seconds */
};

} // namespace causes
