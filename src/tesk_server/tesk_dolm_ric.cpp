/* SPDX-License-Identifier: Apache-2.0 */
/* Start and stop of the hardware library, and the hardware event thread.

   The thread waits in the library, turns each event into a record of the event queue and gives the
   event back at once. It decides nothing and reads nothing of the hardware: whether a change
   matters to anybody is for the main thread, which also makes every other call of the library. The
   two share the handle, written before the thread exists, and the queue.

   The library's shutdown event ends the thread. A wait that fails doesn't, as the library may get
   over it; it is taken up again after a pause of 5 ms, so that a library that fails for good costs
   next to nothing, and events that come again are late by no more than that. Once the server stops,
   though, a failed wait ends the thread too, or the join might never come back. */
#include "tesk_server/tesk_dolm_ric_internal.h"
#include "tesk_server/tesk_event_queue.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/prctl.h>

static constexpr char event_thread_name[] = "tesk-s-dolm-e";

static constexpr struct timespec retry_pause = {.tv_sec = 0, .tv_nsec = 5'000'000};

uintptr_t dolm_ric_handle;

static bool library_started;
static bool thread_started;
static pthread_t event_thread;

/* Set before the library is stopped, so that the thread can't miss it on a wait that the stop makes
   fail. */
static std::atomic<bool> stopping;

const char *dolm_ric_result_text(int32_t result)
{
    switch (result) {
    case DOLM_RICERR_OK:
        return "no error";
    case DOLM_RICERR_INVALID:
        return "invalid parameter(s)";
    case DOLM_RICERR_NOMEM:
        return "no memory";
    case DOLM_RICERR_NODEV:
        return "no device (e.g. port ID is unknown)";
    case DOLM_RICERR_NOTAVAIL:
        return "not available (e.g. SFP EEPROM is not available)";
    case DOLM_RICERR_UNSUPPORTED:
        return "unsupported operation";
    case DOLM_RICERR_BUSY:
        return "resource busy";
    case DOLM_RICERR_SHUTDOWN:
        return "interface shutdown";
    case DOLM_RICERR_INTERNAL:
        return "internal error";
    default:
        return "unknown ric error code";
    }
}

void *alloc_or_abort(size_t size)
{
    void *block = malloc(size);

    if (block == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "malloc: %d (%s)", errno, strerror(errno));
        abort();
    }
    return block;
}

static void queue_event(tesk_hw_event_type type, uint32_t port_no, uint32_t state)
{
    auto *event = static_cast<tesk_hw_event *>(alloc_or_abort(sizeof(tesk_hw_event)));

    event->type = type;
    event->port_no = port_no;
    event->state = state;
    tesk_event_queue_put(event);
}

/* Any state but operational is down to the server: a link that is stopped carries as little as one
   that fails. */
static void handle_link_status(const dolm_ric_link_status *link)
{
    const uint32_t port_no = dolm_ric_port_no(link->id);

    tesk_trace(TESK_TRACE_COURSE,
               "dolm_ric_event_main(): DOLM_RICEVT_RILINKSTATUS received for port %u, "
               "link_status.state = %u(0 = DOLM_RICRILINKSTATE_STOPPED, 1 = "
               "DOLM_RICRILINKSTATE_NOOPERATION, 2 = DOLM_RICRILINKSTATE_OPERATIONAL)",
               port_no, link->state);
    queue_event(TESK_HW_EVENT_PORT_STATE, port_no,
                link->state == DOLM_RICRILINKSTATE_OPERATIONAL ? PORTSTATE_UP : PORTSTATE_DOWN);
}

