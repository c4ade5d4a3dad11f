/* SPDX-License-Identifier: Apache-2.0 */
/* A mailbox is complete before other threads can find it, and it can't be found any more when it is
   emptied. */
#include "platform/mbx/mbx_create.h"

#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_peers.h"

#include <cerrno>

static bool is_name_ours(const char *name)
{
    bool found = false;
    for_each_mailbox([&](mailbox &m) {
        std::lock_guard hold(m.lock);
        found |= m.id != 0 && m.name.name == name;
    });
    return found;
}

static inbox_owner owner_of(mailbox &m)
{
    return {&m,
            [](void *self, uint32_t id) {
                const auto &connections = static_cast<mailbox *>(self)->connections;
                send_wake(connections.at(id).control.get(), wake::room);
            },
            [](void *self, uint32_t id) {
                end_connection(*static_cast<mailbox *>(self), id, ended_by::peer);
            },
            [](void *) { want_trim(); }};
}

/* With the mailbox's lock held. False, with errno, on failure. Trouble with the name is reported on
   standard error here; make_token(), can_carry() and can_make_memory() report their own. */
static bool open_mailbox(mailbox &m, const char *name, uint32_t id)
{
    if (m.in.open(owner_of(m))) {
        m.token = make_token();
        if (m.token == mailbox_token{} || !can_carry(name) || (name && !can_make_memory()))
            return false;
        if (!name || (take_name(name, m.name) &&
                      helper_watch(watch_listener, m.name.listener.get(), EPOLLIN, m.slot, id)))
            return true;
    }
    if (name)
        complain_about_name(name);
    return false;
}

uint32_t create_mailbox(const char *name)
{
    if (name && !*name)
        name = nullptr;
    if (name && is_name_ours(name)) {
        errno = EADDRINUSE;
        return MBX_NO_MAILBOX;
    }
    mailbox *m = free_record();
    if (!m)
        return MBX_NO_MAILBOX;
    std::lock_guard hold(m->lock);
    const uint32_t id = next_mailbox_id(*m);
    if (open_mailbox(*m, name, id)) {
        publish(*m, id);
        return id;
    }
    const errno_keeper keeper;
    give_name(m->name);
    m->in.close();
    return MBX_NO_MAILBOX;
}

/* withdraw() waits until every sender that has the mailbox pinned has pushed its block. A
   connection with a backlog stays until the backlog is in the ring. */
void delete_mailbox(mailbox &m)
{
    const uint32_t id = withdraw(m);
    std::lock_guard hold(m.lock);
    if (m.name.listener)
        helper_unwatch(m.name.listener.get());
    give_name(m.name);
    for (auto next = m.connections.begin(); next != m.connections.end();) {
        connection &c = next++->second;
        c.notice.reset();
        helper_unwatch(std::exchange(c.incoming, nullptr)->bell.get());
        if (c.waiting.is_empty())
            end_connection(m, c.id, ended_by::us);
    }
    m.in.close();
    while (block *notice = m.watchers.pop_front())
        push_local(notice->sender, notice, id);
}

/* No epoll_ctl, no unlink, no shutdown: epolls, names and connections are the parent's as well, and
   it goes on using them. Only the copies of the descriptors are closed. */
void forget_mailbox(mailbox &m)
{
    withdraw_in_child(m);
    m.name.listener.reset();
    m.name.lock.reset();
    m.name.name.clear();
    for (auto &[id, c] : m.connections)
        c.area->forget();
    m.connections.clear();
    m.sent_last = nullptr;
    give_all(m.watchers);
    m.in.close(true);
}
