/* SPDX-License-Identifier: Apache-2.0 */
/* Start and stop of the hardware library, and the hardware event thread.

   The thread waits in the library, converts each event to a record of the event queue and frees the
   event at once. It makes no decision and reads nothing from the hardware: the main thread decides
   whether a change concerns a client, and makes all other calls of the library. The two threads
   share the handle, which is written before the thread exists, and the queue.

   While the main thread is late, the thread pauses after each event: the library then notices that
   its events aren't taken, and answers to clients wait for few events. No event is lost.

   The library's shutdown event ends the thread. A failed wait doesn't, as the failure may be
   temporary: it is repeated after a pause. While the server stops, however, a failed wait ends the
   thread, as the join might otherwise never return. */
#include "tesk_server/tesk_dolm_ric_internal.h"
#include "tesk_server/tesk_event_queue.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/prctl.h>

static constexpr char event_thread_name[] = "tesk-s-dolm-e";

static constexpr uint32_t quick_retries = 10;
static constexpr long shortest_pause_ms = 5;
static constexpr long longest_pause_ms = 100;
static constexpr long pause_for_main_thread_ms = 1;

uintptr_t dolm_ric_handle;

static bool library_started;
static bool thread_started;
static pthread_t event_thread;

/* Set before the library is stopped, so that it is visible to the thread when the stop makes a wait
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

static tesk_hw_event *make_event(tesk_hw_event_type type, uint32_t port_no)
{
    auto *event = static_cast<tesk_hw_event *>(alloc_or_abort(sizeof(tesk_hw_event)));

    event->type = type;
    event->port_no = port_no;
    return event;
}

/* All states but operational are port_down. */
static void handle_link_status(const dolm_ric_link_status *link)
{
    const uint32_t port_no = dolm_ric_port_no(link->id);

    tesk_trace(TESK_TRACE_COURSE,
               "dolm_ric_event_main(): DOLM_RICEVT_RILINKSTATUS received for port %u, "
               "link_status.state = %u(0 = DOLM_RICRILINKSTATE_STOPPED, 1 = "
               "DOLM_RICRILINKSTATE_NOOPERATION, 2 = DOLM_RICRILINKSTATE_OPERATIONAL)",
               port_no, link->state);
    tesk_hw_event *event = make_event(tesk_hw_event_port_state, port_no);
    event->state = link->state == DOLM_RICRILINKSTATE_OPERATIONAL ? port_up : port_down;
    tesk_event_queue_put(event);
}

/* An event of a port that isn't started gives an unknown presence; a read gives an empty port. */
static tesk_sfp_presence presence_of_event(uint32_t status)
{
    if (status & DOLM_RICRIPORT_MODREADY)
        return sfp_present_and_ready;
    if (status & DOLM_RICRIPORT_MODINSERTED)
        return sfp_present_not_ready;
    if (status & DOLM_RICRIPORT_STARTED)
        return sfp_not_present;
    tesk_trace(TESK_TRACE_COURSE, "dolm_ric_event_main(): unhandled port_status(%u) received",
               status);
    return sfp_unknown;
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
    tesk_hw_event *event = make_event(tesk_hw_event_sfp, port_no);
    event->state = presence_of_event(port->status);
    tesk_event_queue_put(event);
}

/* False when the thread is to end. */
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

static void pause_for(long ms)
{
    const struct timespec pause = {.tv_sec = 0, .tv_nsec = ms * 1'000'000};

    nanosleep(&pause, nullptr);
}

/* Pauses before the wait for an event is repeated, after so many failures in a row. The first pause
   is short, as the failure may be temporary; each further one is twice as long, up to the longest,
   so that a library that fails permanently costs hardly any CPU time and ten traces a second. */
static void pause_after_failures(uint32_t failures)
{
    long pause_ms = shortest_pause_ms;

    for (uint32_t count = quick_retries; count < failures && pause_ms < longest_pause_ms; count++)
        pause_ms = std::min(pause_ms * 2, longest_pause_ms);
    pause_for(pause_ms);
}

static void *dolm_ric_event_main(void *)
{
    bool running = true;
    uint32_t failures = 0; /* of the wait, in a row */

    /* The names are for diagnostics only; the thread works without them. */
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
            failures += failures < UINT32_MAX;
            if (running)
                pause_after_failures(failures);
            continue;
        }
        failures = 0;
        running = handle_event(event);
        dolm_ric_freeevent(dolm_ric_handle, &event);
        if (running && !stopping && tesk_event_queue_is_long())
            pause_for(pause_for_main_thread_ms);
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

/* Also called after a failed start, so each part is ended only if it was started. The library is
   stopped first, which ends the thread. */
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
