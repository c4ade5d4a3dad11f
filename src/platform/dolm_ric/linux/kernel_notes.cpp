/* SPDX-License-Identifier: Apache-2.0 */
/* Three sockets receive the notices of ethtool and devlink, and the kernel's uevents. For each kind
   of message and each interface or device, the time of the latest message is kept. */
#include "platform/dolm_ric/linux/kernel_notes.h"

#include "platform/dolm_ric/port_details.h"
#include "util/poll.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <linux/devlink.h>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <system_error>

namespace linux_board
{

static constexpr int buffer_of_notes = 1 << 18;

/* The most interfaces or devices with a note, for each kind of message; beyond it the oldest note
   is dropped. */
static constexpr size_t most_notes = 4096;

/* The multicast group of all uevents that the kernel itself sends. */
static constexpr uint32_t uevent_group = 1;

/* Uevents of devices are sent only to network namespaces of the initial user namespace. */
static bool is_first_user_namespace()
{
    std::ifstream map("/proc/self/uid_map");
    uint64_t inside = 1, outside = 1, count = 0;
    map >> inside >> outside >> count;
    return inside == 0 && outside == 0 && count == UINT32_MAX;
}

/* Leaves `made` empty where the kernel has no such group. */
static void join_group(int protocol, uint32_t (*group)(netlink::connection &),
                       std::optional<netlink::connection> &made)
{
    made.reset();
    try {
        made.emplace(protocol, buffer_of_notes);
        const uint32_t joined = group(*made);
        if (joined != 0)
            return made->join(joined);
    } catch (const std::system_error &) { /* as if the kernel had no such group */
    }
    made.reset();
}

void kernel_notes::start()
{
    join_group(
        NETLINK_GENERIC,
        [](netlink::connection &its) {
            return netlink::find_group(its, ETHTOOL_GENL_NAME, ETHTOOL_MCGRP_MONITOR_NAME);
        },
        settings_);
    if (is_first_user_namespace())
        join_group(
            NETLINK_KOBJECT_UEVENT, [](netlink::connection &) { return uevent_group; }, uevents_);
    join_group(
        NETLINK_GENERIC,
        [](netlink::connection &its) {
            return netlink::find_group(its, DEVLINK_GENL_NAME, DEVLINK_GENL_MCGRP_CONFIG_NAME);
        },
        health_);
    if (settings_ || uevents_ || health_)
        thread_.start("dolm-ric-notes", [this] { run(); });
}

void kernel_notes::stop()
{
    thread_.stop();
}

void kernel_notes::run()
{
    while (!thread_.is_stopping()) {
        pollfd wanted[] = {{settings_ ? settings_->fd() : -1, POLLIN, 0},
                           {uevents_ ? uevents_->fd() : -1, POLLIN, 0},
                           {health_ ? health_->fd() : -1, POLLIN, 0},
                           {thread_.wake_fd(), POLLIN, 0}};
        util::poll_or_pause(wanted, -1);
        if (settings_)
            drain(*settings_, &kernel_notes::take_setting);
        if (uevents_)
            drain(*uevents_, &kernel_notes::take_uevent);
        if (health_)
            drain(*health_, &kernel_notes::take_health);
    }
}

void kernel_notes::drain(netlink::connection &from,
                         void (kernel_notes::*take)(netlink::byte_view datagram, int64_t at))
{
    for (;;) {
        const netlink::connection::received next = from.receive();
        if (next.error == EAGAIN)
            return;
        const int64_t now = board::details_time();
        try {
            if (next.error == 0)
                (this->*take)(next.datagram, now);
        } catch (const std::bad_alloc &) {
            lose(now);
        }
        if (next.error != 0)
            return lose(now);
    }
}

void kernel_notes::lose(int64_t at)
{
    const std::lock_guard guard(lock_);
    lost_at_ = at;
}

/* Both kinds of message have the header attribute under the same number. */
void kernel_notes::take_setting(netlink::byte_view datagram, int64_t at)
{
    while (const auto notice = netlink::take_message(datagram)) {
        const auto head = netlink::read_record<genlmsghdr>(notice->body);
        if (!head || (head->cmd != ETHTOOL_MSG_LINKMODES_NTF && head->cmd != ETHTOOL_MSG_FEC_NTF))
            continue;
        const netlink::byte_view header = netlink::find_attribute(
            netlink::generic_attributes(*notice), ETHTOOL_A_LINKMODES_HEADER);
        const auto index = netlink::read_record<int32_t>(
            netlink::find_attribute(header, ETHTOOL_A_HEADER_DEV_INDEX));
        if (index)
            note(changed_at_, *index, at);
    }
}

/* "unbind@/devices/pci0000:00/0000:00:1c.0/0000:03:00.0". Of removals only those of devices with a
   driver count, not those of queues and the like. */
void kernel_notes::take_uevent(netlink::byte_view datagram, int64_t at)
{
    const std::string_view first = netlink::read_text(datagram);
    const std::string device(first.substr(first.find_last_of('/') + 1));
    if (first.starts_with("unbind@"))
        note(unbound_at_, device, at);
    else if (first.starts_with("remove@") && unbound_at_.contains(device))
        note(removed_at_, device, at);
}

/* A driver's text is shown to people: it is shortened and has no control characters. */
static std::string word_of(std::string_view text)
{
    constexpr size_t longest = 32;
    std::string its(text.substr(0, longest));
    std::ranges::replace_if(
        its, [](char c) { return c < ' ' || c > '~'; }, '?');
    return its;
}

/* The kernel also sends this message after the recovery, with the state 0. */
void kernel_notes::take_health(netlink::byte_view datagram, int64_t at)
{
    while (const auto notice = netlink::take_message(datagram)) {
        const auto head = netlink::read_record<genlmsghdr>(notice->body);
        if (!head || head->cmd != DEVLINK_CMD_HEALTH_REPORTER_RECOVER)
            continue;
        const netlink::byte_view attributes = netlink::generic_attributes(*notice);
        const std::string device(
            netlink::read_text(netlink::find_attribute(attributes, DEVLINK_ATTR_DEV_NAME)));
        const netlink::byte_view reporter =
            netlink::find_attribute(attributes, DEVLINK_ATTR_HEALTH_REPORTER);
        const auto state = netlink::read_record<uint8_t>(
            netlink::find_attribute(reporter, DEVLINK_ATTR_HEALTH_REPORTER_STATE));
        if (state.value_or(0) == 0 || device.empty())
            continue;
        note(failed_at_, device, at);
        const std::lock_guard guard(lock_);
        if (failed_.size() > most_notes)
            failed_.clear();
        failed_[device] = word_of(netlink::read_text(
            netlink::find_attribute(reporter, DEVLINK_ATTR_HEALTH_REPORTER_NAME)));
    }
}

template <typename key>
void kernel_notes::note(std::map<key, int64_t> &notes, const key &of, int64_t at)
{
    const std::lock_guard guard(lock_);
    if (notes.size() >= most_notes && !notes.contains(of)) {
        const auto oldest =
            std::ranges::min_element(notes, {}, [](const auto &one) { return one.second; });
        lost_at_ = std::max(lost_at_, oldest->second);
        notes.erase(oldest);
    }
    notes[of] = at;
}

template <typename key>
std::optional<bool> kernel_notes::has_note(const std::map<key, int64_t> &notes, bool is_followed,
                                           const key &of, int64_t from, int64_t to) const
{
    const std::lock_guard guard(lock_);
    const auto found = notes.find(of);
    const bool is_later = found != notes.end() && found->second > to; /* and may replace one */
    if (found != notes.end() && found->second >= from && !is_later)
        return true;
    if (!is_followed || lost_at_ >= from || is_later)
        return std::nullopt;
    return false;
}

std::optional<bool> kernel_notes::were_settings_changed(int32_t index, int64_t from,
                                                        int64_t to) const
{
    return has_note(changed_at_, settings_.has_value(), index, from, to);
}

std::optional<bool> kernel_notes::was_unbound(const std::string &device, int64_t from,
                                              int64_t to) const
{
    return has_note(unbound_at_, uevents_.has_value(), device, from, to);
}

std::optional<bool> kernel_notes::was_removed(const std::string &device, int64_t from,
                                              int64_t to) const
{
    return has_note(removed_at_, uevents_.has_value(), device, from, to);
}

/* Nothing reported doesn't mean that there was no error: most drivers report none. */
std::optional<std::string> kernel_notes::error_reported(const std::string &device, int64_t from,
                                                        int64_t to) const
{
    if (!has_note(failed_at_, false, device, from, to))
        return std::nullopt;
    const std::lock_guard guard(lock_);
    const auto found = failed_.find(device);
    return found == failed_.end() ? std::nullopt : std::optional(found->second);
}

} // namespace linux_board
