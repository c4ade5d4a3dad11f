/* libmbx - mailboxes: processes send each other signals, blocks of memory that start with a number.
   A mailbox belongs to the thread that made it. Everything here has C linkage.

   The environment sets, except for a set-uid program: MBX_DIR, the directory of the names (by default
   /run/mbx), and MBX_LOCATE_MS, how long mbx_locate waits (by default 5000). */
#ifndef MBX_H
#define MBX_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One signal: the number, in host order, then whatever its sender put behind it. */
typedef struct mbx_signal {
    uint32_t number;
} mbx_signal;

#define MBX_NO_MAILBOX 0xffffffffu  /* what a failed creation or location gives */
#define MBX_OWN_MAILBOX 0xfff00000u /* as a sender: the mailbox of the calling thread */
#define MBX_ANY_SENDER 0xfff11111u
#define MBX_LARGEST_SIGNAL 65536u

/* Arrives when a monitored mailbox dies; the dead mailbox is its sender. */
#define MBX_MONITOR_DEFAULT_NO 0x1901001u

/* Starts the library for the process, called as mbx_init(5, 0, 0, 0, 0); 0 on success. */
int mbx_init(int version, int, int, int, int);

/* Ends the library's use. Harmless after a failed mbx_init. */
void mbx_exit(void);

/* Makes the calling thread's mailbox. Returns its id, MBX_NO_MAILBOX on failure (errno tells why).
   A null name makes one that nobody can locate: what a client needs. */
uint32_t mbx_create_mailbox(const char *name, uint32_t flags);

/* Harmless on MBX_NO_MAILBOX. */
void mbx_delete_mailbox(uint32_t mailbox);

/* A descriptor that is readable exactly while a signal waits in the calling thread's mailbox. */
int mbx_get_fd(void);

/* A zeroed block of `size` bytes with the number in its first word. Never null: the process ends
   when memory is out. Safe in a signal handler. */
mbx_signal *mbx_alloc(size_t size, uint32_t number);

/* Takes the block over and sets the pointer to null. Never waits for the receiver. A signal to a
   mailbox that is not known is dropped. To the own mailbox it is safe in a signal handler; a thread
   without a mailbox sends as the first mailbox of the process. */
void mbx_send(mbx_signal **signal, uint32_t receiver, uint32_t sender);

/* The next signal. Called as mbx_receive(0, -1, MBX_ANY_SENDER). `filter` is a count and as many
   signal numbers behind it, null for any; null is returned when `timeout_ms` (-1: none) passes. */
mbx_signal *mbx_receive(const uint32_t *filter, int timeout_ms, uint32_t sender);

/* Gives the block back and sets the pointer to null. */
void mbx_free(mbx_signal **signal);

/* The mailbox that sent it. No process can make a signal bear another's mailbox. */
uint32_t mbx_sender(const mbx_signal *signal);

/* Its size in bytes, the number included. */
uint32_t mbx_size(const mbx_signal *signal);

/* Supervises a mailbox and returns a reference: when the mailbox dies, or is dead already, one
   MBX_MONITOR_DEFAULT_NO arrives. Called as mbx_monitor(mailbox, 0): the default signal. */
uint32_t mbx_monitor(uint32_t mailbox, mbx_signal **signal);
void mbx_unmonitor(uint32_t reference);

/* The mailbox of that name; MBX_NO_MAILBOX with errno where it can't be reached: ENOENT no such
   name or nobody behind it, EACCES no permission, ETIMEDOUT. */
uint32_t mbx_locate(const char *name);

#ifdef __cplusplus
}
#endif
#endif
