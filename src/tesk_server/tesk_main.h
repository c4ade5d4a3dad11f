/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_main - start-up, the main loop, the dispatch of signals and of queued hardware events, and
   shut-down. */
#pragma once

#include <cstdint>
#include <sys/epoll.h>

/* The whole life of the server; the process's exit status. Main thread. */
int tesk_run();

/* The steps of it, main thread. */

/* Starts everything but the loop. 0, or what the process ends with. */
int tesk_server_init();

/* Ends what tesk_server_init began, however far that came. */
void tesk_server_shutdown();

/* Handles one ready source of the main loop. 1 when the server is to stop. */
int tesk_handle_epoll_event(struct epoll_event event);

/* Takes one signal out of the mailbox, handles and frees it. 1 when the server is to stop. */
int tesk_handle_mailbox();

/* Takes all hardware events out of the queue, newest first. */
void tesk_handle_queued_events();
