/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_waker - rings many bells in one system call, on a thread of its own. Any thread.

   To ring a bell costs a sender a system call, and, where receivers share its core, a switch to
   each receiver and back. In a fan-out the bells are left to the waker's thread. It runs when the
   sender has nothing more to do, or on another core, and reads all bells that are due by one
   submission to an io_uring. Bells that the kernel doesn't read in this way are rung one by one.

   Where the system has no io_uring (before Linux 5.18, a sandbox, MBX_IO_URING=0), or there is no
   memory for the thread, senders ring the bells themselves. The thread starts with the first
   fan-out, blocks all process signals, and waits for nothing that a peer can hold up. */
#pragma once

#include "platform/mbx/mbx_fd.h"

#include <mutex>

/* Whether the waker will ring the bell; otherwise the caller must. From then on the bell has to
   stay open until it is given to retire_bell(). */
bool ring_later(int bell);
/* Closes a bell, after it has been rung if it is due. */
void retire_bell(owned_fd bell);

/* Rings the bells that are due and ends the thread. Harmless if the thread doesn't run. To be
   called without any lock. */
void stop_waker();

/* Held around a fork. */
extern std::mutex waker_lock;
/* For a forked child, which doesn't have the thread: makes a new waker. */
void forget_waker();
