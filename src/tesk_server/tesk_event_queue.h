/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_event_queue - passes hardware events from the hardware event thread to the main thread: a
   stack guarded by a mutex, with an eventfd that the main loop waits for. Its size is not limited,
   since a limit would lose events; the hardware event thread puts events more slowly while the
   queue is long. An event takes 24 bytes. Nothing here allocates. */
#pragma once

#include <cstdint>

enum tesk_hw_event_type : uint32_t {
    tesk_hw_event_port_state = 0,
    tesk_hw_event_sfp = 1,
};

struct tesk_hw_event {
    uint32_t type; /* tesk_hw_event_type */
    uint32_t port_no;
    uint32_t state; /* a tesk_port_state or a tesk_sfp_presence, by `type` */
    tesk_hw_event *next;
};

/* Creates the eventfd. 0, or tesk_failure with a trace. Main thread. */
int tesk_event_queue_init();

/* The descriptor, readable while events are queued. Main thread. */
int tesk_event_queue_get_fd();

/* Takes ownership of `event`, a block from malloc with all fields but `next` set. Hardware event
   thread. */
void tesk_event_queue_put(tesk_hw_event *event);

/* Whether so many events are queued that the main loop is late. Hardware event thread. */
bool tesk_event_queue_is_long();

/* Removes all events from the queue and returns them, newest first; the caller releases each with
   free. Null when there are none. Called only while the descriptor is readable. Main thread. */
tesk_hw_event *tesk_event_queue_take_all();

/* Closes the descriptor and frees the events that are still queued. Called when the hardware event
   thread has ended. */
void tesk_event_queue_shutdown();
