/* tesk_trace - the server's way into the trace library. Any thread, also in a signal handler.

   A text is formatted only where its group is enabled. The mask is read at each trace, since it can
   change while the server runs. */
#pragma once

#include "platform/zel/zel.h"

#include <cstdint>

enum tesk_trace_group : uint32_t {
    TESK_TRACE_ERROR = 1,     /* failed calls and states that shouldn't occur */
    TESK_TRACE_NOTABLE = 4,   /* notable things that the server survives */
    TESK_TRACE_COURSE = 12,   /* the step-by-step course of all procedures */
    TESK_TRACE_BUCKET = 13,   /* the leaky bucket's mechanics */
    TESK_TRACE_RECEIVED = 17, /* received signals */
    TESK_TRACE_SENT = 18,     /* sent signals */
};

static inline bool tesk_trace_enabled(uint32_t group)
{
    return __builtin_expect((procInfo[3] & (1u << group)) != 0, 0);
}

/* tesk_trace(group, format, ...) */
#define tesk_trace(group, ...)                                                                     \
    do {                                                                                           \
        if (tesk_trace_enabled(group))                                                             \
            lttngZelTrace(group, short_fname(__FILE__), __LINE__, formatStr(__VA_ARGS__),          \
                          procInfo);                                                               \
    } while (0)

/* tesk_trace_received(signal, format, ...): a received signal. */
#define tesk_trace_received(signal, ...)                                                           \
    do {                                                                                           \
        if (tesk_trace_enabled(TESK_TRACE_RECEIVED))                                               \
            lttngZelRecSigTrace(short_fname(__FILE__), __LINE__, signal, formatStr(__VA_ARGS__),   \
                                procInfo);                                                         \
    } while (0)

/* tesk_trace_sent(number, receiver, format, ...): a signal about to be sent, still in host order.
 */
#define tesk_trace_sent(number, receiver, ...)                                                     \
    do {                                                                                           \
        if (tesk_trace_enabled(TESK_TRACE_SENT))                                                   \
            lttngZelSendSigTrace(short_fname(__FILE__), __LINE__, number, receiver,                \
                                 formatStr(__VA_ARGS__), procInfo);                                \
    } while (0)
