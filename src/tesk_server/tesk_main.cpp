/* SPDX-License-Identifier: Apache-2.0 */
/* One epoll loop over two level-triggered sources: the mailbox and the event queue. A signal or a
   queued event is handled to its end before the next one is looked at.

   The order of the start follows the dependencies: the signal handler needs a mailbox, the hardware
   event thread a queue. Shut-down has the reverse order, except that the clients are removed first.
   It also runs after a failed start without knowing how far that came, so each of its steps is
   harmless for a module that was not started.

   The stop is a signal, too. On SIGTERM or SIGINT the handler sends TESK_EXIT_SIGNAL to the
   server's own mailbox, and the dispatch ends the loop when the sender is that mailbox: no other
   process can stop the server this way. */
#include "tesk_server/tesk_main.h"

#include "platform/mbx/mbx.h"
#include "platform/tesktmo/tesktmo.h"
#include "tesk_server/leaky_bucket.h"
#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_conn_establish.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_event_queue.h"
#include "tesk_server/tesk_get_capabilities.h"
#include "tesk_server/tesk_get_pm_counters.h"
#include "tesk_server/tesk_mbx_monitor.h"
#include "tesk_server/tesk_portsub.h"
#include "tesk_server/tesk_shell_client.h"
#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_subscribe_port_status.h"
#include "tesk_server/tesk_subscribe_sfp_info.h"
#include "tesk_server/tesk_trace.h"
#include "tesk_server/tesk_unsubscribe_port_status.h"
#include "tesk_server/tesk_unsubscribe_sfp_info.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <malloc.h>
#include <unistd.h>

/* The sources of the main loop, as the data word of their registrations. */
enum tesk_epoll_tag : uint32_t {
    tesk_epoll_event_queue = 0,
    tesk_epoll_mailbox = 1,
};
static constexpr int number_of_sources = 2;

/* Written once, before the signal handler can run. */
static uint32_t own_mailbox = MBX_NO_MAILBOX;

/* The signals that are handled by a procedure. A handler is called only if the signal is at least
   as long as its row says. */
struct dispatch_row {
    uint32_t number;
    uint32_t smallest_size;
    void (*handle)(mbx_signal *signal);
};

static constexpr dispatch_row dispatch[] = {
    {TESK_CONN_ESTABLISH_REQ, sizeof(tesk_conn_establish_req), tesk_handle_conn_establish_req},
    {TESK_GET_CAPABILITIES_REQ, sizeof(tesk_get_capabilities_req),
     tesk_handle_get_capabilities_req},
    {TESK_SUBSCRIBE_SFP_INFO_REQ, sizeof(tesk_port_signal), tesk_handle_subscribe_sfp_info_req},
    {TESK_GET_PM_COUNTERS_REQ, sizeof(tesk_port_signal), tesk_handle_get_pm_counters_req},
    {TESK_UNSUBSCRIBE_SFP_INFO_REQ, sizeof(tesk_port_signal), tesk_handle_unsubscribe_sfp_info_req},
    {TESK_SUBSCRIBE_PORT_STATUS_REQ, sizeof(tesk_subscribe_port_status_req),
     tesk_handle_subscribe_port_status_req},
    {TESK_UNSUBSCRIBE_PORT_STATUS_REQ, sizeof(tesk_port_signal),
     tesk_handle_unsubscribe_port_status_req},
    {TESK_PORT_STATUS_FILTER_TICK, sizeof(tesk_port_status_filter_tick),
     tesk_handle_port_status_filter_timeout},
    {MBX_MONITOR_DEFAULT_NO, sizeof(mbx_signal), tesk_handle_client_lost},
};
static_assert(std::ranges::is_sorted(dispatch, {}, &dispatch_row::number));

/* 1 when the server is to stop, else 0. */
static int tesk_dispatch(mbx_signal *signal)
{
    /* From another mailbox the exit signal has no effect. */
    if (signal->number == TESK_EXIT_SIGNAL)
        return mbx_sender(signal) == own_mailbox ? 1 : 0;

    const auto *row = std::ranges::lower_bound(dispatch, signal->number, {}, &dispatch_row::number);

    if (row == std::end(dispatch) || row->number != signal->number) {
        tesk_trace(TESK_TRACE_ERROR, "Received unknown message 0x%08x", signal->number);
        return 0;
    }
    const uint32_t size = mbx_size(signal);
    if (size < row->smallest_size) {
        tesk_trace(TESK_TRACE_ERROR, "Received message 0x%08x is too short: %u bytes",
                   signal->number, size);
        return 0;
    }
    row->handle(signal);
    return 0;
}

