/* SPDX-License-Identifier: Apache-2.0 */
/* Traces as LTTng events.

   A separate shared object, which libzel loads only if LTTng is the sink: LTTng starts threads and
   maps memory in every process that loads it. A tracepoint in a signal handler is safe on a thread
   prepared by lttng_ust_init_thread; on others the first event allocates thread-local data. */
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
