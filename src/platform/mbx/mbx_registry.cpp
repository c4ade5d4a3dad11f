/* SPDX-License-Identifier: Apache-2.0 */
/* A sender puts its block into the receiver's inbox without a lock. A pin keeps the inbox open
   between the check of the id and the push: withdraw() removes the id first and then waits until no
   thread has the mailbox pinned. A pin lasts a few instructions. The thread that removes the last
   pin wakes withdraw(), which sleeps, so that a pinning thread of lower priority can run. */
#include "platform/mbx/mbx_registry.h"

#include <array>
#include <cerrno>
#include <limits>

std::mutex registry_lock;

static constexpr uint32_t slot_bits = 12;
static_assert(1u << slot_bits == mailboxes_at_most);
/* Keeps ids below the reserved values, of which MBX_OWN_MAILBOX is the lowest. */
static constexpr uint32_t generations = 0x7ff00;
static_assert((mailbox_id_bit | (generations - 1) << slot_bits | (mailboxes_at_most - 1)) <
              MBX_OWN_MAILBOX);
static constexpr uint32_t first_connection_id = 16;

static std::array<std::atomic<mailbox *>, mailboxes_at_most> table;
static std::atomic<uint32_t> first_mailbox{MBX_NO_MAILBOX};
static uint64_t births; /* guarded by registry_lock */
static thread_local uint32_t thread_mailbox = MBX_NO_MAILBOX;

uint32_t next_connection_id()
{
    static std::atomic<uint32_t> last{first_connection_id};
    uint32_t id;
    do {
        id = last.fetch_add(1) & ~mailbox_id_bit;
    } while (id < first_connection_id);
    return id;
}

mailbox *free_record()
{
    for (uint32_t slot = 0; slot < mailboxes_at_most; slot++) {
        mailbox *m = table[slot].load();
        if (!m) {
            m = new mailbox;
            m->slot = slot;
            table[slot].store(m);
            return m;
        }
        std::lock_guard hold(m->lock);
        if (m->id == 0 && m->connections.empty())
            return m;
    }
    errno = ENOSPC;
    return nullptr;
}

static void choose_first()
{
    uint64_t oldest = std::numeric_limits<uint64_t>::max();
    uint32_t id = MBX_NO_MAILBOX;
    for_each_mailbox([&](mailbox &m) {
        if (m.id != 0 && m.born < oldest) {
            oldest = m.born;
            id = m.id;
        }
    });
    first_mailbox = id;
}

mailbox *mailbox_in_slot(uint32_t slot)
{
    return slot < mailboxes_at_most ? table[slot].load() : nullptr;
}

mailbox *find_mailbox(uint32_t id)
{
    if (!(id & mailbox_id_bit))
        return nullptr;
    mailbox *m = mailbox_in_slot(id % mailboxes_at_most);
    return m && m->id == id ? m : nullptr;
}

uint32_t own_mailbox()
{
    return find_mailbox(thread_mailbox) ? thread_mailbox : MBX_NO_MAILBOX;
}

uint32_t own_or_first_mailbox()
{
    const uint32_t own = own_mailbox();
    return own != MBX_NO_MAILBOX ? own : first_mailbox.load();
}

uint32_t next_mailbox_id(mailbox &m)
{
    m.generation = (m.generation + 1) % generations;
    return mailbox_id_bit | m.generation << slot_bits | m.slot;
}

void publish(mailbox &m, uint32_t id)
{
    m.born = ++births;
    m.id = id;
    thread_mailbox = id;
    if (first_mailbox == MBX_NO_MAILBOX)
        first_mailbox = id;
}

uint32_t withdraw(mailbox &m)
{
    const uint32_t id = m.id.exchange(0);
    while (const uint32_t pins = m.pins)
        m.pins.wait(pins);
    choose_first();
    return id;
}

void withdraw_in_child(mailbox &m)
{
    m.id = 0;
    m.pins = 0;
    thread_mailbox = MBX_NO_MAILBOX;
    first_mailbox = MBX_NO_MAILBOX;
}

/* A sender sets its pin before it checks the id, and withdraw() removes the id before it checks the
   pins. So either the sender sees that the mailbox is gone, or withdraw() sees the pin. */
void push_local(uint32_t receiver, block *b, uint32_t sender)
{
    mailbox *m = mailbox_in_slot(receiver % mailboxes_at_most);
    if (!m) {
        block_give(b);
        return;
    }
    m->pins.fetch_add(1);
    const bool is_there = m->id == receiver;
    if (is_there) {
        b->sender = sender;
        m->in.push(b);
    }
    m->pins.fetch_sub(1);
    if (m->id != receiver)
        m->pins.notify_all();
    if (!is_there)
        block_give(b);
}
