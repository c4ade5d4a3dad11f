/* SPDX-License-Identifier: Apache-2.0 */
/* zel_tracepoints - the events and fields that `lttng list -u` and babeltrace2 show. LTTng
   includes this file several times, so its guard is LTTng's. Any thread. */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER zel
#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "platform/zel/zel_tracepoints.h"

#if !defined(ZEL_TRACEPOINTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define ZEL_TRACEPOINTS_H

#include "platform/zel/zel_record.h"

#include <lttng/tracepoint.h>

// clang-format off
#define ZEL_COMMON_FIELDS                                                                          \
    lttng_ust_field_integer(uint32_t, group, record->group)                                        \
    lttng_ust_field_string(thread, record->thread)                                                 \
    lttng_ust_field_string(file, record->file)                                                     \
    lttng_ust_field_integer(uint32_t, line, record->line)

LTTNG_UST_TRACEPOINT_EVENT(zel, trace,
    LTTNG_UST_TP_ARGS(const zel_record *, record),
    LTTNG_UST_TP_FIELDS(
        ZEL_COMMON_FIELDS
        lttng_ust_field_string(text, record->text)))

LTTNG_UST_TRACEPOINT_EVENT(zel, received_signal,
    LTTNG_UST_TP_ARGS(const zel_record *, record),
    LTTNG_UST_TP_FIELDS(
        ZEL_COMMON_FIELDS
        lttng_ust_field_integer_hex(uint32_t, number, record->number)
        lttng_ust_field_string(text, record->text)))

LTTNG_UST_TRACEPOINT_EVENT(zel, sent_signal,
    LTTNG_UST_TP_ARGS(const zel_record *, record),
    LTTNG_UST_TP_FIELDS(
        ZEL_COMMON_FIELDS
        lttng_ust_field_integer_hex(uint32_t, number, record->number)
        lttng_ust_field_integer_hex(uint32_t, receiver, record->receiver)
        lttng_ust_field_string(text, record->text)))
// clang-format on

#endif

#include <lttng/tracepoint-event.h>
