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
using by_lane = std::optional<std::vector<double>>; /* one element a lane; flags are 0 or 1 */

constexpr double no_light = -40;
constexpr size_t most_lanes = 16;
constexpr size_t longest_text = 256;

struct facts {
    /* The port, and the time of the fall. */
    text interface, device, neighbour;
    number port;
    number time;          /* seconds of UTC */
    text boot;            /* the id of the start of the machine in which `time` was taken */
    number since_boot_s;  /* nobody sets */
    number clock_error_s; /* the bound of the clock's error */
    number up_for_s;      /* from the link's rise to the fall; not known if the rise wasn't seen */
    number falls_in_minute, falls_in_hour, falls_in_day; /* number of falls, this one included */

    /* Other ports that fell within a second, or stayed up; ports that were set down don't count. */
    number device_others_fell, device_others_stayed;   /* ports of the same device */
    number machine_others_fell, machine_others_stayed; /* ports of other devices */

    /* Facts from the kernel. A flag is true only if a message reported it with the fall or before;
       a later message may be caused by the fall. Not known if messages were lost. */
    flag set_down; /* the interface was set down */
    flag interface_removed, interface_moved;
    flag driver_unbound, device_removed; /* a device that is removed also loses its driver */
    number left_after_s;   /* from the fall to the removal of the interface, if that came later */
    flag device_reset;     /* the driver itself reported a reset; a uevent alone doesn't count */
    text driver_error;     /* the part that failed, by the driver's name for it */
    flag settings_changed; /* speed, negotiation or FEC, within five seconds before the fall */
    text extended_state;   /* the kernel's name, such as "Autoneg" */
    flag remote_fault;     /* the far end reports that it receives no signal */
    flag negotiates;
    number speed_before, speed_after; /* Mbit/s; after: when the link was up again */
    number lanes_before, lanes_after; /* lanes of the link */
    text fec_before, fec_after;
    /* Errors of the last minute before the fall, and the time in which they were counted: FEC
       blocks, symbols and damaged frames. */
    number corrected_in_minute, uncorrectable_in_minute;
    number symbol_errors_in_minute, frame_errors_in_minute;
    number counted_for_s;
    number signal_quality_before, signal_quality_most; /* of a PHY for one pair, and the best one */

    /* The module. */
    flag present_before, present_after;
    text serial_before, serial_after;
    number serial_after_s;          /* seconds from the fall to this reading */
    text medium;                    /* "light" or "copper" */
    text state_before, state_after; /* "ready", "low power", "starting" or "fault" */
    number temperature_before, temperature_high_alarm; /* degrees Celsius */
    by_lane rx_before, rx_after, tx_before, tx_after;
    by_lane bias_before, bias_after; /* mA */
    by_lane rx_los_after, rx_lol_after, tx_los_after;
    by_lane tx_fault_before, tx_fault_after, tx_off_before, tx_off_after;
    number rx_low_alarm;                /* dBm */
    number rx_lost_before, lost_in_s;   /* dB that the weakest lane lost before, in lost_in_s */
    number errors_before, errors_limit; /* bit error ratio before correction, and its limit */

    /* Whether the link came back, and in which state. */
    flag is_up;
    number down_for_s;
    by_lane rx_again;                         /* rx power when the link was up again */
    number errors_again, uncorrectable_again; /* blocks, from 3 s after the link was up again */
};

} // namespace causes
