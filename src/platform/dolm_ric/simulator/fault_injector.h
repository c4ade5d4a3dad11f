/* SPDX-License-Identifier: Apache-2.0 */
/* fault_injector - counts the calls of each operation, and makes calls fail that the board file or
   the control protocol selects. All methods are called with the core's lock held. */
#pragma once

#include "platform/dolm_ric/core.h"
#include "platform/dolm_ric/simulator/vocabulary.h"

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace board
{

struct fault {
    static constexpr uint64_t always = UINT64_MAX;

    operation op;
    int32_t code;
    uint64_t remaining = always; /* number of calls that still fail */
    port_list ports = {};        /* empty: all ports */
};

class fault_injector final : public call_hook
{
  public:
    void call_begins(operation op) override;
    /* The code of the latest fault for this operation and port; decrements the fault's remaining
       calls. */
    int32_t injected_fault(operation op, uint32_t port) override;

    /* Throws a board_error if there are too many faults. */
    void add(fault added);
    /* Removes the faults of one operation, or all faults. Returns how many were removed. */
    size_t remove(std::optional<operation> op);
    /* Oldest first. */
    const std::vector<fault> &faults() const;

    /* Calls since the start, failed ones included. */
    uint64_t calls(operation op) const;
    /* From now on each call writes to this eventfd; -1: none does. */
    void watch_calls(int eventfd);

  private:
    std::vector<fault> faults_;
    std::array<uint64_t, operation_count> calls_ = {};
    int watcher_ = -1;
};

} // namespace board