/* Unlike a read, an event of a port that isn't even started says that the presence is unknown. */
static tesk_sfp_presence presence_of_event(uint32_t status)
{
    if (status & DOLM_RICRIPORT_MODREADY)
        return SFP_PRESENT_AND_READY;
    if (status & DOLM_RICRIPORT_MODINSERTED)
        return SFP_PRESENT_NOT_READY;
    if (status & DOLM_RICRIPORT_STARTED)
        return SFP_NOT_PRESENT;
    tesk_trace(TESK_TRACE_COURSE, "dolm_ric_event_main(): unhandled port_status(%u) received",
               status);
    return SFP_UNKNOWN;
}

static void handle_port_status(const dolm_ric_port_status *port)
{
    const uint32_t port_no = dolm_ric_port_no(port->id);

    tesk_trace(TESK_TRACE_COURSE,
               "dolm_ric_event_main(): DOLM_RICEVT_RIPORTSTATUS received for port %u, "
               "port_status.status = %u(bitset of states: 0x01 = DOLM_RICRIPORT_STARTED, 0x02 = "
               "DOLM_RICRIPORT_MODREADY, 0x04 = DOLM_RICRIPORT_POWERFAULT, 0x08 = "
               "DOLM_RICRIPORT_MODINSERTED)",
               port_no, port->status);
    queue_event(TESK_HW_EVENT_SFP, port_no, presence_of_event(port->status));
}

/* Whether the thread goes on. */
static bool handle_event(const dolm_ric_event *event)
{
    switch (event->type) {
    case DOLM_RICEVT_SHUTDOWN:
        return false;
    case DOLM_RICEVT_RILINKSTATUS:
        handle_link_status(&event->link_status);
        return true;
    case DOLM_RICEVT_RIPORTSTATUS:
        handle_port_status(&event->port_status);
        return true;
    default:
        tesk_trace(TESK_TRACE_COURSE, "dolm_ric_event_main(): unexpected dolm event(%u) received",
                   event->type);
        return true;
    }
}

static void *dolm_ric_event_main(void *)
{
    bool running = true;

    /* Both names serve people who look at the process; the thread works without them. */
    if (prctl(PR_SET_NAME, event_thread_name, 0, 0, 0) != 0)
        tesk_trace(TESK_TRACE_NOTABLE, "Failed to register tesk-s-dolm-e name!");
    zel_register_thread_name(event_thread_name);

    while (running) {
        dolm_ric_event *event = nullptr;
        const int32_t result = dolm_ric_waitevent(dolm_ric_handle, &event);
        if (result != DOLM_RICERR_OK) {
            tesk_trace(TESK_TRACE_ERROR, "dolm_ric_waitevent: %d (%s)", result,
                       dolm_ric_result_text(result));
            running = !stopping;
            if (running)
                nanosleep(&retry_pause, nullptr);
            continue;
        }
        running = handle_event(event);
        dolm_ric_freeevent(dolm_ric_handle, &event);
    }
    return nullptr;
}

int32_t tesk_dolm_ric_init()
{
    int32_t result = dolm_ric_init(&dolm_ric_handle, 0);

    if (result != DOLM_RICERR_OK) {
        tesk_trace(TESK_TRACE_ERROR, "dolm_ric_init: %d (%s)", result,
                   dolm_ric_result_text(result));
        return result;
    }
    library_started = true;
    stopping = false;

    result = pthread_create(&event_thread, nullptr, dolm_ric_event_main, nullptr);
    if (result != 0) {
        tesk_trace(TESK_TRACE_ERROR, "pthread_create() failed: %d (%s)", result, strerror(result));
        return result;
    }
    thread_started = true;
    return 0;
}

/* A failed start comes here too, so what never began is not ended. The library is stopped first:
   that is what makes the thread end. */
void tesk_dolm_ric_shutdown()
{
    if (library_started) {
        stopping = true;
        dolm_ric_shutdown(dolm_ric_handle, 0);
    }
    library_started = false;
    if (!thread_started)
        return;
    thread_started = false;
    const int result = pthread_join(event_thread, nullptr);
    if (result != 0)
        tesk_trace(TESK_TRACE_ERROR, "pthread_join() failed: %d (%s)", result, strerror(result));
}
