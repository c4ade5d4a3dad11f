/* SPDX-License-Identifier: Apache-2.0 */
/* The descriptors that the other side passes are checked before they are used. Those that fail the
   check are left to the closing thread (mbx_closer.h). */
#include "platform/mbx/mbx_locate.h"

#include "platform/mbx/mbx_peers.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <poll.h>
#include <thread>

using namespace std::chrono_literals;

static constexpr size_t locate_ms = 5000; /* for a server that is stopped or overloaded */
static constexpr auto locate_pause = 5ms;

namespace
{

/* One attempt: the connection as far as it has been made. */
struct call {
    owned_fd control;
    peer_identity peer;
    greeting answer;

    ~call()
    {
        if (control || !answer.fds.empty())
            hang_up(std::move(control), std::move(answer.fds), peer);
    }
};

} // namespace

/* Waits by poll(), which returns also when the connection is closed. `missing` when the deadline
   passes. */
static greeting await_greeting(int control, time_point deadline)
{
    pollfd wanted{control, POLLIN, 0};
    int n;
    do {
        n = poll(&wanted, 1, milliseconds_until(deadline));
    } while (n < 0 && errno == EINTR);
    return n > 0 ? receive_greeting(control) : greeting{};
}

/* The parts of the connection. Empty, with errno, where the descriptors that were passed are not a
   memory file and two bells. */
static std::optional<connection_parts> check_parts(call &c)
{
    connection_parts parts;
    std::vector<owned_fd> &fds = c.answer.fds;
    errno = EPROTO;
    if (fds.size() != welcome_fds || !is_area_memory(fds[0].get()) ||
        !may_be_bell(fds[1].get(), c.control.get()) || !may_be_bell(fds[2].get(), c.control.get()))
        return {};
    parts.area = mapped_area::map(fds[0].get());
    if (!parts.area)
        return {};
    parts.side = 1;
    parts.far_bell = std::move(fds[1]);
    parts.near_bell = std::move(fds[2]);
    parts.control = std::move(c.control);
    parts.token = c.answer.token;
    parts.peer = c.peer;
    parts.was_located = true;
    parts.area->hold(entry::open(c.peer, true), false);
    fds.clear(); /* the memory file, whose close waits for no other process */
    return parts;
}

/* Two mailboxes may locate each other at once. The connection made by the mailbox with the smaller
   token stays; the other mailbox closes its own before it has carried anything. MBX_NO_MAILBOX when
   there is no connection. With the mailbox's lock held. */
static uint32_t settle(mailbox &m, call &c)
{
    if (c.answer.token == m.token)
        return m.id;
    connection *existing = find_peer(m, c.answer.token, c.peer);
    if (existing && (c.answer.kind == greeting_kind::known || c.answer.token < m.token)) {
        existing->was_located = true;
        return existing->id;
    }
    if (c.answer.kind != greeting_kind::welcome)
        return MBX_NO_MAILBOX;
    std::optional<connection_parts> parts = check_parts(c);
    const uint32_t id = parts ? add_connection(m, std::move(*parts)) : 0;
    return id != 0 ? id : MBX_NO_MAILBOX;
}

/* 0, or an error: ETIMEDOUT when there is no connection, EUSERS when the other side has no place
   for us. */
static int try_to_locate(uint32_t own, const mailbox_token &token, const char *name,
                         time_point deadline, uint32_t &out)
{
    call c;
    c.control = connect_to_name(name, deadline);
    if (!c.control)
        return errno;
    prepare_control(c.control.get());
    c.peer = peer_of(c.control.get());
    if (!send_greeting(c.control.get(), greeting_kind::hello, token))
        return ETIMEDOUT;
    c.answer = await_greeting(c.control.get(), deadline);
    const greeting_kind kind = c.answer.kind;
    if (kind != greeting_kind::welcome && kind != greeting_kind::known)
        return kind == greeting_kind::refused ? EUSERS : ETIMEDOUT;
    restrict_control(c.control.get());
    with_mailbox(own, [&](mailbox &m) { out = settle(m, c); });
    return out == MBX_NO_MAILBOX ? ETIMEDOUT : 0;
}

/* A peer that does not greet (it is stopping, or has no descriptors left), or has no place for more
   of our connections, is tried again until the deadline. */
uint32_t locate(mailbox &m, uint32_t own, const char *name)
{
    const time_point deadline = std::chrono::steady_clock::now() +
                                std::chrono::milliseconds(setting("MBX_LOCATE_MS", locate_ms));
    for (;;) {
        uint32_t out = MBX_NO_MAILBOX;
        const int error = try_to_locate(own, m.token, name, deadline, out);
        if (error == 0)
            return out;
        if ((error != ETIMEDOUT && error != EUSERS) || milliseconds_until(deadline) == 0) {
            errno = error;
            return MBX_NO_MAILBOX;
        }
        std::this_thread::sleep_for(locate_pause);
    }
}
