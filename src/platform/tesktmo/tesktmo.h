/* SPDX-License-Identifier: Apache-2.0 */
/* libtesktmo - timers that deliver a signal. One service serves the process, on a thread of its own
   that takes none of the process's signals. Everything here has C linkage and may be called on any
   thread, but not in a signal handler. */
#ifndef TESKTMO_H
#define TESKTMO_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mbx_signal;

/* Starts the service; true when it runs, also when it did before. */
bool tmo_service_init(void);

/* Harmless when it never started. Signals that are still pending are freed; none is delivered after
   the return. */
void tmo_service_stop(void);

/* Takes the block over and sets the pointer to null. Delivers it once to the calling thread's
   mailbox, with that mailbox as sender, after `interval` units of 100 ms. Without a running service
   the block is freed. */
void tmo_request_sig(uint32_t interval, struct mbx_signal **signal);

#ifdef __cplusplus
}
#endif
#endif
