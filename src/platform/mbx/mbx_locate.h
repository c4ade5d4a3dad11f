/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_locate - connects a mailbox of this process to a mailbox with a name, on the caller's thread.
   To be called without any lock. */
#pragma once

#include "platform/mbx/mbx_registry.h"

/* As mbx_locate, for the mailbox whose id is `own`. Throws std::bad_alloc. */
uint32_t locate(mailbox &m, uint32_t own, const char *name);
