/* SPDX-License-Identifier: Apache-2.0 */
/* libzel - traces. Everything here has C linkage and may be called on any thread; formatStr and the
   trace calls also in a signal handler. */
#ifndef ZEL_H
#define ZEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A received or sent signal, which begins with its number. Its fields are in mbx.h. */
struct mbx_signal;

/* The calling thread's block. procInfo[3] is the group mask, bit n for group n: the caller tests it
   before it formats, and passes procInfo on. It is 0 until the thread calls zel_init or, after
   another thread has called that, zel_register_thread_name: a thread that calls neither is never
   traced. Its model allows a program that is linked with the library to read it without a call. */
extern __thread uint32_t procInfo[8] __attribute__((tls_model("initial-exec")));

/* Reads the settings at its first call, and sets the calling thread's mask. Returns 0 or 4, which
   both mean that the library is usable. Without a sink, or with one that can't be opened, it traces
   nothing; a setting that can't be used is one line on standard error. */
int zel_init(void);

/* Names the calling thread in its traces and sets its mask. The result is always 0. A name longer
   than 31 characters is cut. */
int zel_register_thread_name(const char *name);

/* printf-style; up to 2047 characters. The text is valid until the thread's next call. Never null.
 */
const char *formatStr(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The last component of a source path, inside the same text; empty for null. */
const char *short_fname(const char *path);

/* `file` comes from short_fname. `text` may come from formatStr, which can use its storage again
   after the call. A group that the mask hides is not traced even if the caller hasn't tested it.
   None of these waits for the reader of the traces: lines that the output doesn't take are counted
   and reported, see docs/tracing.md. None allocates memory or changes errno. */
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
