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
   before it formats, and passes procInfo on. */
extern __thread uint32_t procInfo[8] __attribute__((tls_model("initial-exec")));

/* 0 and 4 both mean that the library is usable. */
int zel_init(void);

int zel_register_thread_name(const char *name);

/* printf-style. The text is good until the thread's next call. Never null. */
const char *formatStr(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The last component of a source path. */
const char *short_fname(const char *path);

/* `file` has gone through short_fname. */
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
