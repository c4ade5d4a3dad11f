/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/dolm_ric/simulator/fault_injector.h"

#include <algorithm>
#include <sys/eventfd.h>
#include <utility>

namespace board
{

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

void fault_injector::add(fault added)
{
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
