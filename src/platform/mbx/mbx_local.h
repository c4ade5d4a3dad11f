/* What libmbx offers the other libraries of this board besides mbx.h. Nobody else uses it. */
#ifndef MBX_LOCAL_H
#define MBX_LOCAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The calling thread's mailbox, MBX_NO_MAILBOX if it has none. A mailbox of the process may be given
   as sender to mbx_send from any of its threads. */
uint32_t mbx_own_mailbox(void);

#ifdef __cplusplus
}
#endif
#endif
