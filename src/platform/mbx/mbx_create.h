/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_create - creates, deletes and forgets the mailboxes of this process. With registry_lock held,
   and no lock of a mailbox. */
#pragma once

#include "platform/mbx/mbx_registry.h"

/* Returns an id, or MBX_NO_MAILBOX with errno, explained by a line on standard error for a name. */
uint32_t create_mailbox(const char *name);
/* Deletes the mailbox and ends its connections, but for those whose backlog has signals for the
   peer. */
void delete_mailbox(mailbox &m);
/* In a forked child: closes the copies of all descriptors and forgets the mailbox. */
void forget_mailbox(mailbox &m);
