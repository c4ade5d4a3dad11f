/* SPDX-License-Identifier: Apache-2.0 */
/* zel_record - one trace, and the functions of a sink that writes traces. libzel and its LTTng
   provider, two shared objects, share this file; it is not installed. */
#pragma once
#include <cstdint>

enum class zel_kind { trace, received, sent };

/* No pointer in the record is null. The record is valid during the call that writes it. */
struct zel_record {
    zel_kind kind;
    uint32_t group;
    const char *file;
    uint32_t line;
    uint32_t number;   /* of received and sent signals: the signal's number */
    uint32_t receiver; /* of sent signals: the receiving mailbox */
    const char *text;
    const char *thread;
};

/* Both functions run on any thread. `write` also runs in signal handlers, which may interrupt a
   `write`. */
struct zel_sink {
    void (*write)(const zel_record &record);

    /* Prepares the calling thread for `write` in a signal handler; null if threads need none. */
    void (*enter_thread)();
};
