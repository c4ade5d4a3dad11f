/* SPDX-License-Identifier: Apache-2.0 */
/* look() adds the interface to the wanted ones, and waits until the thread has removed it;
   take_link_state() names the codes of the answer. */
#include "platform/dolm_ric/linux/link_states.h"

#include "platform/dolm_ric/port_details.h"
#include "util/poll.h"

#include <exception>
#include <iterator>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>

namespace linux_board
{

/* The kernel answers at once or holds its lock. */
static constexpr std::chrono::seconds answer_patience{1};

/* Interfaces come and go; answers of interfaces that no longer exist are dropped beyond this
   number. */
static constexpr size_t most_answers = 1024;

/* Indexed by the kernel's number, in the words of ethtool. */
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

void link_states::start()
{
    thread_.start("dolm-ric-states", [this] { run(); });
}

void link_states::stop()
{
    thread_.stop();
}

void link_states::look(int32_t index, int64_t since, causes::facts &seen)
{
    std::unique_lock guard(lock_);
    wanted_.insert(index);
    thread_.wake();
    if (!is_stuck_)
        is_stuck_ = !answered_.wait_for(guard, patience, [&] { return !wanted_.contains(index); });
    const auto found = answers_.find(index);
    if (found == answers_.end() || found->second.asked_at < since)
        return;
    const causes::facts &answered = found->second.seen;
    seen.extended_state = answered.extended_state ? answered.extended_state : seen.extended_state;
    seen.remote_fault = answered.remote_fault ? answered.remote_fault : seen.remote_fault;
}

std::optional<int32_t> link_states::next_wanted()
{
    const std::lock_guard guard(lock_);
    return wanted_.empty() ? std::nullopt : std::optional(*wanted_.begin());
}

/* If there is no connection or no memory, no state is known; the next look tries again. */
void link_states::run()
{
    while (!thread_.is_stopping()) {
        const auto index = next_wanted();
        if (!index) {
            pollfd woken = {thread_.wake_fd(), POLLIN, 0};
            util::poll_or_pause({&woken, 1}, -1);
            thread_.clear_wake();
            continue;
        }
        try {
            ask(*index);
        } catch (const std::exception &) {
            ethtool_.reset();
        }
        const std::lock_guard guard(lock_);
        wanted_.erase(*index);
        is_stuck_ = false;
        answered_.notify_all();
    }
}

void link_states::ask(int32_t index)
{
    if (!ethtool_)
        ethtool_.emplace(NETLINK_GENERIC);
    if (family_ == 0)
        family_ = netlink::find_family(*ethtool_, ETHTOOL_GENL_NAME);
    if (family_ == 0)
        return;
    answer made = {.asked_at = board::details_time(), .seen = {}};
    netlink::request question = netlink::ethtool_request(family_, ETHTOOL_MSG_LINKSTATE_GET,
                                                         ETHTOOL_A_LINKSTATE_HEADER, index);
    const int error = ethtool_->ask(question, answer_patience, [&](const netlink::message &its) {
        take_link_state(netlink::generic_attributes(its), made.seen);
    });
    if (error != 0)
        return;
    const std::lock_guard guard(lock_);
    if (answers_.size() >= most_answers)
        answers_.clear();
    answers_[index] = std::move(made);
}

} // namespace linux_board
