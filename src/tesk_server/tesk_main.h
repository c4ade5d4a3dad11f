/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_main - start-up, the main loop, the dispatch of signals and of queued hardware events, and
   shut-down. Main thread.

   Exhausted memory: a start either fails with a result or ends the process, as the started modules
   describe; nothing here allocates but signals, for which mbx_alloc ends the process. */
#pragma once

#include <cstdint>
#include <sys/epoll.h>

/* Runs the server from start to stop. Returns the exit status of the process. */
int tesk_run();

/* The steps of tesk_run: */

/* Starts everything but the loop. 0, or the exit status of the process. */
int tesk_server_init();

/* Ends everything that tesk_server_init has started, however far that came. */
void tesk_server_shutdown();

/* Handles one source of the main loop. 1 when the server is to stop, else 0. */
int tesk_handle_epoll_event(struct epoll_event event);

/* Receives one signal, handles and frees it. The mailbox is readable. 1 when the server is to stop,
   else 0. */
int tesk_handle_mailbox();

/* Handles and frees all queued hardware events, newest first. The queue's descriptor is readable.
 */
void tesk_handle_queued_events();
