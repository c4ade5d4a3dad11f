/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_event_queue - carries hardware events from the hardware event thread to the main thread: a
   stack under a mutex, paired with an eventfd that the main loop waits on. It has no bound but
   memory: a bound would mean to lose events, and each is small. */
#pragma once

#include <cstdint>

enum tesk_hw_event_type : uint32_t {
    TESK_HW_EVENT_PORT_STATE = 0,
    TESK_HW_EVENT_SFP = 1,
};

struct tesk_hw_event {
    uint32_t type; /* tesk_hw_event_type */
    uint32_t port_no;
    uint32_t state; /* a tesk_port_state or a tesk_sfp_presence, by `type` */
    tesk_hw_event *next;
};

/* Makes the eventfd. 0, or TESK_FAILURE with a trace. Main thread. */
int tesk_event_queue_init();

/* The descriptor that is readable while events wait. Main thread. */
int tesk_event_queue_get_fd();

/* Takes over `event`, a malloc block with all but `next` set. Hardware event thread. */
void tesk_event_queue_put(tesk_hw_event *event);

/* Hands out all events, newest first; the caller frees each with free. Null when there are none.
   Called only while the descriptor is readable. Main thread. */
tesk_hw_event *tesk_event_queue_take_all();

/* Closes the descriptor and frees what is still queued. The producer has ended by then. */
void tesk_event_queue_shutdown();
