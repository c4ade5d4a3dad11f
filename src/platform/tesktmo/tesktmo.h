/* libtesktmo - timers that deliver a signal. Everything here has C linkage. */
#ifndef TESKTMO_H
#define TESKTMO_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mbx_signal;

/* Starts the service; true when it runs. */
bool tmo_service_init(void);

/* Harmless when it never started. Signals that are still pending are freed. */
void tmo_service_stop(void);

/* Takes the block over and sets the pointer to null. Delivers it once to the calling thread's
   mailbox, with that mailbox as sender, after `interval` units of 100 ms. Without a running service
   the block is freed. */
void tmo_request_sig(uint32_t interval, struct mbx_signal **signal);

#ifdef __cplusplus
}
#endif
#endif
