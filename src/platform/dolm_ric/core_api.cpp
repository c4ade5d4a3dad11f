/* SPDX-License-Identifier: Apache-2.0 */
/* The thirteen operations of every libdolm_ric: each checks its handle and id, then works on the
   core (events, subscriptions) and on the port source (what the ports report).

   There is one board in a process at a time. A handle is a number that no other board of the
   process ever had, so that a stale handle is detected. The core outlives every board: the event
   thread may still be in dolm_ric_waitevent, or free its last event, while the main thread shuts
   the board down. Sources are made, started and stopped without the core's lock, as their threads
   take that lock. */
#include "platform/dolm_ric/core.h"
#include "platform/dolm_ric/dolm_ric.h"

#include <cstdio>
#include <exception>
#include <new>
#include <utility>

using board::operation;

namespace
{

/* All members are guarded by the core's lock. */
struct library {
    board::core core;
    uintptr_t handle = 0; /* of the current board, also after its shutdown; 0 during a start */
    uintptr_t last_handle = 0;
    /* Null without a board. Shared by a refresh that is under way while the board shuts down. */
    std::shared_ptr<board::port_source> source;
    bool is_starting = false;
};

} // namespace

/* Never destroyed: threads that use it may outlive main(). */
static library &get_library()
{
    static library &only = *new library;
    return only;
}

/* No exception leaves an operation: each becomes a result code. */
template <typename work>
static int32_t result_of(work &&run) noexcept
{
    try {
        return run();
    } catch (const std::bad_alloc &) {
        return DOLM_RICERR_NOMEM;
    } catch (...) {
        return DOLM_RICERR_INTERNAL;
    }
}

/* Runs the work of an operation with the core's lock held. The work gets the guard, too, so that it
   can release the lock for a while. */
template <typename work>
static int32_t on_board(operation op, uintptr_t handle, work &&run) noexcept
{
    return result_of([&]() -> int32_t {
        library &lib = get_library();
        auto guard = lib.core.lock();
        if (handle == 0 || handle != lib.handle)
            return DOLM_RICERR_INVALID;
        lib.core.call_begins(op);
        return run(lib, guard);
    });
}

static bool has_port(const library &lib, uint32_t id)
{
    const uint32_t port = id & 0xffff;
    return id == (board::id_of_port_0 | port) && port < board::max_ports &&
           lib.source->has_port(port);
}

/* Runs the work of an operation on a port, unless a fault is injected. */
template <typename work>
static int32_t on_port(operation op, uintptr_t handle, uint32_t id, work &&run) noexcept
{
    return on_board(op, handle, [&](library &lib, auto &) -> int32_t {
        if (!lib.core.is_open())
            return DOLM_RICERR_SHUTDOWN;
        if (!has_port(lib, id))
            return DOLM_RICERR_NODEV;
        const uint32_t port = id & 0xffff;
        if (const int32_t code = lib.core.injected_fault(op, port))
            return code;
        return run(lib, port);
    });
}

/* Lets the source update its copy of the status, without the lock. The read that follows reports a
   wrong handle or id. */
static int32_t refresh(uintptr_t handle, uint32_t id) noexcept
{
    return result_of([&]() -> int32_t {
        library &lib = get_library();
        auto guard = lib.core.lock();
        if (handle == 0 || handle != lib.handle || !lib.core.is_open() || !has_port(lib, id))
            return DOLM_RICERR_OK;
        const std::shared_ptr<board::port_source> source = lib.source;
        guard.unlock();
        source->refresh(id & 0xffff);
        return DOLM_RICERR_OK;
    });
}

template <typename record>
static int32_t read_port(operation op, uintptr_t handle, uint32_t id, record *out) noexcept
{
    if (out == nullptr)
        return DOLM_RICERR_INVALID;
    return on_port(op, handle, id, [out](const library &lib, uint32_t port) {
        return lib.source->read(port, *out);
    });
}

template <typename record>
static int32_t read_status(operation op, uintptr_t handle, uint32_t id, record *out) noexcept
{
    const int32_t result = refresh(handle, id);
    return result != DOLM_RICERR_OK ? result : read_port(op, handle, id, out);
}

/* The status is read and the subscription made under one lock, so that no change is missed between
   them. */
template <typename record>
static int32_t subscribe(operation op, uintptr_t handle, uint32_t id, board::subscription_kind kind,
                         record *out) noexcept
{
    if (out == nullptr)
        return DOLM_RICERR_INVALID;
    if (const int32_t result = refresh(handle, id))
        return result;
    return on_port(op, handle, id, [kind, out](library &lib, uint32_t port) {
        const int32_t result = lib.source->read(port, *out);
        if (result == DOLM_RICERR_OK)
            lib.core.subscribe(port, kind);
        return result;
    });
}

static int32_t unsubscribe(operation op, uintptr_t handle, uint32_t id,
                           board::subscription_kind kind) noexcept
{
    return on_port(op, handle, id, [kind](library &lib, uint32_t port) {
        return lib.core.unsubscribe(port, kind) ? DOLM_RICERR_OK : DOLM_RICERR_INVALID;
    });
}

/* Claims the library for a new board; from this call on no older handle is valid. */
static bool begin_start(library &lib)
{
    const auto guard = lib.core.lock();
    if (lib.source || lib.is_starting)
        return false;
    lib.is_starting = true;
    lib.handle = 0;
    lib.core.open();
    return true;
}

