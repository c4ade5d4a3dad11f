/* SPDX-License-Identifier: Apache-2.0 */
/* When a module with diagnostics comes or goes, the kernel announces its sensors. Modules without
   diagnostics are found by polling alone, so an announcement only causes an early look. Leases are
   checked before each reading. */
#include "platform/dolm_ric/linux/module_follower.h"

#include "util/boot_clock.h"
#include "util/poll.h"

#include <algorithm>
#include <string_view>
#include <system_error>
#include <utility>

namespace linux_board
{

static constexpr uint32_t kernel_uevents = 1; /* multicast group */

module_follower::module_follower(module_listener &listener, std::string reader)
    : listener_(listener), leases_(module_leases::folder_of(reader)),
      reader_(std::move(reader), thread_.stop_fd()), poller_(*this, listener, util::boot_time)
{
    try {
        hints_.emplace(NETLINK_KOBJECT_UEVENT);
        hints_->join(kernel_uevents);
    } catch (const std::system_error &) {
        hints_.reset(); /* modules are then found by polling alone */
    }
}

/* The thread must end before the members that it uses are destroyed. */
module_follower::~module_follower()
{
    stop();
}

void module_follower::stop()
{
    thread_.stop();
}

void module_follower::add(uint32_t port, const std::string &file)
{
    const std::lock_guard guard(lock_);
    orders_.added[port] = file;
    thread_.wake();
}

void module_follower::expect(uint64_t configuration)
{
    const std::lock_guard guard(lock_);
    orders_.configuration = configuration;
    thread_.wake();
}

void module_follower::set_interface(uint32_t port, int32_t index)
{
    const std::lock_guard guard(lock_);
    orders_.interfaces[port] = index;
    thread_.wake();
}

void module_follower::link_changed(uint32_t port)
{
    const std::lock_guard guard(lock_);
    if (orders_.links_changed.insert(port).second)
        thread_.wake_later();
}

void module_follower::diagnostics_wanted(uint32_t port)
{
    const std::lock_guard guard(lock_);
    if (orders_.diagnostics_wanted.insert(port).second)
        thread_.wake();
}

void module_follower::look_now(uint32_t port)
{
    const std::lock_guard guard(lock_);
    if (orders_.looks_wanted.insert(port).second)
        thread_.wake_later();
}

void module_follower::trust_sums(uint32_t port, bool trusted)
{
    const std::lock_guard guard(lock_);
    orders_.trusting[port] = trusted;
    thread_.wake();
}

void module_follower::expect_logging(uint32_t port, bool logs_failures)
{
    const std::lock_guard guard(lock_);
    orders_.logging[port] = logs_failures;
    thread_.wake();
}

void module_follower::start(std::chrono::milliseconds patience)
{
    thread_.start("dolm-ric-module", [this] { run(); });
    std::unique_lock guard(lock_);
    looked_.wait_for(guard, patience, [this] { return has_looked_; });
}

int32_t module_follower::interface_at_reader(uint32_t port, int &error)
{
    piece first = {.port = port, .range = {identity_address, 0, 0, 0, 1}};
    reader_.read({&first, 1});
    error = first.error;
    return first.interface;
}

module_follower::way module_follower::way_of(uint32_t port) const
{
    const auto lease = leased_.find(port);
    if (lease != leased_.end() && lease->second > util::boot_time())
        return way::not_now;
    return files_.has(port) ? way::in_file : way::by_reader;
}

/* Pieces of files are read one by one; consecutive pieces of other modules go to the reader
   together. */
void module_follower::read(std::span<piece> pieces)
{
    look_at_leases();
    while (!pieces.empty()) {
        const way chosen = way_of(pieces.front().port);
        const auto end = std::find_if(pieces.begin(), pieces.end(),
                                      [&](const piece &one) { return way_of(one.port) != chosen; });
        const auto run = pieces.first(static_cast<size_t>(end - pieces.begin()));
        if (chosen == way::in_file)
            files_.read(run);
        else if (chosen == way::by_reader)
            reader_.read(run);
        else
            for (piece &one : run)
                one.error = module_is_leased;
        pieces = pieces.subspan(run.size());
    }
}

void module_follower::set_lease(uint32_t port, int32_t index)
{
    const auto end = leases_.end_of(index);
    if (std::exchange(leased_[port], end) == end)
        return;
    if (end > util::boot_time())
        poller_.identify_again(port);
    listener_.module_leased(port, end);
}

void module_follower::look_at_leases()
{
    if (!leases_.has_changed())
        return;
    for (const auto &[port, index] : interfaces_)
        set_lease(port, index);
}

void module_follower::run()
{
    bool is_looked_at = false; /* then is_first_look_over() is not asked again */
    while (!thread_.is_stopping()) {
        try {
            carry_out_orders();
            poller_.step();
        } catch (const std::bad_alloc &) {
            /* orders and readings that failed are still due */
        }
        if (!is_looked_at && poller_.is_first_look_over()) {
            is_looked_at = true;
            const std::lock_guard guard(lock_);
            has_looked_ = true;
            looked_.notify_all();
        }
        await_work();
    }
}

void module_follower::carry_out_orders()
{
    order_book orders;
    {
        const std::lock_guard guard(lock_);
        std::swap(orders, orders_);
    }
    if (orders.configuration)
        reader_.expect(*orders.configuration);
    for (const auto &[port, file] : orders.added) {
        files_.add(port, file);
        poller_.add(port, file.empty());
    }
    for (const auto &[port, index] : orders.interfaces) {
        interfaces_[port] = index;
        set_lease(port, index);
        poller_.set_interface(port, index);
    }
    for (const uint32_t port : orders.links_changed)
        poller_.link_changed(port);
    for (const uint32_t port : orders.diagnostics_wanted)
        poller_.diagnostics_wanted(port);
    for (const uint32_t port : orders.looks_wanted)
        poller_.look_now(port);
    for (const auto &[port, trusted] : orders.trusting)
        poller_.trust_sums(port, trusted);
    for (const auto &[port, logs_failures] : orders.logging)
        poller_.expect_logging(port, logs_failures);
}

void module_follower::await_work()
{
    const auto now = util::boot_time();
    const auto due = poller_.next_due();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        std::min<module_poller::duration>(due - now, std::chrono::minutes(1)));
    pollfd wanted[] = {{thread_.wake_fd(), POLLIN, 0},
                       {thread_.later_fd(), POLLIN, 0},
                       {hints_ ? hints_->fd() : -1, POLLIN, 0},
                       {leases_.fd(), POLLIN, 0}};
    const auto timeout = static_cast<int>(std::max<int64_t>(left.count(), 0));
    util::poll_or_pause(wanted, timeout);
    thread_.clear_wake();
    look_at_leases();
    if (take_hints())
        poller_.hint();
}

bool module_follower::take_hints()
{
    static constexpr std::string_view sensors = "SUBSYSTEM=hwmon";
    bool found = false;
    while (hints_) {
        const netlink::connection::received next = hints_->receive();
        if (next.error == EAGAIN)
            return found;
        const std::string_view text(reinterpret_cast<const char *>(next.datagram.data()),
                                    next.datagram.size());
        found |= next.error != 0 || text.find(sensors) != std::string_view::npos;
    }
    return false;
}

} // namespace linux_board
