/* SPDX-License-Identifier: Apache-2.0 */
/* signs - conclusions from the facts of a fall: each is yes, no or not known, with a sentence for
   people. Pure functions. */
#pragma once

#include "causes/facts.h"

#include <cstdint>

namespace causes
{

enum class answer : uint8_t { unknown, no, yes };

struct sign {
    answer is = answer::unknown;
    std::string sentence; /* set if `is` is yes */
};
using sign_of = sign (*)(const facts &);

sign was_set_down(const facts &seen);
sign has_moved(const facts &seen);
sign was_unbound(const facts &seen);
sign was_removed(const facts &seen);
sign has_stayed(const facts &seen);
sign may_have_left(const facts &seen);      /* never unknown */
sign has_left_later(const facts &seen);     /* never no */
sign have_others_fallen(const facts &seen); /* other ports of the same device */
sign have_others_stayed(const facts &seen);
sign has_one_other_fallen(const facts &seen); /* one port of any device; never unknown */
sign is_rest_unknown(const facts &seen);      /* for ports of other devices; never unknown */
sign was_reset(const facts &seen);
sign fell_with_device(const facts &seen);
sign fell_with_machine(const facts &seen);
sign was_replaced(const facts &seen);
sign is_module_gone(const facts &seen);
sign does_module_answer(const facts &seen);
sign has_another_serial(const facts &seen); /* whenever the number was read; never unknown */
sign was_no_module_there(const facts &seen);
sign has_module_failed(const facts &seen);
sign is_module_hot(const facts &seen);
sign says_module_gone(const facts &seen); /* by the extended state, like the next two functions */
sign says_module_failed(const facts &seen);
sign says_module_hot(const facts &seen);
sign has_tx_fault(const facts &seen);
sign was_switched_off(const facts &seen); /* about this end's transmitter */
sign is_laser_dark(const facts &seen);
sign has_laser_weakened(const facts &seen);
bool is_laser_on(const facts &seen); /* known to be on, on each lane */
sign has_faded(const facts &seen);
sign is_all_dark(const facts &seen);
sign was_no_light_seen(const facts &seen); /* before the fall; never unknown */
sign is_one_lane_dark(const facts &seen);
sign is_light_there(const facts &seen);
sign is_light_missing(const facts &seen);      /* on some lane */
sign is_light_seen_missing(const facts &seen); /* on some lane; never unknown */
sign has_link_fault(const facts &seen);        /* of module or light, before or after the fall */
sign has_driver_error(const facts &seen);      /* never no */
/* A fault of the driver, the module or the light that may have brought the link down before the
   interface was set down. */
sign has_earlier_fault(const facts &seen);
sign has_module_gone_or_failed(const facts &seen); /* never unknown */
sign says_far_side_deaf(const facts &seen);
sign has_no_lock(const facts &seen);
sign have_errors_risen(const facts &seen);
sign were_few_counted(const facts &seen); /* never unknown */
sign do_settings_differ(const facts &seen);
sign has_negotiation_failed(const facts &seen);
sign is_flapping(const facts &seen);
sign is_copper(const facts &seen);

/* Facts that can't both be true, as sentences. */
std::vector<std::string> conflicts_of(const facts &seen);
/* How a link that came back is worse than before. */
std::vector<std::string> illness_of(const facts &seen);

} // namespace causes
