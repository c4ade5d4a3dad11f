/* SPDX-License-Identifier: Apache-2.0 */
/* fall_looks - facts about a link that fell from the kernel and the driver, beside the messages of
   link_follower. One thread; start() and stop() on any. The times are in ns of CLOCK_BOOTTIME. */
#pragma once

#include "causes/facts.h"
#include "platform/dolm_ric/linux/error_counters.h"
#include "platform/dolm_ric/linux/kernel_notes.h"
#include "platform/dolm_ric/linux/link_states.h"

#include <cstdint>
#include <string>
#include <utility>

namespace linux_board
{

class fall_looks
{
  public:
    /* `up` gives the interfaces whose links are up; called on a thread of its own. */
    void start(error_counters::interfaces up)
    {
        notes_.start();
        counters_.start(std::move(up));
        states_.start();
    }
    void stop()
    {
        notes_.stop();
        counters_.stop();
        states_.stop();
    }
    /* The facts of a fall at the time `at`, of a link that had been up since `up_since` (0: not
       known), of the interface `index` (0: the port has none any more) of a device on its bus.
       Facts that are not known stay as they are. */
    void look(int32_t index, const std::string &device, int64_t up_since, int64_t at,
              causes::facts &seen);
    /* The facts of a link that has been up again since the time `since`. */
    void look_again(int32_t index, int64_t since, causes::facts &seen);

  private:
    kernel_notes notes_;
    error_counters counters_;
    link_states states_;
};

} // namespace linux_board
