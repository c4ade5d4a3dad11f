/* SPDX-License-Identifier: Apache-2.0 */
/* zel_record - one trace on its way to a sink, and what a sink is. Inside libzel only: libzel and
   its LTTng provider are two shared objects that share this file. */
#pragma once
#include <cstdint>

enum class zel_kind { trace, received, sent };

/* No pointer in it is null, so that no sink has to ask. It lives as long as the call that writes
 * it. */
struct zel_record {
    zel_kind kind;
    uint32_t group;
    const char *file;
    uint32_t line;
    uint32_t number;   /* received and sent: the signal's number */
    uint32_t receiver; /* sent: the mailbox that it goes to */
    const char *text;
    const char *thread;
};

/* Both functions run on any thread. `write` runs in signal handlers too, also in one that
   interrupts a `write`. */
struct zel_sink {
    void (*write)(const zel_record &record);

    /* Makes the calling thread ready for `write` in a signal handler; null where every thread is
       ready as it is, those that are yet to be made included. */
    void (*enter_thread)();
};