int tesk_handle_mailbox()
{
    /* Doesn't wait, as the mailbox is readable. Further signals keep it readable for the next pass
       of the loop, so that hardware events are handled between them. */
    mbx_signal *signal = mbx_receive(nullptr, -1, MBX_ANY_SENDER);
    const int stop = tesk_shell_client_handle(signal) ? 0 : tesk_dispatch(signal);
    mbx_free(&signal);
    return stop;
}

static void tesk_handle_port_state_event(uint32_t port_no, uint32_t port_state)
{
    if (port_state > port_down) {
        tesk_trace(TESK_TRACE_ERROR, "Unknown port state(%s) in dolm event, port %u",
                   tesk_port_state_str(port_state), port_no);
        return;
    }
    tesk_trace(TESK_TRACE_COURSE, "DOLM port state event received. Port %u, port_state: %s",
               port_no, tesk_port_state_str(port_state));
    tesk_handle_port_state_change(port_no, port_state);
}

static void tesk_handle_sfp_event(uint32_t port_no, uint32_t sfp_presence)
{
    /* Stored first, as both sides below use the stored presence. */
    if (!tesk_portsub_update_sfp_presence(port_no, sfp_presence)) {
        tesk_trace(TESK_TRACE_COURSE, "No need to handle this SFP event, no change for port %u",
                   port_no);
        return;
    }
    /* SFP info is sent first: a client subscribed to both learns the module before its status. */
    tesk_handle_sfp_presence_change(port_no, sfp_presence);
    tesk_handle_port_status_sfp_presence_change(port_no, sfp_presence);
}

/* An event of a port without a subscriber of its kind is dropped without a trace: it may have been
   queued before the last subscriber left. */
static void handle_hw_event(const tesk_hw_event *event)
{
    switch (event->type) {
    case tesk_hw_event_port_state:
        if (tesk_portsub_find_port_status(event->port_no) != -1)
            tesk_handle_port_state_event(event->port_no, event->state);
        break;
    case tesk_hw_event_sfp:
        if (tesk_portsub_find_sfp_info(event->port_no) != -1)
            tesk_handle_sfp_event(event->port_no, event->state);
        break;
    default:
        tesk_trace(TESK_TRACE_ERROR, "Unknown event: %u", event->type);
        break;
    }
}

void tesk_handle_queued_events()
{
    tesk_hw_event *event = tesk_event_queue_take_all();

    /* The events are in the order of the queue, newest first. */
    while (event != nullptr) {
        tesk_hw_event *next = event->next;
        handle_hw_event(event);
        free(event);
        event = next;
    }
}

int tesk_handle_epoll_event(struct epoll_event event)
{
    if ((event.events & EPOLLIN) == 0)
        return 0;
    switch (event.data.u32) {
    case tesk_epoll_event_queue:
        tesk_handle_queued_events();
        return 0;
    case tesk_epoll_mailbox:
        return tesk_handle_mailbox();
    default:
        tesk_trace(TESK_TRACE_ERROR, "Unknown event: %u", event.data.u32);
        return 0;
    }
}

static void tesk_send_exit_signal()
{
    mbx_signal *signal = mbx_alloc(sizeof(mbx_signal), TESK_EXIT_SIGNAL);

    mbx_send(&signal, own_mailbox, MBX_OWN_MAILBOX);
}

/* Runs on the thread that receives the process signal, between any two instructions. */
static void tesk_signal_handler(int signal_number)
{
    const int saved_errno = errno;

    if (signal_number == SIGTERM || signal_number == SIGINT) {
        tesk_trace(TESK_TRACE_NOTABLE, "Received signal %d, terminating...", signal_number);
        tesk_send_exit_signal();
    } else {
        tesk_trace(TESK_TRACE_NOTABLE, "ABN:Unhandled signal %s", strsignal(signal_number));
    }
    errno = saved_errno;
}

/* At the start this precedes all threads of the libraries, which inherit the mask: none of them
   receives a stop signal before there is a mailbox to send to. */
static void tesk_block_all_signals()
{
    sigset_t all;

    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

/* The handlers are installed before the signals are unblocked, so that a signal that is pending
   since before the start stops the server cleanly, too. */
static void tesk_setup_signal_handling()
{
    struct sigaction action = {};
    sigset_t stop_signals;

    action.sa_handler = tesk_signal_handler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);
}

/* For failures before there are traces. */
static int init_failure(const char *line)
{
    fwrite(line, 1, strlen(line), stderr);
    return tesk_failure;
}

