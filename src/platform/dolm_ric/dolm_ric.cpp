/* SPDX-License-Identifier: Apache-2.0 */
/* The thirteen operations. Each looks up whether somebody ordered it to fail, then does its work on
   the desk (events, subscriptions) and the port source (what ports report) behind it.

   There is one board in a process at a time. Its handle is a number that no other board of the
   process ever had, so that a stale handle is found out. The desk outlives every board: the event
   thread may still sit on it, and give its last event back, while the main thread shuts down. The
   control thread is started and ended without the desk's lock, since it takes that lock itself. */
#include "platform/dolm_ric/dolm_ric.h"

#include "platform/dolm_ric/desk.h"
#include "platform/dolm_ric/dolm_ric_board.h"
#include "platform/dolm_ric/simulator/board_control.h"
#include "platform/dolm_ric/simulator/board_file.h"
#include "platform/dolm_ric/simulator/simulated_ports.h"

#include <cstdlib>

using board::operation;

namespace
{

struct library {
    board::desk desk;
    uintptr_t handle = 0;                          /* of the latest board; guarded by desk.lock */
    std::unique_ptr<board::simulated_ports> ports; /* null once the board is shut down */
    std::unique_ptr<board::board_control> control; /* null if the board can't be played */
};

} // namespace

/* Never destroyed: threads that use it may outlive main(). */
static library &self()
{
    static library &the_one = *new library;
    return the_one;
}

/* Nothing but result codes leaves an operation. */
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

/* Runs the work of an operation on the board with that handle. The work has the desk's lock, and
   the guard of it, as it may have to give it up for a while. */
template <typename work>
static int32_t on_board(operation op, uintptr_t handle, work &&run) noexcept
{
    return result_of([&]() -> int32_t {
        library &lib = self();
        std::unique_lock guard(lib.desk.lock);
        if (handle == 0 || handle != lib.handle)
            return DOLM_RICERR_INVALID;
        lib.desk.count_call(op);
        return run(lib, guard);
    });
}

/* Runs the work of an operation on a port, unless it is to fail. */
template <typename work>
static int32_t on_port(operation op, uintptr_t handle, uint32_t id, work &&run) noexcept
{
    return on_board(op, handle, [&](library &lib, auto &) -> int32_t {
        if (!lib.desk.is_open())
            return DOLM_RICERR_SHUTDOWN;
        const uint32_t port = id & 0xffff;
        if (const int32_t code = lib.desk.ordered_failure(op, port))
            return code;
        if (id != (board::id_of_port_0 | port) || port >= lib.ports->ports())
            return DOLM_RICERR_NODEV;
        return run(lib, port);
    });
}

template <typename record>
static int32_t read_port(operation op, uintptr_t handle, uint32_t id, record *out) noexcept
{
    if (out == nullptr)
        return DOLM_RICERR_INVALID;
    return on_port(op, handle, id, [out](library &lib, uint32_t port) {
        const board::port_source &source = *lib.ports;
        return source.read(port, *out);
    });
}

/* The subscription and the status that goes with it are taken under one lock: no change falls
   between them. */
template <typename record>
static int32_t subscribe(operation op, uintptr_t handle, uint32_t id, board::subscription_kind kind,
                         record *out) noexcept
{
    if (out == nullptr)
        return DOLM_RICERR_INVALID;
    return on_port(op, handle, id, [kind, out](library &lib, uint32_t port) {
        const board::port_source &source = *lib.ports;
        const int32_t result = source.read(port, *out);
        if (result == DOLM_RICERR_OK)
            lib.desk.subscribe(port, kind);
        return result;
    });
}

static int32_t unsubscribe(operation op, uintptr_t handle, uint32_t id,
                           board::subscription_kind kind) noexcept
{
    return on_port(op, handle, id, [kind](library &lib, uint32_t port) {
        return lib.desk.unsubscribe(port, kind) ? DOLM_RICERR_OK : DOLM_RICERR_INVALID;
    });
}

/* A set-uid program isn't steered by whoever starts it. */
static const char *environment(const char *name, const char *otherwise)
{
    const char *value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

/* A board that nobody can play is still a board. */
static void start_control(library &lib)
{
    const char *path = environment(DOLM_RIC_BOARD_SOCKET_ENV, DOLM_RIC_BOARD_SOCKET);
    try {
        lib.control = std::make_unique<board::board_control>(
            path, board::stage{.events = lib.desk, .ports = *lib.ports});
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: teskboard can't play this board: %s\n", error.what());
    }
}

/* The handle is a new one even if the start fails, so that no older one can reach what was begun.
   An ordered failure can only come from the board file here. */
int32_t dolm_ric_init(uintptr_t *handle, uint32_t)
{
    return result_of([handle]() -> int32_t {
        library &lib = self();
        if (handle == nullptr)
            return DOLM_RICERR_INVALID;
        {
            const std::lock_guard guard(lib.desk.lock);
            if (lib.ports)
                return DOLM_RICERR_BUSY;
            lib.handle++;
            try {
                lib.ports =
                    board::make_board(environment(DOLM_RIC_BOARD_FILE_ENV, nullptr), lib.desk);
            } catch (const board::board_error &error) {
                fprintf(stderr, "libdolm_ric: %s\n", error.what());
                return DOLM_RICERR_INVALID;
            }
            lib.desk.count_call(operation::init);
            if (const int32_t code = lib.desk.ordered_failure(operation::init, 0)) {
                lib.ports.reset();
                return code;
            }
            *handle = lib.handle;
        }
        start_control(lib);
        return DOLM_RICERR_OK;
    });
}

/* Ends the board even if it is to fail: the caller could do nothing but wait for ever. */
int32_t dolm_ric_shutdown(uintptr_t handle, uint32_t)
{
    return on_board(operation::shutdown, handle, [](library &lib, auto &guard) -> int32_t {
        if (!lib.desk.is_open())
            return DOLM_RICERR_SHUTDOWN;
        const int32_t code = lib.desk.ordered_failure(operation::shutdown, 0);
        lib.desk.close();
        guard.unlock();
        lib.control.reset();
        guard.lock();
        lib.ports.reset();
        return code;
    });
}

int32_t dolm_ric_waitevent(uintptr_t handle, dolm_ric_event **event)
{
    if (event == nullptr)
        return DOLM_RICERR_INVALID;
    return on_board(operation::waitevent, handle, [event](library &lib, auto &guard) {
        return lib.desk.wait_event(guard, *event);
    });
}

/* Takes the event back even if it is to fail, so that an ordered failure costs no memory. */
int32_t dolm_ric_freeevent(uintptr_t handle, dolm_ric_event **event)
{
    if (event == nullptr)
        return DOLM_RICERR_INVALID;
    return on_board(operation::freeevent, handle, [event](library &lib, auto &) -> int32_t {
        const bool was_out = lib.desk.free_event(*event);
        *event = nullptr;
        const int32_t code = lib.desk.ordered_failure(operation::freeevent, 0);
        return code != 0 || was_out ? code : DOLM_RICERR_INVALID;
    });
}

int32_t dolm_ric_ri_getportstatus(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    return read_port(operation::getportstatus, handle, id, out);
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
    return read_port(operation::getlinkstatus, handle, id, out);
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
