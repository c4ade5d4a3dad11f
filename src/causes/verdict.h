/* SPDX-License-Identifier: Apache-2.0 */
/* verdict - why a link fell, from the facts of the fall. A pure function: no clock, no files.

   A verdict that is called certain is never wrong. So a cause is certain only if there is evidence
   for it and none against it, and a fact excludes each other cause that could be certain. With
   contradictory facts a cause is at most possible. Causes that look alike from one end, such as a
   cut fibre and a far end that was switched off, are never certain. */
#pragma once

#include "causes/facts.h"

#include <cstdint>

namespace causes
{

/* In the order in which the causes are checked. */
enum class cause : uint8_t {
    set_down,
    interface_moved,
    driver_gone,
    interface_gone,
    device_reset,
    machine_wide,
    module_replaced,
    module_pulled,
    module_failed,
    module_hot,
    transmitter_fault,
    laser_dark,
    light_faded,
    light_lost,
    lane_lost,
    far_side_deaf,
    no_lock,
    errors_rose,
    settings_differ,
    negotiation_failed,
    flapping,
    not_known,
};
constexpr size_t cause_count = 22;

enum class side : uint8_t { local, remote, between, unknown };
enum class layer : uint8_t {
    administration,
    driver,
    device,
    module,
    fibre,
    pcs_fec,
    negotiation,
    unknown
};
enum class certainty : uint8_t { possible, likely, certain };

struct verdict {
    causes::cause cause = cause::not_known;
    causes::side side = side::unknown;
    causes::layer layer = layer::unknown;
    causes::certainty certainty = certainty::possible;
    std::vector<std::string> evidence;  /* sentences with values */
    std::vector<std::string> conflicts; /* sentences about facts that can't both be true */
    std::vector<std::string>
        ill;            /* in which way the link is worse than before; empty if it isn't */
    std::string settle; /* a check that would make the verdict certain, or empty */
    std::string action; /* what to do */
};

verdict judge(const facts &seen);

/* Which of two ends fell first. */
struct order {
    bool is_one_fall = true;
    bool is_known = false; /* the bounds of the clocks permit a comparison */
    bool here_first = false;
    std::string sentence;
};
/* `here` and `there` are the two ends of one fall. If no cause was found here, and a local one
   there, the other end's cause explains this end's fall, too. */
verdict judge_both(const facts &here, const facts &there, order &who);

/* Short words that don't change: "set down", "light lost"; "local", "fibre", "likely". */
const char *name_of(cause it);
const char *name_of(side it);
const char *name_of(layer it);
const char *name_of(certainty it);

} // namespace causes