int tesk_server_init()
{
    tesk_block_all_signals();
    if (mbx_init(5, 0, 0, 0, 0) != 0)
        return init_failure("Unable to initialize MBX!\n");
    /* Both 0 and 4 mean that the library is usable. */
    const int zel_result = zel_init();
    if (zel_result != 0 && zel_result != 4)
        return init_failure("Unable to initialize ZEL!\n");
    zel_register_thread_name("tesk-server");

    /* The stop signals stay blocked until the mailbox exists, as their handler sends to it. */
    own_mailbox = mbx_create_mailbox(TESK_SERVER_NAME, 0);
    if (own_mailbox == MBX_NO_MAILBOX) {
        tesk_trace(TESK_TRACE_ERROR, "Unable to create TESK-server mailbox!");
        return tesk_failure;
    }
    tesk_setup_signal_handling();

    int result = tesk_event_queue_init();
    if (result != 0) {
        tesk_trace(TESK_TRACE_ERROR, "Failed to initialize the event queue!");
        return result;
    }
    result = tesk_dolm_ric_init();
    if (result != 0) {
        /* Readers of traces expect this text, whichever call has failed; tesk_dolm_ric_init has
           traced which one it was. */
        tesk_trace(TESK_TRACE_ERROR, "pthread_create: %d (%s)", result, strerror(result));
        return tesk_failure;
    }
    /* Without timers a filtered port stays filtered; everything else works. */
    if (!tmo_service_init())
        tesk_trace(TESK_TRACE_ERROR, "Timer Service failed to start!");
    leaky_bucket_init();
    tesk_portsub_init();
    tesk_cache_init();
    return 0;
}

void tesk_server_shutdown()
{
    /* No client is notified, and no subscription is ended by itself: the hardware library drops all
       of them when it stops. */
    while (tesk_client *client = tesk_client_first()) {
        mbx_unmonitor(client->monitor_ref);
        tesk_client_remove(client);
    }
    tesk_client_data_reset();
    tesk_portsub_shutdown();
    leaky_bucket_shutdown();
    tesk_cache_shutdown();
    tmo_service_stop();
    /* The hardware event thread uses the queue until it is joined here. */
    tesk_dolm_ric_shutdown();
    tesk_event_queue_shutdown();
    /* From here on the signal handler would have no mailbox to send to. */
    tesk_block_all_signals();
    mbx_delete_mailbox(own_mailbox);
    mbx_exit();
}

/* False, with a trace, when the source cannot be registered. */
static bool add_source(int epoll_fd, int fd, tesk_epoll_tag tag)
{
    struct epoll_event event = {};

    event.events = EPOLLIN;
    event.data.u32 = tag;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == -1) {
        tesk_trace(TESK_TRACE_ERROR, "epoll_ctl: %d (%s)", errno, strerror(errno));
        return false;
    }
    return true;
}

/* Runs until the exit signal is received. A failed wait, for example one that a process signal
   interrupts, gives no events and is repeated. */
static void run_loop(int epoll_fd)
{
    struct epoll_event events[number_of_sources];

    for (;;) {
        const int count = epoll_wait(epoll_fd, events, number_of_sources, -1);
        /* After the stop the other source of the same wake-up is not handled. */
        for (int index = 0; index < count; index++)
            if (tesk_handle_epoll_event(events[index]) == 1)
                return;
    }
}

/* Start-up and main loop. Returns the exit status of the process. */
static int serve(int *epoll_fd)
{
    const int result = tesk_server_init();
    if (result != 0)
        return result;
    *epoll_fd = epoll_create1(0);
    if (*epoll_fd == -1) {
        tesk_trace(TESK_TRACE_ERROR, "epoll_create1: %d (%s)", errno, strerror(errno));
        return tesk_failure;
    }
    if (!add_source(*epoll_fd, tesk_event_queue_get_fd(), tesk_epoll_event_queue) ||
        !add_source(*epoll_fd, mbx_get_fd(), tesk_epoll_mailbox))
        return -1;
    tesk_trace(TESK_TRACE_NOTABLE, "TESK server started!");
    run_loop(*epoll_fd);
    return 0;
}

/* Large blocks go back to the system as soon as they are free. Without these calls the C library
   raises both limits to some MiB when the first large table of subscriptions is freed. */
static void bound_memory()
{
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}

int tesk_run()
{
    int epoll_fd = -1;

    bound_memory();
    const int result = serve(&epoll_fd);

    if (epoll_fd != -1)
        close(epoll_fd);
    tesk_server_shutdown();
    tesk_trace(TESK_TRACE_NOTABLE, "TESK server terminated");
    return result;
}
