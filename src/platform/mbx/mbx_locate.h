/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_locate - connects a mailbox of this process to a named one of another. */
#pragma once

#include "platform/mbx/mbx_registry.h"

/* As mbx_locate, for the mailbox whose id is `own`. On the caller's thread, without any lock.
   Throws std::bad_alloc. */
uint32_t locate(mailbox &m, uint32_t own, const char *name);