/* Each failure is one line on standard error, as the caller learns only its code. */
static int32_t explain(const char *reason, int32_t result)
{
    fprintf(stderr, "libdolm_ric: %s\n", reason);
    return result;
}

/* An injected fault can only come from the simulator's board file here. */
static int32_t start_source(library &lib, const std::shared_ptr<board::port_source> &source)
{
    {
        const auto guard = lib.core.lock();
        lib.core.call_begins(operation::init);
        if (const int32_t code = lib.core.injected_fault(operation::init, 0))
            return explain("the board file lets dolm_ric_init fail", code);
    }
    source->start();
    return DOLM_RICERR_OK;
}

static int32_t start_board(library &lib, std::shared_ptr<board::port_source> &source)
{
    source = board::make_port_source(lib.core);
    return start_source(lib, source);
}

static int32_t try_start_board(library &lib, std::shared_ptr<board::port_source> &source) noexcept
{
    try {
        return start_board(lib, source);
    } catch (const board::board_error &error) {
        return explain(error.what(), DOLM_RICERR_INVALID);
    } catch (const std::bad_alloc &) {
        return explain("the board can't start: memory is exhausted", DOLM_RICERR_NOMEM);
    } catch (const std::exception &error) {
        return explain(error.what(), DOLM_RICERR_INTERNAL);
    }
}

int32_t dolm_ric_init(uintptr_t *handle, uint32_t)
{
    if (handle == nullptr)
        return explain("dolm_ric_init needs the address of a handle", DOLM_RICERR_INVALID);
    return result_of([handle]() -> int32_t {
        library &lib = get_library();
        if (!begin_start(lib))
            return explain("this process has a board already", DOLM_RICERR_BUSY);
        std::shared_ptr<board::port_source> source;
        const int32_t result = try_start_board(lib, source);
        const auto guard = lib.core.lock();
        lib.is_starting = false;
        if (result != DOLM_RICERR_OK)
            return result;
        lib.source = std::move(source);
        *handle = lib.handle = ++lib.last_handle;
        return DOLM_RICERR_OK;
    });
}

/* Shuts the board down even if a fault is injected: the caller's event thread would otherwise wait
   for ever. The source is destroyed without the lock. */
int32_t dolm_ric_shutdown(uintptr_t handle, uint32_t)
{
    return on_board(operation::shutdown, handle, [](library &lib, auto &guard) -> int32_t {
        if (!lib.core.is_open())
            return DOLM_RICERR_SHUTDOWN;
        const int32_t code = lib.core.injected_fault(operation::shutdown, 0);
        if (const size_t waiting = lib.core.counts().waiting)
            fprintf(stderr, "libdolm_ric: %zu events wait to be taken at the stop\n", waiting);
        lib.core.close();
        guard.unlock();
        lib.source->stop();
        guard.lock();
        const std::shared_ptr<board::port_source> source = std::exchange(lib.source, nullptr);
        guard.unlock();
        return code;
    });
}

int32_t dolm_ric_waitevent(uintptr_t handle, dolm_ric_event **event)
{
    if (event == nullptr)
        return DOLM_RICERR_INVALID;
    return on_board(operation::waitevent, handle, [event](library &lib, auto &guard) {
        return lib.core.wait_event(guard, *event);
    });
}

/* Frees the event even if a fault is injected, so that the fault costs no memory. */
int32_t dolm_ric_freeevent(uintptr_t handle, dolm_ric_event **event)
{
    if (event == nullptr)
        return DOLM_RICERR_INVALID;
    return on_board(operation::freeevent, handle, [event](library &lib, auto &) -> int32_t {
        const bool was_outstanding = lib.core.free_event(*event);
        *event = nullptr;
        const int32_t code = lib.core.injected_fault(operation::freeevent, 0);
        return code != 0 || was_outstanding ? code : DOLM_RICERR_INVALID;
    });
}

int32_t dolm_ric_ri_getportstatus(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    return read_status(operation::getportstatus, handle, id, out);
}

int32_t dolm_ric_ri_subsport(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    return subscribe(operation::subsport, handle, id, &board::subscriptions::port, out);
}

int32_t dolm_ric_ri_unsubsport(uintptr_t handle, uint32_t id)
{
    return unsubscribe(operation::unsubsport, handle, id, &board::subscriptions::port);
}

int32_t dolm_ric_ri_subslink(uintptr_t handle, uint32_t id, dolm_ric_link_status *out)
{
    return subscribe(operation::subslink, handle, id, &board::subscriptions::link, out);
}

int32_t dolm_ric_ri_unsubslink(uintptr_t handle, uint32_t id)
{
    return unsubscribe(operation::unsubslink, handle, id, &board::subscriptions::link);
}

int32_t dolm_ric_ri_getlinkstatus(uintptr_t handle, uint32_t id, dolm_ric_link_status *out)
{
    return read_status(operation::getlinkstatus, handle, id, out);
}

int32_t dolm_ric_ri_getmoduleinfo(uintptr_t handle, uint32_t id, dolm_ric_module_info *out)
{
    return read_port(operation::getmoduleinfo, handle, id, out);
}

int32_t dolm_ric_ri_getmodstatus(uintptr_t handle, uint32_t id, dolm_ric_module_status *out)
{
    return read_port(operation::getmodstatus, handle, id, out);
}

int32_t dolm_ric_ri_getmodulediag(uintptr_t handle, uint32_t id, dolm_ric_module_diag *out)
{
    return read_port(operation::getmodulediag, handle, id, out);
}
