/* SPDX-License-Identifier: Apache-2.0 */
/* Notices come in on a socket of their own, which is never asked anything: an answer can't be lost
   because the queue of notices is full, and questions are made one at a time, each with its answer.

   When the queue overruns, the kernel reports ENOBUFS once and drops everything until the queue has
   been emptied. So all that is queued is taken first, and then every interface is read. Nothing
   that was lost is older than that reading, and the counters tell the falls in between. What is
   queued after it may be older than the reading; the counters tell that, too. */
#include "platform/dolm_ric/linux/link_follower.h"

#include "platform/dolm_ric/linux/interfaces.h"
#include "platform/dolm_ric/linux/module_speed.h"
#include "util/poll.h"

#include <algorithm>
#include <cerrno>
#include <linux/ethtool_netlink.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <system_error>
#include <utility>

namespace linux_board
{

/* The kernel answers at once or holds its lock; a lost answer is asked for again. */
static constexpr std::chrono::seconds kernel_patience{5};

/* Before then a caller that reads the link because of its rise has asked for the speed. */
static constexpr std::chrono::milliseconds speed_patience{20};

/* Notices taken in one go, before the questions of others get their turn. */
static constexpr int datagrams_at_once = 256;

static std::optional<uint32_t> read_number(netlink::byte_view attributes, uint16_t number)
{
    return netlink::read_record<uint32_t>(netlink::find_attribute(attributes, number));
}

link_follower::link_follower(follower_listener &listener, int receive_buffer)
    : listener_(listener), table_(listener), notices_(NETLINK_ROUTE, receive_buffer),
      questions_(NETLINK_ROUTE), ethtool_(NETLINK_GENERIC)
{
    ethtool_family_ = netlink::find_family(ethtool_, ETHTOOL_GENL_NAME);
}

link_follower::~link_follower()
{
    stop();
}

void link_follower::stop()
{
    thread_.stop();
}

void link_follower::add(uint32_t port, link_table::port_filter fits)
{
    table_.add(port, std::move(fits));
}

/* First join, then read: nothing falls between the two. */
void link_follower::start()
{
    notices_.join(RTNLGRP_LINK);
    read_all();
    ask_speeds();
    listener_.reports_taken();
    thread_.start("dolm-ric-links", [this] { run(); });
}

void link_follower::run()
{
    while (!thread_.is_stopping()) {
        pollfd wanted[] = {{notices_.fd(), POLLIN, 0}, {thread_.wake_fd(), POLLIN, 0}};
        util::poll_or_pause(wanted, poll_timeout());
        if (wanted[1].revents != 0)
            thread_.clear_wake();
        try {
            if (drain() && is_behind_)
                read_all();
            answer_refreshes();
            const auto now = std::chrono::steady_clock::now();
            if (now >= speeds_due_)
                ask_speeds();
            table_.announce_settled(now);
            listener_.reports_taken();
        } catch (const std::exception &) {
            is_behind_ = true; /* no memory, or no answer: read all again */
        }
    }
}

int link_follower::poll_timeout() const
{
    static constexpr int retry_ms = 100;
    if (is_behind_)
        return retry_ms;
    auto next = table_.next_settling();
    if (!speeds_wanted_.empty())
        next = std::min(next.value_or(speeds_due_), speeds_due_);
    if (!next)
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*next - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

/* Returns whether the queue was emptied. */
bool link_follower::drain()
{
    for (int count = 0; count < datagrams_at_once; count++) {
        const netlink::connection::received next = notices_.receive();
        if (next.error == EAGAIN)
            return true;
        if (next.error != 0) {
            is_behind_ = true;
            losses_++;
            continue;
        }
        netlink::byte_view rest = next.datagram;
        while (const auto notice = netlink::take_message(rest))
            take(*notice);
    }
    return false;
}

void link_follower::take(const netlink::message &notice)
{
    if (const auto report = parse_link(notice))
        take_report(*report, link_table::origin::notice);
}

/* The speed is known only once the link is up, and after each rise it may be another. */
void link_follower::take_report(const link_report &report, link_table::origin from)
{
    const auto now = std::chrono::steady_clock::now();
    table_.take(report, from, now);
    if (!report.operational)
        return;
    if (speeds_wanted_.empty())
        speeds_due_ = now + speed_patience;
    speeds_wanted_.insert(report.index);
}

void link_follower::read_all()
{
    is_behind_ = false;
    const std::vector<link_report> found = list_interfaces(questions_);
    table_.begin_dump();
    for (const link_report &report : found)
        take_report(report, link_table::origin::answer);
    table_.end_dump(std::chrono::steady_clock::now());
}

void link_follower::ask_about(int32_t index)
{
    link_report report;
    const int error = ask_interface(questions_, index, report);
    if (error == 0)
        take_report(report, link_table::origin::answer);
    else if (error == ENODEV)
        table_.forget(index, std::chrono::steady_clock::now());
}

void link_follower::ask_speed(int32_t index)
{
    netlink::request question =
        netlink::generic_request(ethtool_family_, ETHTOOL_MSG_LINKMODES_GET);
    const size_t header = question.begin_nest(ETHTOOL_A_LINKMODES_HEADER);
    question.put(ETHTOOL_A_HEADER_DEV_INDEX, static_cast<uint32_t>(index));
    question.put(ETHTOOL_A_HEADER_FLAGS, uint32_t{ETHTOOL_FLAG_COMPACT_BITSETS});
    question.end_nest(header);
    uint32_t speed = UINT32_MAX;
    uint32_t lanes = 0;
    ethtool_.ask(question, kernel_patience, [&](const netlink::message &answer) {
        const netlink::byte_view values = netlink::generic_attributes(answer);
        speed = read_number(values, ETHTOOL_A_LINKMODES_SPEED).value_or(speed);
        lanes = read_number(values, ETHTOOL_A_LINKMODES_LANES).value_or(lanes);
    });
    table_.take_speed(index, link_speed_code(tenth_gbps_of(speed)), lanes,
                      std::chrono::steady_clock::now());
}

void link_follower::ask_speed_if_wanted(int32_t index)
{
    if (ethtool_family_ != 0 && table_.is_speed_wanted(index, std::chrono::steady_clock::now()))
        ask_speed(index);
}

void link_follower::ask_speeds()
{
    const std::set<int32_t> wanted = std::exchange(speeds_wanted_, {});
    for (const int32_t index : wanted)
        ask_speed_if_wanted(index);
}

/* The caller waits for its own port only if no earlier question is stuck in the kernel; a board of
   many ports would else wait once for each of them. */
void link_follower::refresh(uint32_t port)
{
    std::unique_lock guard(refresh_lock_);
    refresh_ports_.insert(port);
    const uint64_t ticket = ++refreshes_asked_;
    guard.unlock(); /* the thread that is woken takes the lock */
    thread_.wake();
    guard.lock();
    if (!is_stuck_)
        is_stuck_ =
            !refreshed_.wait_for(guard, read_patience, [&] { return refreshes_done_ >= ticket; });
}

void link_follower::answer_refreshes()
{
    std::set<uint32_t> ports;
    uint64_t ticket = 0;
    {
        const std::lock_guard guard(refresh_lock_);
        ports.swap(refresh_ports_);
        ticket = refreshes_asked_;
    }
    if (ports.empty())
        return;
    for (const uint32_t port : ports) {
        if (const int32_t index = table_.index_of(port); index != 0) {
            ask_about(index);
            ask_speed_if_wanted(index);
        }
    }
    {
        const std::lock_guard guard(refresh_lock_);
        refreshes_done_ = ticket;
        is_stuck_ = false;
    }
    refreshed_.notify_all();
}

} // namespace linux_board
