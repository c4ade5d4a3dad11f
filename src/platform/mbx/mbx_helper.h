/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_helper - the one thread that serves the library in a process: it waits for descriptors and
   points in time, and calls the functions of a table (mbx_api.cpp). It blocks all process signals.
 */
#pragma once

#include "platform/mbx/mbx_fd.h"

#include <mutex>

/* Held while a function of the table is called, but not while the thread waits. Comes before all
   other locks. */
extern std::mutex helper_lock;

/* The purpose of a watched descriptor. */
enum watch_kind : size_t {
    watch_listener,   /* slot and id: of the mailbox */
    watch_greeting,   /* id: of a connection that has not greeted yet */
    watch_control,    /* slot: of the mailbox; id: of the connection */
    watch_life,       /* the same */
    watch_first_ring, /* the same */
    watch_parting,    /* id: of a connection that has ended here */
    watch_ends,       /* of memory files */
    watch_wake,       /* of the helper itself */
};

struct helper_duties {
    /* By kind. `slot` (24 bits) and `id` identify the object of the event, which the function looks
       up again, because it may have ended meanwhile. */
    void (*calls[watch_wake])(uint32_t slot, uint32_t id);
    /* Each handles what is due at `now`, and returns the latest time for its next call. */
    time_point (*timers[3])(time_point now);
};

/* For a forked child, which doesn't have the thread: closes the child's copies of the helper's
   descriptors. */
void forget_helper();
/* Starts the thread unless it runs; one caller at a time. False, with errno, on failure. */
bool start_helper(const helper_duties &duties);
/* Ends the thread. Harmless if the thread doesn't run. To be called without any lock that the
   table's functions take. */
void stop_helper();

/* From any thread. `events` as for epoll_ctl; they replace those of a descriptor that is watched
   already. False, with errno, on failure. */
bool helper_watch(watch_kind kind, int fd, uint32_t events, uint32_t slot, uint32_t id);
/* To be called before the descriptor is closed. Harmless if it isn't watched. */
void helper_unwatch(int fd);
/* Makes the thread call all timers soon. */
void helper_wake();
