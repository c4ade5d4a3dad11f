/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_dolm_ric - the adapter of the hardware library: only these sources call it. All functions
   run on the main thread unless they say otherwise; the module has a thread of its own for the
   library's events. Every read is synchronous: the main loop waits for the library. A port number's
   lower 16 bits name the port.

   Exhausted memory is traced and ends the process by abort (alloc_or_abort). */
#pragma once

#include "tesk_server/tesk_signals.h"
#include "tesk_server/tesk_types.h"

#include <cstddef>
#include <cstdint>

/* Starts the library and the hardware event thread, after the event queue. 0, or the result of the
   failed call, which is traced. */
int32_t tesk_dolm_ric_init();

/* Stops the library and joins the thread, each only if it was started. */
void tesk_dolm_ric_shutdown();

/* The text of a library result; never null. Any thread. */
const char *dolm_ric_result_text(int32_t result);

/* malloc that traces exhausted memory and ends the process by abort. Any thread. */
void *alloc_or_abort(size_t size);

/* Reads the presence of a port's module. unsupported_port when the library doesn't know the port,
   sfp_unknown on any other failure; failures are traced. */
tesk_sfp_presence get_dolm_sfp_presence(uint32_t port_no);

/* Makes the hardware subscription to a port's module changes. Same result as
   get_dolm_sfp_presence. */
tesk_sfp_presence subscribe_sfp_info(uint32_t port_no);

/* Ends the hardware subscription. Returns 0; or 1, with a trace, if it could not be ended and the
   port's events continue. */
int32_t unsubscribe_sfp_info(uint32_t port_no);
int32_t subscribe_port_status(uint32_t port_no);
int32_t unsubscribe_port_status(uint32_t port_no);

/* Reads the module's identity into `info`, which the caller has zeroed, if a module can be expected
   for `presence`: sfp_present_and_ready or sfp_unknown. Fills type, texts and speed, and returns
   the presence as read. Without a successful read `info` is untouched. */
tesk_sfp_presence get_sfp_info(uint32_t port_no, uint32_t presence, tesk_sfp_info *info);

/* Reads link, module and diagnostics and grades the measured values. Sets all fields of `info`: a
   value that could not be read gets the value for "not read". */
void get_port_info(uint32_t port_no, tesk_port_info *info);

/* Reads the measured values of counters->port_no into `counters`, which is otherwise zero. 0, or a
   library result, traced. */
int32_t read_pm_counters(tesk_pm_counters *counters);
