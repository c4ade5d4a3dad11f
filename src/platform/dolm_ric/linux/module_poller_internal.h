/* SPDX-License-Identifier: Apache-2.0 */
/* The types that the two sources of module_poller share: the record of a port, and one task. */
#pragma once

#include "platform/dolm_ric/linux/module_poller.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace linux_board
{

constexpr std::chrono::milliseconds look_interval{1000};
constexpr std::chrono::seconds unlikely_interval{
    60}; /* for a port without a cage, or that only fails */

/* A reading that fails so often in a row is no disturbance any more. */
constexpr uint32_t failures_when_empty = 2;
constexpr uint32_t failures_when_broken = 5;

enum class stage : uint8_t { empty, identifying, in_use };
enum class task_kind : uint8_t { look, identity, diagnostics };

struct module_poller::polled {
    uint32_t number = 0;
    bool by_reader = true;
    bool was_denied = false; /* the reader lacked the right to read it */
    int32_t interface = 0;
    stage where = stage::empty;
    module_presence reported = module_presence::absent;
    module_memory memory;                      /* of the module that is identified or in use */
    std::vector<memory_range> refused;         /* optional ranges that it doesn't have */
    std::optional<dolm_sfp_info> old_identity; /* of a module that may still be there */
    int tries = 0;                             /* to identify it */
    uint32_t failures = 0;                     /* one after the other */
    bool was_looked_at = false;
    bool is_apart = true;
    time_point looked_at = {};
    time_point look_due = {};
    time_point identity_due = {};
    time_point diagnostics_due = {};
    time_point diagnostics_at = {};
    time_point answered_at = {};
    time_point reported_at = {};
    std::optional<time_point> queued_at = {};
};

/* A range and its pieces, which stand together in the packet. */
struct ranged {
    memory_range range;
    size_t first = 0;
    size_t count = 0;
};

struct module_poller::task {
    polled *port;
    task_kind kind;
    std::vector<ranged> ranges = {};
    std::vector<piece> pieces = {};

    bool add(const reading_step &step);
    int error_of(const ranged &read) const;
    std::vector<uint8_t> bytes_of(const ranged &read) const;
};

} // namespace linux_board
