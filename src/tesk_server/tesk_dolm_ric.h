/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_dolm_ric - the only code of the server that talks to the hardware library. Main thread, but
   for the hardware event thread that it runs itself. Every read is synchronous: the main loop waits
   for the library. */
#pragma once

#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_types.h"

#include <cstddef>
#include <cstdint>

/* Starts the library and the hardware event thread. 0, or the failing call's result, traced. The
   event queue exists by then. */
int32_t tesk_dolm_ric_init();

/* Stops the library and waits for the thread, each only if it was started. */
void tesk_dolm_ric_shutdown();

/* The text of a library result; never null. Any thread. */
const char *dolm_ric_result_text(int32_t result);

/* malloc that traces and ends the process by abort when memory is out. Any thread. */
void *alloc_or_abort(size_t size);

/* The presence of a port's module, read now. UNSUPPORTED_PORT when the library doesn't know the
   port, SFP_UNKNOWN on any other failure; failures are traced. */
tesk_sfp_presence get_dolm_sfp_presence(uint32_t port_no);

/* Takes the library's subscription to a port's module changes, and gives the presence as above. */
tesk_sfp_presence subscribe_sfp_info(uint32_t port_no);

/* 0, or 1 with a trace; a port whose subscription couldn't be ended goes on giving events. */
int32_t unsubscribe_sfp_info(uint32_t port_no);
int32_t subscribe_port_status(uint32_t port_no);
int32_t unsubscribe_port_status(uint32_t port_no);

/* Reads the module's identity into `info`, which the caller has cleared, if `presence` lets expect
   a module. Fills type, texts and speed; gives the presence as read. Without a read `info` is
   untouched. */
tesk_sfp_presence get_sfp_info(uint32_t port_no, uint32_t presence, tesk_sfp_info *info);

/* Reads link, module and diagnostics and grades the measured values. Sets every field of `info`:
   what could not be read keeps a value that says so. */
void get_port_info(uint32_t port_no, tesk_port_info *info);

/* Reads the measured values of counters->port_no into `counters`, which is otherwise zero. 0, or a
   library result, traced. */
int32_t read_pm_counters(tesk_pm_counters *counters);
