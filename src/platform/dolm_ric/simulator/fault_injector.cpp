/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: call_begins() counts a call of an operation; injected_fault() returns the latest
   failure for the operation and the port. */
#include "platform/dolm_ric/simulator/fault_injector.h"

#include <algorithm>
#include <sys/eventfd.h>
#include <utility>

namespace board
{

/* The most failures, plus ranges of ports in them. */
static constexpr size_t max_ranges = 4096;

void fault_injector::call_begins(operation op)
{
    calls_[static_cast<size_t>(op)]++;
    if (watcher_ >= 0)
        eventfd_write(watcher_, 1);
}

int32_t fault_injector::injected_fault(operation op, uint32_t port)
{
    const auto found = std::find_if(faults_.rbegin(), faults_.rend(), [&](const fault &one) {
        return one.op == op && (one.ports.empty() || contains(one.ports, port));
    });
    if (found == faults_.rend())
        return DOLM_RICERR_OK;
    const int32_t code = found->code;
    if (found->remaining != fault::always && --found->remaining == 0)
        faults_.erase(std::next(found).base());
    return code;
}

/* The number of faults is limited, as each call looks through all of them. */
void fault_injector::add(fault added)
{
    size_t ranges = added.ports.size();
    for (const fault &known : faults_)
        ranges += 1 + known.ports.size();
    if (ranges >= max_ranges)
        throw board_error("the board has too many failures: withdraw some with heal");
    faults_.push_back(std::move(added));
}

size_t fault_injector::remove(std::optional<operation> op)
{
    return std::erase_if(faults_, [op](const fault &one) { return !op || one.op == *op; });
}

const std::vector<fault> &fault_injector::faults() const
{
    return faults_;
}

uint64_t fault_injector::calls(operation op) const
{
    return calls_[static_cast<size_t>(op)];
}

void fault_injector::watch_calls(int eventfd)
{
    watcher_ = eventfd;
}

} // namespace board
