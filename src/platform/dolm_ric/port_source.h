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

/* Receives a source's reports. If the caller subscribes to the port, the core queues an event for
   the report, in order; otherwise it drops the report. */
struct port_events {
    virtual ~port_events() = default;

    /* The core's lock. Not recursive; `read` and `has_port` must not take it, as the core calls
       them with the lock held. */
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
       exception makes dolm_ric_init fail. A source without threads keeps the default. */
    virtual void start()
    {
    }

    /* Ends the reports: the source makes none after this returns. Called once, without the lock, if
       `start` returned. No read follows; a `refresh` may still run on another thread and must
       return soon. */
    virtual void stop() noexcept
    {
    }

    /* Updates the values that `read` gives for this port, within 20 ms. Called without the lock
       before each read of a port's or link's status, for any number below max_ports. */
    virtual void refresh(uint32_t /*port*/)
    {
    }

    /* Whether the board has this port. Called with the lock held. */
    virtual bool has_port(uint32_t port) const = 0;

    /* Reads a port that the source has. Called with the lock held, so it must make no system call
       that can block. Returns a result code of dolm_ric.h and fills `out` if that is 0. */
    virtual int32_t read(uint32_t port, dolm_ric_port_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_link_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_info &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_diag &out) const = 0;
};

/* Makes the library's port source. Each library defines this function; dolm_ric_init calls it
   without the lock, then starts the source. A board_error makes dolm_ric_init fail with
   DOLM_RICERR_INVALID and is printed on standard error. The core outlives the source. */
std::unique_ptr<port_source> make_port_source(core &events);

} // namespace board
