/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_watch_kinds - the kinds of descriptors that the helper (mbx_helper.h) watches for mailboxes.
 */
#pragma once

#include <cstddef>

enum watch_kind : size_t {
    WATCH_LISTENER = 1, /* slot and id: of the mailbox */
    WATCH_GREETING,     /* id: of a connection that has not greeted yet */
    WATCH_CONTROL,      /* slot: of the mailbox; id: of the connection */
    WATCH_LIFE,         /* the same */
    WATCH_FIRST_RING,   /* the same */
    WATCH_PARTING,      /* id: of a connection that has ended here */
    WATCH_ENDS,         /* of memory files */
};
