/* SPDX-License-Identifier: Apache-2.0 */
/* zel_lttng - traces as LTTng events.

   A shared object of its own, which libzel loads only where the setting asks for it: LTTng starts
   threads and maps memory in every process that it is loaded into. Its tracepoints may be hit in a
   signal handler, on a thread that lttng_ust_init_thread has made ready: a thread that was not
   would allocate its thread-local data at its first event. */
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "platform/zel/zel_tracepoints.h"

#include <lttng/ust-thread.h>

static void write_event(const zel_record &record)
{
    switch (record.kind) {
    case zel_kind::trace:
        lttng_ust_tracepoint(zel, trace, &record);
        return;
    case zel_kind::received:
        lttng_ust_tracepoint(zel, received_signal, &record);
        return;
    case zel_kind::sent:
        lttng_ust_tracepoint(zel, sent_signal, &record);
        return;
    }
}

extern "C" const zel_sink zel_lttng_sink;
extern "C" const zel_sink zel_lttng_sink = {write_event, lttng_ust_init_thread};
