/* SPDX-License-Identifier: Apache-2.0 */
/* libzel - traces. Everything here has C linkage and may be called on any thread; formatStr and the
   trace calls also in a signal handler. */
#ifndef ZEL_H
#define ZEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A received or sent signal: its first word is its number. The mailbox library names its fields. */
struct mbx_signal;

/* The calling thread's block. procInfo[3] is the group mask, bit n for group n: the caller tests it
   before it formats, and passes procInfo on. It is 0 until the thread calls zel_init or, once
   another thread has done that, zel_register_thread_name: a thread that does neither is never
   traced. By its model it is read without a call, in a program that is linked with the library. */
extern __thread uint32_t procInfo[8] __attribute__((tls_model("initial-exec")));

/* Reads the settings, the first time, and sets the calling thread's mask. 0 and 4 both mean that
   the library is usable; without a sink it is usable, too, and traces nothing. */
int zel_init(void);

/* Names the calling thread in its traces and sets its mask. The result is always 0. A name longer
   than 31 characters is cut. */
int zel_register_thread_name(const char *name);

/* printf-style; up to 2047 characters. The text is good until the thread's next call. Never null.
 */
const char *formatStr(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The last component of a source path, inside the same text; empty for null. */
const char *short_fname(const char *path);

/* `file` has gone through short_fname and `text` is what formatStr gave, which is free again after
   the call. A group that the mask hides is not traced even where the caller didn't ask. */
void lttngZelTrace(uint32_t group, const char *file, uint32_t line, const char *text,
                   const void *proc_info);
void lttngZelRecSigTrace(const char *file, uint32_t line, const struct mbx_signal *signal,
                         const char *text, const void *proc_info);
void lttngZelSendSigTrace(const char *file, uint32_t line, uint32_t number, uint32_t receiver,
                          const char *text, const void *proc_info);

#ifdef __cplusplus
}
#endif
#endif
