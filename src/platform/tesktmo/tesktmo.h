/* SPDX-License-Identifier: Apache-2.0 */
/* libtesktmo - timers that deliver a signal. One service serves the process, on a thread of its own
   with all process signals blocked. Everything here has C linkage and may be called on any thread,
   but not in a signal handler. */
#ifndef TESKTMO_H
#define TESKTMO_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mbx_signal;

/* Starts the service. True if it is running, also if it was running before; false if there is no
   memory, descriptor or thread for it. */
bool tmo_service_init(void);

/* Harmless if no service runs. Pending signals are freed; none is delivered after the return. */
void tmo_service_stop(void);

/* Takes the block over and sets the pointer to null. Delivers it once to the calling thread's
   mailbox, with that mailbox as sender, after `interval` units of 100 ms. The block is freed if no
   service runs, the thread has no mailbox, or memory is exhausted. */
void tmo_request_sig(uint32_t interval, struct mbx_signal **signal);

#ifdef __cplusplus
}
#endif
#endif
