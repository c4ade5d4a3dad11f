/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_create - creates, deletes and forgets the mailboxes of this process. To be called with
   registry_lock held, except in a forked child, and without any mailbox's lock. */
#pragma once

#include "platform/mbx/mbx_registry.h"

/* Returns an id, or MBX_NO_MAILBOX with errno. */
uint32_t create_mailbox(const char *name);
/* Deletes the mailbox and ends its connections, but for those whose backlog has signals for the
   peer. */
void delete_mailbox(mailbox &m);
/* In a forked child: closes the copies of all descriptors and forgets the mailbox. */
void forget_mailbox(mailbox &m);
