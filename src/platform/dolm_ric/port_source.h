/* SPDX-License-Identifier: Apache-2.0 */
/* port_source - the seam between the core of libdolm_ric and the ports behind it. The simulator is
   one source, the network interfaces of the machine are another; each is a library of its own that
   links the core and defines make_port_source.

   The core's lock guards the core and every read of a source. A source that changes its values on a
   thread of its own takes that lock (port_events::lock) for the change and its report. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "platform/dolm_ric/operation.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace board
{

class core;

/* Receives a source's reports. The core queues an event for each report of a port that its caller
   subscribes to, in the order of the reports, and drops the others. */
struct port_events {
    virtual ~port_events() = default;

    /* The core's lock. Not recursive; never taken while a call of the source's `read` or `has_port`
       runs, as the core holds it there. */
    [[nodiscard]] virtual std::unique_lock<std::mutex> lock() = 0;

    /* Called with the lock held, once for each change, after the source's own value has changed: a
       read in the event's handler must give the reported value or a newer one. Throws
       std::bad_alloc where there is no memory for the event; then nothing is queued. */
    virtual void port_changed(const dolm_ric_port_status &now) = 0;
    virtual void link_changed(const dolm_ric_link_status &now) = 0;
};

/* A source of ports. Port numbers are below max_ports and need not be contiguous. */
struct port_source {
    virtual ~port_source() = default;

    /* Starts the source's threads. Called once, without the lock, when the core accepts reports; an
       exception ends dolm_ric_init. A source without threads keeps the default. */
    virtual void start()
    {
    }

    /* Ends the reports: none follows its return. Called once after a `start` that returned, without
       the lock. No read follows; a `refresh` may still run on another thread and must return soon.
       */
    virtual void stop() noexcept
    {
    }

    /* Brings what `read` answers for this port up to date, and gives up after 20 ms. Called without
       the lock before each read of a port's or link's status, for any number below max_ports. */
    virtual void refresh(uint32_t /*port*/)
    {
    }

    /* With the lock held: whether the board has this port. */
    virtual bool has_port(uint32_t port) const = 0;

    /* With the lock held, for a port that the source has: answers at once, without a system call
       that can wait. Gives a result code of dolm_ric.h and fills `out` on 0. */
    virtual int32_t read(uint32_t port, dolm_ric_port_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_link_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_info &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_diag &out) const = 0;
};

/* Makes the library's ports: defined once in each library, called without the lock by
   dolm_ric_init, which starts the source it gets. A board_error ends dolm_ric_init with
   DOLM_RICERR_INVALID and its text on standard error. The core outlives the source. */
std::unique_ptr<port_source> make_port_source(core &events);

} // namespace board
