/* SPDX-License-Identifier: Apache-2.0 */
/* look() asks for the state of a link, and adds the counters of the driver and the messages of the
   kernel. */
#include "platform/dolm_ric/linux/fall_looks.h"

namespace linux_board
{

/* A changed setting is reported at once, and the fall that follows up to a second later; a driver
   that leaves its device is reported after the removal of the device's interfaces. */
void fall_looks::look(int32_t index, const std::string &device, int64_t up_since, int64_t at,
                      causes::facts &seen)
{
    constexpr int64_t second = 1'000'000'000;
    if (index != 0) {
        counters_.want(index, at, 1);
        states_.look(index, at, seen);
        counters_.add_before(index, up_since, at, seen);
        seen.settings_changed =
            notes_.were_settings_changed(index, at - 5 * second, at + second / 4);
    }
    if (device.empty())
        return;
    seen.driver_unbound = notes_.was_unbound(device, at - second, at + 2 * second);
    seen.device_removed = notes_.was_removed(device, at - second, at + 2 * second);
    seen.driver_error = notes_.error_reported(device, at - 5 * second, at + 2 * second);
}

void fall_looks::look_again(int32_t index, int64_t since, causes::facts &seen)
{
    if (index == 0)
        return;
    counters_.want(index, since, 2);
    counters_.add_again(index, since, seen);
}

} // namespace linux_board
