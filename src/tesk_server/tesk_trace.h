/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_trace - the server's interface to the trace library. Any thread, also in a signal handler.
   No function here allocates.

   A text is formatted only if its group is enabled. The mask is read at each trace, since it can
   change while the server runs.

   Nearly all traces are off nearly always, so a trace that is off should cost the test of its bit
   only. The calls for an enabled trace are therefore in cold functions. Written out at each place
   they would make the compiler reserve and save registers for them in the caller, whether the trace
   is on or not: 1 to 4 % more instructions for each procedure with all traces off. Only formatStr
   is called at the place of the trace, where the compiler can check the arguments against the
   format. */
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

/* The trace calls behind the three macros. Each takes the source position of the trace and the text
   from formatStr, which is valid until the thread's next formatStr. */
[[gnu::cold, gnu::noinline]] inline void tesk_write_trace(uint32_t group, const char *path,
                                                          uint32_t line, const char *text)
{
    lttngZelTrace(group, short_fname(path), line, text, procInfo);
}

[[gnu::cold, gnu::noinline]] inline void
tesk_write_received(const char *path, uint32_t line, const mbx_signal *signal, const char *text)
{
    lttngZelRecSigTrace(short_fname(path), line, signal, text, procInfo);
}

[[gnu::cold, gnu::noinline]] inline void tesk_write_sent(const char *path, uint32_t line,
                                                         uint32_t number, uint32_t receiver,
                                                         const char *text)
{
    lttngZelSendSigTrace(short_fname(path), line, number, receiver, text, procInfo);
}

/* tesk_trace(group, format, ...) */
#define tesk_trace(group, ...)                                                                     \
    do {                                                                                           \
        if (tesk_trace_enabled(group))                                                             \
            tesk_write_trace(group, __FILE__, __LINE__, formatStr(__VA_ARGS__));                   \
    } while (0)

/* tesk_trace_received(signal, format, ...): a received signal. */
#define tesk_trace_received(signal, ...)                                                           \
    do {                                                                                           \
        if (tesk_trace_enabled(TESK_TRACE_RECEIVED))                                               \
            tesk_write_received(__FILE__, __LINE__, signal, formatStr(__VA_ARGS__));               \
    } while (0)

/* tesk_trace_sent(number, receiver, format, ...): a signal about to be sent, still in host order.
 */
#define tesk_trace_sent(number, receiver, ...)                                                     \
    do {                                                                                           \
        if (tesk_trace_enabled(TESK_TRACE_SENT))                                                   \
            tesk_write_sent(__FILE__, __LINE__, number, receiver, formatStr(__VA_ARGS__));         \
    } while (0)
