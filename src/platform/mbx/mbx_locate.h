/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_locate - connects a mailbox to the one with a name. */
#pragma once

#include "platform/mbx/mbx_mailbox.h"

/* As mbx_locate, for the mailbox whose id is `own`. Without any lock. Throws std::bad_alloc. */
uint32_t locate(mailbox &m, uint32_t own, const char *name);
