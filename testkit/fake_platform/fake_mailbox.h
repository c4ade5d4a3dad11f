/* SPDX-License-Identifier: Apache-2.0 */
/* fake_mailbox - libmbx with one mailbox, for tests of one module. Signals to the own mailbox, and
   those that the test delivers, are queued in a pipe; signals to others go to the test. */
#pragma once

#include "platform/mbx/mbx.h"

#include <cstddef>
#include <cstdint>

namespace fake_mailbox
{

/* Functions of the test. The program defines `script`; unused members may be null. */
struct hooks {
    /* Called before each call that opens or closes something, with its name and a text for the log.
       False makes the call fail. */
    bool (*call)(const char *name, const char *text);
    /* Called with a condition on the caller's arguments, and its name. */
    void (*expect)(bool holds, const char *violated);
    /* Called with each signal to another mailbox, which is freed afterwards. */
    void (*send)(const mbx_signal *signal, uint32_t receiver);
    /* The address of the mailbox that mbx_locate finds, or MBX_NO_MAILBOX with errno. */
    uint32_t (*locate)();
    /* The timeout with which mbx_receive must be called. */
    int receive_timeout_ms;
};
extern const hooks script;

inline constexpr uint32_t own_mailbox = 0x51;

/* Number of blocks that were neither freed nor sent to others. */
extern int live_blocks;

/* The last allocated block, and the last received one. */
extern const mbx_signal *allocated;
extern const mbx_signal *received;

/* Puts a signal into the own mailbox, which must be open. */
void deliver(uint32_t sender, uint32_t number, const void *payload, size_t size);
bool has_signal();

/* True from mbx_create_mailbox to mbx_delete_mailbox. */
bool is_open();

/* Forgets all blocks; the mailbox stays as it is. */
void reset();

} // namespace fake_mailbox
