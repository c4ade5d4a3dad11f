/* SPDX-License-Identifier: Apache-2.0 */
/* The table of mailboxes, and what is sent within the process.

   A sender puts its block on the receiver's stack, then adds one to its semaphore; the owner takes
   one off the semaphore, then one block. So there are never fewer blocks than counts, and the
   descriptor is readable for exactly as many receptions. A pin keeps the semaphore open between the
   look at the id and the write: whoever deletes the mailbox takes its id away first and then waits
   until nobody has it pinned, which lasts a few instructions. */
#include "platform/mbx/mbx_mailbox.h"

#include "platform/mbx/mbx_helper.h"

#include <cerrno>
#include <limits>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

std::mutex registry_lock;

namespace
{

constexpr uint32_t slot_bits = 12;
static_assert(1u << slot_bits == mailboxes_at_most);
/* Keeps ids below MBX_OWN_MAILBOX and the other numbers with a meaning. */
constexpr uint32_t generations = 0x7ff00;
static_assert((mailbox_id_bit | (generations - 1) << slot_bits | (mailboxes_at_most - 1)) <
              MBX_OWN_MAILBOX);

std::array<std::atomic<mailbox *>, mailboxes_at_most> table;
std::atomic<uint32_t> first_mailbox{MBX_NO_MAILBOX};
uint64_t births; /* guarded by registry_lock */
thread_local uint32_t thread_mailbox = MBX_NO_MAILBOX;

/* A record that nothing refers to any more, or a new one. One that still has signals to hand over
   is not free. */
mailbox *free_record(uint32_t &slot)
{
    for (slot = 0; slot < mailboxes_at_most; slot++) {
        mailbox *m = table[slot].load();
        if (!m) {
            m = new mailbox;
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

bool name_is_ours(const char *name)
{
    bool found = false;
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        found |= m.id != 0 && m.name.name == name;
    });
    return found;
}

bool add_source(mailbox &m, int fd, uint32_t source)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = source;
    return epoll_ctl(m.poll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

bool open_events(mailbox &m)
{
    make_room_for_turns(m);
    m.poll = owned_fd(epoll_create1(EPOLL_CLOEXEC));
    m.local_event = owned_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    m.memory_event = owned_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return m.poll && m.local_event && m.memory_event &&
           add_source(m, m.local_event.get(), source_local) &&
           add_source(m, m.memory_event.get(), source_memory);
}

void close_events(mailbox &m)
{
    m.poll.reset();
    m.local_event.reset();
    m.memory_event.reset();
}

void give_stack(block *b)
{
    while (b)
        block_give(std::exchange(b, b->next));
}

/* What the owner will not receive any more. */
void give_signals(mailbox &m)
{
    give_stack(m.pushed.exchange(nullptr));
    m.local.give_all();
    m.set_aside.give_all();
    m.ahead.clear();
    m.in_memory = 0;
    m.turns.clear();
    m.turn_next = 0;
    m.buffers.reset();
}

void tell_watchers(mailbox &m, uint32_t id)
{
    while (block *notice = m.watchers.pop())
        push_local(notice->sender, notice, id);
}

void choose_first()
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

} // namespace

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
    const bool named = name && *name;
    if (named && name_is_ours(name)) {
        errno = EADDRINUSE;
        return MBX_NO_MAILBOX;
    }
    uint32_t slot;
    mailbox *m = free_record(slot);
    if (!m)
        return MBX_NO_MAILBOX;
    std::lock_guard hold(m->lock);
    if (!open_events(*m)) {
        const int error = errno;
        close_events(*m);
        errno = error;
        return MBX_NO_MAILBOX;
    }
    m->token = make_token();
    m->generation = (m->generation + 1) % generations;
    const uint32_t id = mailbox_id_bit | m->generation << slot_bits | slot;
    if (named) {
        int error = take_name(name, m->name);
        if (error == 0 && !helper_watch_listener(m->name.listener.get(), id))
            error = errno;
        if (error != 0) {
            give_name(m->name);
            close_events(*m);
            errno = error;
            return MBX_NO_MAILBOX;
        }
    }
    m->born = ++births;
    m->id = id;
    thread_mailbox = id;
    if (first_mailbox == MBX_NO_MAILBOX)
        first_mailbox = id;
    return id;
}

/* The other way round: nobody finds it, nobody is about to put something in, then it is emptied.
   What is on its way out lingers with its connection, whose receiving end stays open as well: the
   other side, when it found that one closed, would take us for dead and read no further. */
void delete_mailbox(mailbox &m)
{
    const uint32_t id = m.id.exchange(0);
    while (m.pins != 0)
        sched_yield();
    choose_first();
    std::lock_guard hold(m.lock);
    if (m.name.listener)
        helper_unwatch(m.name.listener.get());
    give_name(m.name);
    m.connections.for_each([&](connection &c) {
        c.monitors.give_all();
        c.ahead.give_all();
        if (!c.alive())
            m.connections.remove(c.id);
        else if (c.out.empty())
            end_connection(m, c);
    });
    give_signals(m);
    close_events(m);
    tell_watchers(m, id);
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
    forget_connections(m);
    m.watchers.give_all();
    give_signals(m);
    close_events(m);
}

/* Whether the id is still the receiver's is looked at with the pin set, and the other side looks at
   the pins with the id taken away: one of the two sees the other. */
void push_local(uint32_t receiver, block *b, uint32_t sender)
{
    mailbox *m = mailbox_in_slot(slot_of(receiver));
    if (!m) {
        block_give(b);
        return;
    }
    m->pins.fetch_add(1);
    if (m->id == receiver) {
        b->sender = sender;
        b->next = m->pushed.load(std::memory_order_relaxed);
        while (!m->pushed.compare_exchange_weak(b->next, b, std::memory_order_release,
                                                std::memory_order_relaxed)) {
        }
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = write(m->local_event.get(), &one, sizeof(one));
        b = nullptr;
    }
    m->pins.fetch_sub(1);
    if (b)
        block_give(b);
}
