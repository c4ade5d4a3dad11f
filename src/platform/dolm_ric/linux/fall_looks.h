/* SPDX-License-Identifier: Apache-2.0 */
/* fall_looks - facts about a fallen link from the kernel and the driver, beyond the messages that
   link_follower receives. One thread, but start() and stop() on any. Times are in ns of
   CLOCK_BOOTTIME. */
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
    /* `up` returns the interfaces whose links are up; it is called on a thread of its own. */
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
    /* Adds the facts of a fall at the time `at`. The link had been up since `up_since` (0: not
       known); `index` is its interface (0: the port has none any more), `device` the device on its
       bus. Facts that are not known stay as they are. */
    void look(int32_t index, const std::string &device, int64_t up_since, int64_t at,
              causes::facts &seen);
    /* Adds the facts of a link that has been up again since `since`. */
    void look_again(int32_t index, int64_t since, causes::facts &seen);

  private:
    kernel_notes notes_;
    error_counters counters_;
    link_states states_;
};

} // namespace linux_board
