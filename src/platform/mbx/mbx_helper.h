/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_helper - the one thread that the library runs in a process. It accepts connections, reads
   greetings, notices the end of connections, and hands on what the kernel did not take at once.
   It blocks all signals. */
#pragma once

#include "platform/mbx/mbx_mailbox.h"

#include <mutex>

enum class watch_kind : uint8_t {
    stop,
    listener, /* of a mailbox */
    greeting, /* a connection that has not greeted yet */
    control,  /* a connection: anything on it ends it */
    writable, /* a connection with a queue: its receiver has room again */
};

/* What the thread holds while it works, but not while it waits. Comes before all other locks. */
extern std::mutex helper_lock;

/* With registry_lock held. Starts the thread unless it runs. False, with errno, on failure. */
bool start_helper();
/* Ends the thread and what it had in work. Harmless if it doesn't run. Without any lock. */
void stop_helper();
/* In a forked child, with all locks held: there is no such thread here. */
void forget_helper();

/* From any thread. False, with errno, on failure. */
bool helper_watch_listener(int listener, uint32_t mailbox_id);
bool helper_watch_connection(watch_kind kind, int fd, const mailbox &m, uint32_t connection_id);
/* To be called before the descriptor is closed. Harmless if it isn't watched. */
void helper_unwatch(int fd);
