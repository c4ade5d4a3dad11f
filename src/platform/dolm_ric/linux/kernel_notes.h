/* SPDX-License-Identifier: Apache-2.0 */
/* kernel_notes - receives the kernel's notices about interfaces and their devices, other than link
   messages, and keeps their times: changed settings, drivers that leave a device, and errors of a
   device that its driver reports. A thread of its own receives the messages at once, so that their
   times are right. Times are in ns of CLOCK_BOOTTIME. */
#pragma once

#include "platform/dolm_ric/linux/worker.h"
#include "platform/linux_interfaces/netlink.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace linux_board
{

class kernel_notes
{
  public:
    /* If the sockets can't be opened, all results are "not known". */
    void start();
    void stop();

    /* Whether speed, negotiation or FEC of the interface were changed between the two times;
       nothing if messages were lost or aren't received. Any thread, like the functions below. */
    std::optional<bool> were_settings_changed(int32_t index, int64_t from, int64_t to) const;
    /* Whether a driver left the device, such as 0000:03:00.0, between the two times; nothing if
       messages were lost. */
    std::optional<bool> was_unbound(const std::string &device, int64_t from, int64_t to) const;
    /* Whether the device was removed between the two times; its driver leaves it just before.
       Nothing if messages were lost. */
    std::optional<bool> was_removed(const std::string &device, int64_t from, int64_t to) const;

    /* The part that the device's driver reported as failed between the two times, by the driver's
       own name, such as fw_fatal; nothing if no failure was reported. */
    std::optional<std::string> error_reported(const std::string &device, int64_t from,
                                              int64_t to) const;

    /* Take one datagram of each kind; called by the thread and by tests. */
    void take_setting(netlink::byte_view datagram, int64_t at);
    void take_uevent(netlink::byte_view datagram, int64_t at);
    void take_health(netlink::byte_view datagram, int64_t at);
    /* Notes that messages were lost. */
    void lose(int64_t at);

  private:
    void run();
    void drain(netlink::connection &from,
               void (kernel_notes::*take)(netlink::byte_view datagram, int64_t at));
    template <typename key>
    void note(std::map<key, int64_t> &notes, const key &of, int64_t at);
    template <typename key>
    std::optional<bool> has_note(const std::map<key, int64_t> &notes, bool is_followed,
                                 const key &of, int64_t from, int64_t to) const;

    std::optional<netlink::connection> settings_, uevents_, health_;

    mutable std::mutex lock_; /* guards these */
    std::map<int32_t, int64_t> changed_at_;
    std::map<std::string, int64_t> unbound_at_, removed_at_, failed_at_;
    std::map<std::string, std::string> failed_; /* of devices with a time in failed_at_ */
    int64_t lost_at_ = INT64_MIN;

    worker thread_; /* last, so destroyed first: it uses the other members */
};

} // namespace linux_board
