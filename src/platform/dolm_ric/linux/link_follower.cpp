/* SPDX-License-Identifier: Apache-2.0 */
/* Notices are received on a socket of their own and requests are sent on another one, so that a
   full queue of notices loses no answer. Requests are sent one at a time, each followed by its
   answer.

   When the queue overruns, the kernel reports ENOBUFS once and drops everything until the queue has
   been emptied. So the thread first empties the queue and then reads every interface. That reading
   includes the changes of all lost notices, and the counters show the falls in between. A notice
   that is received later may be older than the reading; the counters show that, too.

   A message carries no time: the time of its receipt is used. So the queue is read at least twice a
   second, and after a longer pause all queued messages count as late.

   The active FEC is for people who look at a port's details, and some drivers ask their firmware
   for it. So the thread requests it after a rise, when no notice is queued, one interface at a
   time. */
#include "platform/dolm_ric/linux/link_follower.h"

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/linux/decode/module_speed.h"
#include "platform/linux_interfaces/interfaces.h"
#include "util/boot_clock.h"
#include "util/poll.h"

#include <algorithm>
#include <cerrno>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <system_error>
#include <utility>

namespace linux_board
{

/* The kernel answers at once or holds its lock; a lost answer is requested again. */
static constexpr std::chrono::seconds kernel_patience{5};

/* If a link's speed couldn't be requested when the link rose, it is requested after this time. */
static constexpr std::chrono::milliseconds speed_patience{20};

/* A link may change its speed without a fall; the kernel sends no message then. */
static constexpr std::chrono::seconds round_interval{30};

static constexpr std::chrono::milliseconds queue_interval{500};

/* The most notices and requests in one turn, before the other descriptors are served. */
static constexpr int datagrams_at_once = 256;
static constexpr int questions_at_once = 16;

/* If there are more notices in one turn, no speeds are requested, since notices come first. */
static constexpr int notices_of_a_storm = 16;

static std::optional<uint32_t> read_number(netlink::byte_view attributes, uint16_t number)
{
    return netlink::read_record<uint32_t>(netlink::find_attribute(attributes, number));
}

/* The kernel numbers the kinds of FEC among the link modes. */
static uint32_t fec_of_link_mode(uint32_t mode)
{
    switch (mode) {
    case ETHTOOL_LINK_MODE_FEC_NONE_BIT:
        return DOLM_RIC_FEC_NONE;
    case ETHTOOL_LINK_MODE_FEC_BASER_BIT:
        return DOLM_RIC_FEC_BASE_R;
    case ETHTOOL_LINK_MODE_FEC_RS_BIT:
        return DOLM_RIC_FEC_RS;
    case ETHTOOL_LINK_MODE_FEC_LLRS_BIT:
        return DOLM_RIC_FEC_LLRS;
    default:
        return DOLM_RIC_FEC_UNKNOWN;
    }
}

static std::optional<uint8_t> read_byte(netlink::byte_view attributes, uint16_t number)
{
    return netlink::read_record<uint8_t>(netlink::find_attribute(attributes, number));
}

link_follower::link_follower(follower_listener &listener, int receive_buffer)
    : listener_(listener),
      table_(listener, [this](int32_t index) { return speed_of_risen(index); }),
      notices_(NETLINK_ROUTE, receive_buffer), questions_(NETLINK_ROUTE), ethtool_(NETLINK_GENERIC)
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

void link_follower::also_watch(int fd, std::function<void()> look)
{
    watched_fd_ = fd;
    look_ = std::move(look);
}

bool link_follower::change(uint32_t port, link_table::port_filter fits, bool is_same)
{
    is_reading_due_ = true;
    return table_.change(port, std::move(fits), is_same);
}

void link_follower::take_out(uint32_t port)
{
    table_.take_out(port, std::chrono::steady_clock::now());
}

/* Joins the group first and reads then, so that no change is missed between the two. */
void link_follower::start()
{
    notices_.join(RTNLGRP_LINK);
    looked_at_ = util::boot_time();
    read_all();
    listener_.reports_taken();
    thread_.start("dolm-ric-links", [this] { run(); });
}

void link_follower::run()
{
    while (!thread_.is_stopping()) {
        pollfd wanted[] = {{notices_.fd(), POLLIN, 0},
                           {thread_.wake_fd(), POLLIN, 0},
                           {thread_.later_fd(), POLLIN, 0},
                           {watched_fd_, POLLIN, 0}};
        util::poll_or_pause(wanted, poll_timeout());
        const bool is_woken = wanted[1].revents != 0 || wanted[2].revents != 0;
        is_later_due_ |= is_woken && thread_.clear_wake();
        try {
            if (wanted[3].revents != 0)
                look_();
            take_turn();
        } catch (const std::exception &) {
            is_behind_ = true; /* no memory, or no answer: read all interfaces again */
        }
    }
}

void link_follower::take_turn()
{
    const bool is_drained = drain();
    {
        const std::lock_guard guard(refresh_lock_);
        has_backlog_ = !is_drained || is_behind_;
    }
    take_round();
    if (is_drained && (is_behind_ || is_reading_due_))
        read_all();
    answer_refreshes();
    ask_speeds();
    table_.announce_settled(std::chrono::steady_clock::now());
    listener_.reports_taken();
    if (is_drained)
        ask_next_fec();
    is_late_ &= !is_drained || is_behind_;
}

int link_follower::poll_timeout() const
{
    static constexpr int retry_ms = 100;
    if (is_behind_)
        return retry_ms;
    if (!fecs_wanted_.empty())
        return 0;
    auto next = std::min(round_due_, std::chrono::steady_clock::now() + queue_interval);
    if (!speeds_wanted_.empty())
        next = std::min(next, speeds_due_);
    if (const auto settling = table_.next_settling())
        next = std::min(next, *settling);
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(next - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

void link_follower::note_time()
{
    const auto now = util::boot_time();
    is_late_ |= now - looked_at_ > longest_gap;
    looked_at_ = now;
}

/* Returns whether the queue was emptied. */
bool link_follower::drain()
{
    notices_taken_ = 0;
    for (int count = 0; count < datagrams_at_once; count++) {
        const netlink::connection::received next = notices_.receive();
        note_time();
        if (next.error == EAGAIN)
            return true;
        if (next.error != 0) {
            is_behind_ = true;
            losses_++;
            continue;
        }
        notices_taken_++;
        netlink::byte_view rest = next.datagram;
        while (const auto notice = netlink::take_message(rest))
            take(*notice);
    }
    return false;
}

void link_follower::take(const netlink::message &notice)
{
    const auto report = parse_link(notice);
    if (!report)
        return;
    take_report(*report, is_behind_ || is_late_ ? link_table::origin::late_notice
                                                : link_table::origin::notice);
}

/* The port is marked as reported before its event is queued, so that the read caused by this event
   finds the mark. */
void link_follower::take_report(const link_report &report, link_table::origin from)
{
    const auto now = std::chrono::steady_clock::now();
    if (const auto port = table_.port_of(report.index)) {
        const std::lock_guard guard(refresh_lock_);
        reported_at_[*port] = now;
    }
    table_.take(report, from, now);
    if (!table_.is_speed_wanted(report.index, now))
        return;
    if (speeds_wanted_.empty())
        speeds_due_ = now + speed_patience;
    speeds_wanted_.insert(report.index);
}

void link_follower::read_all()
{
    is_behind_ = is_reading_due_ = false;
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

/* Not known if the driver doesn't report it, or with a kernel before 5.13. */
uint32_t link_follower::fec_now(int32_t index)
{
    netlink::request question =
        netlink::ethtool_request(ethtool_family_, ETHTOOL_MSG_FEC_GET, ETHTOOL_A_FEC_HEADER, index);
    uint32_t fec = DOLM_RIC_FEC_UNKNOWN;
    ethtool_.ask(question, kernel_patience, [&](const netlink::message &answer) {
        if (const auto mode =
                read_number(netlink::generic_attributes(answer), ETHTOOL_A_FEC_ACTIVE))
            fec = fec_of_link_mode(*mode);
    });
    return fec;
}

/* Nothing without an answer: the previous speed is kept, and requested again later. */
std::optional<link_speed> link_follower::speed_now(int32_t index)
{
    if (ethtool_family_ == 0)
        return std::nullopt;
    netlink::request question = netlink::ethtool_request(ethtool_family_, ETHTOOL_MSG_LINKMODES_GET,
                                                         ETHTOOL_A_LINKMODES_HEADER, index);
    uint32_t speed = UINT32_MAX;
    uint32_t lanes = 0;
    uint8_t duplex = DUPLEX_UNKNOWN;
    uint8_t autoneg = UINT8_MAX;
    const int error = ethtool_.ask(question, kernel_patience, [&](const netlink::message &answer) {
        const netlink::byte_view values = netlink::generic_attributes(answer);
        speed = read_number(values, ETHTOOL_A_LINKMODES_SPEED).value_or(speed);
        lanes = read_number(values, ETHTOOL_A_LINKMODES_LANES).value_or(lanes);
        duplex = read_byte(values, ETHTOOL_A_LINKMODES_DUPLEX).value_or(duplex);
        autoneg = read_byte(values, ETHTOOL_A_LINKMODES_AUTONEG).value_or(autoneg);
    });
    if (error != 0 && error != EOPNOTSUPP)
        return std::nullopt;
    return link_speed{
        .code = link_speed_code(tenth_gbps_of(speed)),
        .lanes = lanes,
        .megabits = speed == UINT32_MAX ? 0 : speed,
        .is_full_duplex =
            duplex <= DUPLEX_FULL ? std::optional(duplex == DUPLEX_FULL) : std::nullopt,
        .is_negotiated =
            autoneg <= AUTONEG_ENABLE ? std::optional(autoneg == AUTONEG_ENABLE) : std::nullopt,
    };
}

std::optional<link_speed> link_follower::speed_of_risen(int32_t index)
{
    fecs_wanted_.insert(index);
    return notices_taken_ > notices_of_a_storm ? std::nullopt : speed_now(index);
}

void link_follower::ask_speed_if_wanted(int32_t index)
{
    if (!table_.is_speed_wanted(index, std::chrono::steady_clock::now()))
        return;
    if (const auto speed = speed_now(index))
        table_.take_speed(index, *speed, std::chrono::steady_clock::now());
}

/* Requests the values that change without a message. */
void link_follower::take_round()
{
    const auto now = std::chrono::steady_clock::now();
    if (now < round_due_)
        return;
    fecs_wanted_ = table_.indices();
    speeds_wanted_.merge(table_.indices());
    speeds_due_ = now;
    round_due_ = now + round_interval;
    if (look_)
        look_();
}

void link_follower::ask_speeds()
{
    if (std::chrono::steady_clock::now() < speeds_due_)
        return;
    for (int count = 0; count < questions_at_once && !speeds_wanted_.empty(); count++)
        ask_speed_if_wanted(speeds_wanted_.extract(speeds_wanted_.begin()).value());
}

/* A port whose link is down meanwhile has no active FEC. */
void link_follower::ask_next_fec()
{
    while (!fecs_wanted_.empty() && ethtool_family_ != 0) {
        const int32_t index = fecs_wanted_.extract(fecs_wanted_.begin()).value();
        if (!table_.is_up(index))
            continue;
        listener_.fec_reported(*table_.port_of(index), fec_now(index));
        return;
    }
    fecs_wanted_.clear();
}

/* Earlier waits count less and less: half of the time that passes is subtracted from their
   total. */
bool link_follower::is_wait_worth_it(uint32_t port, link_table::time_point now)
{
    waited_ = std::max(waited_ - (now - waited_at_) / 2, waited_ * 0);
    waited_at_ = now;
    const auto reported = reported_at_.find(port);
    const bool is_fresh = reported != reported_at_.end() && now - reported->second < fresh_age;
    return !is_fresh && !is_stuck_ && !has_backlog_ && waited_ < read_patience;
}

void link_follower::refresh(uint32_t port)
{
    std::unique_lock guard(refresh_lock_);
    const auto begin = std::chrono::steady_clock::now();
    if (!is_wait_worth_it(port, begin)) {
        if (later_ports_.empty())
            thread_.wake_later();
        later_ports_.insert(port);
        return;
    }
    refresh_ports_.insert(port);
    const uint64_t ticket = ++refreshes_asked_;
    guard.unlock(); /* the woken thread takes the lock */
    thread_.wake();
    guard.lock();
    is_stuck_ = !refreshed_.wait_for(guard, read_patience - waited_,
                                     [&] { return refreshes_done_ >= ticket; });
    waited_at_ = std::chrono::steady_clock::now();
    waited_ += waited_at_ - begin;
}

void link_follower::answer_refreshes()
{
    std::set<uint32_t> ports;
    uint64_t ticket = 0;
    {
        const std::lock_guard guard(refresh_lock_);
        ports.swap(refresh_ports_);
        if (std::exchange(is_later_due_, false))
            ports.merge(std::exchange(later_ports_, {}));
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
