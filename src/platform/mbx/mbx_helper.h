/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_helper - the one thread that serves the library in a process: it waits for descriptors and
   points in time, and calls functions. It is independent of their purpose, and blocks all process
   signals. */
#pragma once

#include "platform/mbx/mbx_fd.h"

#include <mutex>

/* Held while a function is called, but not while the thread waits. Comes before all other locks. */
extern std::mutex helper_lock;

/* The purpose of a watched descriptor: the kind chooses the function, `slot` (24 bits) and `id`
   identify the object of the event, which the function looks up again, because it may have ended
   meanwhile. */
constexpr size_t helper_kinds = 8;
using helper_call = void (*)(uint32_t slot, uint32_t id);
/* Does what is due at `now`; returns when it is to be called next, at the latest. */
using helper_timer = time_point (*)(time_point now);
constexpr size_t helper_timers = 3;

/* To be set before the helper starts. Kinds from 1. */
void helper_set_call(size_t kind, helper_call call);
void helper_set_timer(size_t which, helper_timer timer);

/* In a forked child: there is no such thread here. */
void forget_helper();
/* Starts the thread unless it runs; one caller at a time. False, with errno, on failure. */
bool start_helper();
/* Ends the thread. Harmless if it doesn't run. Without any lock of those that functions take. */
void stop_helper();

/* From any thread. `events` as for epoll_ctl; they replace those of a descriptor that is watched
   already. False, with errno, on failure. */
bool helper_watch(size_t kind, int fd, uint32_t events, uint32_t slot, uint32_t id);
/* To be called before the descriptor is closed. Harmless if it isn't watched. */
void helper_unwatch(int fd);
/* Lets all timers be called soon. */
void helper_wake();
