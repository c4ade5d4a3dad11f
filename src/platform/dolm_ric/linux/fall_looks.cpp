/* SPDX-License-Identifier: Apache-2.0 */
/* look() asks for the state of a link, whose codes take_link_state() names, and what the kernel has
   told of its own accord. */
#include "platform/dolm_ric/linux/fall_looks.h"

#include <chrono>
#include <iterator>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <system_error>

namespace linux_board
{

/* The kernel answers at once or holds its lock. */
static constexpr std::chrono::seconds answer_patience{1};

/* By the kernel's number, in the words of ethtool. */
static constexpr const char *extended_states[] = {"Autoneg",
                                                  "Link training failure",
                                                  "Link logical mismatch",
                                                  "Bad signal integrity",
                                                  "No cable",
                                                  "Cable issue",
                                                  "EEPROM issue",
                                                  "Calibration failure",
                                                  "Power budget exceeded",
                                                  "Overheat",
                                                  "Module"};
static_assert(ETHTOOL_LINK_EXT_STATE_MODULE + 1 == std::size(extended_states));

void take_link_state(netlink::byte_view attributes, causes::facts &seen)
{
    const auto state = netlink::read_record<uint8_t>(
        netlink::find_attribute(attributes, ETHTOOL_A_LINKSTATE_EXT_STATE));
    const auto substate = netlink::read_record<uint8_t>(
        netlink::find_attribute(attributes, ETHTOOL_A_LINKSTATE_EXT_SUBSTATE));
    if (!state || *state >= std::size(extended_states))
        return;
    seen.extended_state = extended_states[*state];
    if (*state == ETHTOOL_LINK_EXT_STATE_LINK_TRAINING_FAILURE && substate)
        seen.remote_fault = *substate == ETHTOOL_LINK_EXT_SUBSTATE_LT_REMOTE_FAULT;
}

/* Without a connection the facts aren't known; the next look tries again. */
void fall_looks::ask_state(int32_t index, causes::facts &seen)
{
    try {
        if (!ethtool_)
            ethtool_.emplace(NETLINK_GENERIC);
        if (family_ == 0)
            family_ = netlink::find_family(*ethtool_, ETHTOOL_GENL_NAME);
    } catch (const std::system_error &) {
        return;
    }
    if (family_ == 0)
        return;
    netlink::request question = netlink::ethtool_request(family_, ETHTOOL_MSG_LINKSTATE_GET,
                                                         ETHTOOL_A_LINKSTATE_HEADER, index);
    ethtool_->ask(question, answer_patience, [&](const netlink::message &answer) {
        take_link_state(netlink::generic_attributes(answer), seen);
    });
}

/* A changed setting is reported at once, and the fall that follows up to a second later; a driver
   that is unbound is reported behind the removal of its interfaces. */
void fall_looks::look(int32_t index, const std::string &device, int64_t up_since, int64_t at,
                      causes::facts &seen)
{
    constexpr int64_t second = 1'000'000'000;
    if (index != 0) {
        counters_.want(index, at, 1);
        ask_state(index, seen);
        counters_.tell_before(index, up_since, at, seen);
        seen.settings_changed =
            notes_.were_settings_changed(index, at - 5 * second, at + second / 4);
    }
    if (device.empty())
        return;
    seen.driver_unbound = notes_.was_unbound(device, at - second, at + 2 * second);
    seen.driver_error = notes_.error_reported(device, at - 5 * second, at + 2 * second);
}

void fall_looks::look_again(int32_t index, int64_t since, causes::facts &seen)
{
    if (index == 0)
        return;
    counters_.want(index, since, 2);
    counters_.tell_again(index, since, seen);
}

} // namespace linux_board
