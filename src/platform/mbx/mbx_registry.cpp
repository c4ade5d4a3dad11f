/* SPDX-License-Identifier: Apache-2.0 */
/* The table of mailboxes, and what is sent within the process.

   A sender puts its block into the receiver's inbox without a lock. A pin keeps the inbox open
   between the look at the id and the push: delete_mailbox takes the id away first and then waits
   until no thread has the mailbox pinned, which lasts a few instructions; of those that hold it up
   the last one wakes it, so that they may have a lower priority. */
#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_mailbox.h"

#include <array>
#include <cerrno>
#include <limits>

std::mutex registry_lock;

static constexpr uint32_t slot_bits = 12;
static_assert(1u << slot_bits == mailboxes_at_most);
/* Keeps ids below MBX_OWN_MAILBOX and the other numbers with a meaning. */
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

/* A record that nothing refers to any more, or a new one. One that still has signals to hand over
   is not free. */
static mailbox *free_record(uint32_t &slot)
{
    for (slot = 0; slot < mailboxes_at_most; slot++) {
        mailbox *m = table[slot].load();
        if (!m) {
            m = new mailbox;
            table[slot].store(m);
            return m;
        }
        std::lock_guard hold(m->lock);
        if (m->id == 0 && m->connections.is_empty())
            return m;
    }
    errno = ENOSPC;
    return nullptr;
}

static bool is_name_ours(const char *name)
{
    bool found = false;
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        found |= m.id != 0 && m.name.name == name;
    });
    return found;
}

static void notify_watchers(mailbox &m, uint32_t id)
{
    while (block *notice = m.watchers.pop())
        push_local(notice->sender, notice, id);
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

static inbox_owner owner_of(mailbox &m)
{
    return {&m,
            [](void *self, uint32_t id) {
                if (connection *c = static_cast<mailbox *>(self)->connections.find(id))
                    send_wake(c->control.get(), wake::room);
            },
            [](void *self, uint32_t id) {
                mailbox &owner = *static_cast<mailbox *>(self);
                if (connection *c = owner.connections.find(id))
                    c->is_peer_gone = true; /* it has lied */
                end_connection(owner, id);
            },
            [](void *) { want_trim(); }};
}

/* With the lock held. False, with errno, on failure. */
static bool open_to_others(mailbox &m, const char *name, uint32_t id)
{
    if (!take_name(name, m.name))
        return false;
    if (helper_watch(WATCH_LISTENER, m.name.listener.get(), EPOLLIN, slot_of(id), id))
        return true;
    const errno_keeper keeper;
    give_name(m.name);
    return false;
}

mailbox *mailbox_in_slot(uint32_t slot)
{
    return slot < mailboxes_at_most ? table[slot].load() : nullptr;
}

mailbox *find_mailbox(uint32_t id)
{
    if (!(id & mailbox_id_bit))
        return nullptr;
    mailbox *m = mailbox_in_slot(slot_of(id));
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

/* The id is set last: from then on others may find the mailbox, whole. */
uint32_t create_mailbox(const char *name)
{
    const bool is_named = name && *name;
    if (is_named && is_name_ours(name)) {
        errno = EADDRINUSE;
        return MBX_NO_MAILBOX;
    }
    uint32_t slot;
    mailbox *m = free_record(slot);
    if (!m)
        return MBX_NO_MAILBOX;
    std::lock_guard hold(m->lock);
    if (!m->in.open(owner_of(*m))) {
        if (is_named)
            complain_about_name(name);
        return MBX_NO_MAILBOX;
    }
    m->slot = slot;
    m->token = make_token();
    if (m->token == mailbox_token{} || (is_named && !can_make_memory())) {
        const errno_keeper keeper;
        m->in.close();
        return MBX_NO_MAILBOX;
    }
    m->generation = (m->generation + 1) % generations;
    const uint32_t id = mailbox_id_bit | m->generation << slot_bits | slot;
    if (is_named && !open_to_others(*m, name, id)) {
        const errno_keeper keeper;
        complain_about_name(name);
        m->in.close();
        return MBX_NO_MAILBOX;
    }
    m->born = ++births;
    m->id = id;
    thread_mailbox = id;
    if (first_mailbox == MBX_NO_MAILBOX)
        first_mailbox = id;
    return id;
}

/* In reverse order: first the mailbox can't be found any more, then no sender has it pinned, then
   it is emptied. A connection whose receiver has a backlog stays until that is sent. */
void delete_mailbox(mailbox &m)
{
    const uint32_t id = m.id.exchange(0);
    while (const uint32_t pins = m.pins)
        m.pins.wait(pins);
    choose_first();
    std::lock_guard hold(m.lock);
    if (m.name.listener)
        helper_unwatch(m.name.listener.get());
    give_name(m.name);
    m.connections.for_each([&](connection &c) {
        set_monitor(c, nullptr, 0);
        helper_unwatch(m.in.bell(c.id));
        if (c.waiting.is_empty())
            end_connection(m, c.id);
    });
    m.in.close();
    notify_watchers(m, id);
}

/* No epoll_ctl, no unlink, no shutdown: epolls, names and connections are the parent's as well, and
   it goes on using them. Only the copies of the descriptors are closed. */
void forget_mailbox(mailbox &m)
{
    m.id = 0;
    m.pins = 0;
    thread_mailbox = MBX_NO_MAILBOX;
    first_mailbox = MBX_NO_MAILBOX;
    m.name.listener.reset();
    m.name.lock.reset();
    m.name.name.clear();
    m.connections.for_each([](connection &c) {
        c.ring = {};
        c.area->forget();
        c.control.reset();
    });
    m.connections.clear();
    m.watchers.give_all();
    m.in.close(true);
}

/* Whether the id is still the receiver's is looked at with the pin set, and delete_mailbox looks at
   the pins with the id taken away: one of the two sees the other. */
void push_local(uint32_t receiver, block *b, uint32_t sender)
{
    mailbox *m = mailbox_in_slot(slot_of(receiver));
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
