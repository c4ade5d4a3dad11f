/* SPDX-License-Identifier: Apache-2.0 */
/* A hello is answered by a welcome or a refusal (mbx_socket.h). A connection that does not greet is
   closed after two seconds, and earlier when its process has too many such connections.

   When descriptors have run out, the listener would stay readable, so it is not watched for
   time_to_retry. The same happens after a connection of a process whose passed descriptors hold up
   the closing thread. */
#include "platform/mbx/mbx_accept.h"

#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_parting.h"
#include "platform/mbx/mbx_peers.h"
#include "platform/mbx/mbx_registry.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <vector>

namespace
{

struct newcomer {
    uint32_t mailbox_id;
    owned_fd control;
    peer_identity peer;
    uint32_t number = 0; /* for the helper's watch; 0 until the greeting is waited for */
    time_point deadline{};
};

} // namespace

using namespace std::chrono_literals;

static constexpr auto time_to_greet = 2s;
static constexpr auto time_to_retry = 100ms; /* costs little CPU time */
static constexpr auto time_to_complain = 10s;
static constexpr int ungreeted_at_most = 16; /* of one process */

/* Guarded by helper_lock. */
static std::vector<newcomer> newcomers; /* in the order of their deadlines */
static uint32_t last_newcomer;
static time_point retry = time_point::max(); /* when the listeners are watched again */
static time_point next_complaint;

static void complain_about_greeting(const peer_identity &peer)
{
    const time_point now = std::chrono::steady_clock::now();
    if (now < next_complaint)
        return;
    next_complaint = now + time_to_complain;
    fprintf(stderr,
            "libmbx: process %d sent a greeting that this version of the library can't read; if it "
            "has another version, update that and start the process again\n",
            static_cast<int>(peer.process));
}

/* Makes the bells and the area, and returns the memory for the other side. `parts` has no area
   where the system refuses one of them. */
static owned_fd make_shared_parts(connection_parts &parts)
{
    parts.near_bell = make_bell();
    parts.far_bell = make_bell();
    owned_fd memory = make_area_memory();
    if (memory && parts.near_bell && parts.far_bell)
        parts.area = mapped_area::map(memory.get());
    return memory;
}

/* With the mailbox's lock held. The connection is added before the answer is sent, so that the
   first signal finds it. Takes the control connection over, unless the hello is refused. */
static void answer(mailbox &m, newcomer &n, const greeting &hello)
{
    const int control = n.control.get();
    if (hello.token == m.token || find_peer(m, hello.token, n.peer)) {
        send_greeting(control, greeting_kind::known, m.token);
        return;
    }
    std::shared_ptr<entry> place = entry::open(n.peer, false);
    connection_parts parts;
    const owned_fd memory = place ? make_shared_parts(parts) : owned_fd();
    if (!parts.area) {
        send_greeting(control, greeting_kind::refused, m.token);
        return;
    }
    place->watch = watch_for_end(memory.get());
    const int fds[welcome_fds] = {memory.get(), parts.near_bell.get(), parts.far_bell.get()};
    parts.control = std::move(n.control);
    parts.token = hello.token;
    parts.peer = n.peer;
    parts.area->hold(std::move(place), true);
    const uint32_t id = add_connection(m, std::move(parts));
    if (id != 0 && !send_greeting(control, greeting_kind::welcome, m.token, fds)) {
        send_greeting(control, greeting_kind::refused, m.token);
        end_connection(m, id, ended_by::us);
    }
}

static void welcome(newcomer &n, const greeting &hello)
{
    restrict_control(n.control.get());
    if (is_closing_too_many(n.peer)) {
        send_greeting(n.control.get(), greeting_kind::refused, {});
        return;
    }
    with_mailbox(n.mailbox_id, [&](mailbox &m) { answer(m, n, hello); });
}

/* Returns false when no greeting has come yet. Otherwise handles the greeting, or the end of the
   connection, and leaves n.control empty. */
static bool try_greeting(newcomer &n)
{
    greeting hello = receive_greeting(n.control.get());
    if (hello.kind == greeting_kind::missing)
        return false;
    if (n.number != 0)
        helper_unwatch(n.control.get());
    if (hello.kind == greeting_kind::foreign)
        complain_about_greeting(n.peer);
    if (hello.kind == greeting_kind::hello)
        welcome(n, hello);
    if (n.control)
        hang_up(std::move(n.control), std::move(hello.fds), n.peer);
    return true;
}

static void drop(std::vector<newcomer>::iterator late)
{
    helper_unwatch(late->control.get());
    hang_up(std::move(late->control), {}, late->peer);
    newcomers.erase(late);
}

/* When one process has too many connections that have not greeted, the one that has waited longest
   is closed: it was the least likely to greet. */
static void make_place_for(const newcomer &n)
{
    const auto is_same = [&](const newcomer &other) { return other.peer.key() == n.peer.key(); };
    if (std::count_if(newcomers.begin(), newcomers.end(), is_same) >= ungreeted_at_most)
        drop(std::find_if(newcomers.begin(), newcomers.end(), is_same));
}

/* A client greets as soon as it is connected. So mostly the greeting has come already, and the
   connection is never added to `newcomers`. */
static void handle_newcomer(newcomer &&n)
{
    if (try_greeting(n))
        return;
    n.number = ++last_newcomer;
    n.deadline = std::chrono::steady_clock::now() + time_to_greet;
    make_place_for(n);
    if (helper_watch(watch_greeting, n.control.get(), EPOLLIN, 0, n.number))
        newcomers.push_back(std::move(n));
    else
        hang_up(std::move(n.control), {}, n.peer);
}

void handle_greeting(uint32_t, uint32_t number)
{
    const auto n = std::find_if(newcomers.begin(), newcomers.end(),
                                [&](const newcomer &other) { return other.number == number; });
    if (n != newcomers.end() && try_greeting(*n))
        newcomers.erase(n);
}

/* Leaves n.control empty when no client is waiting, or no connection can be accepted now. */
static void accept_one(mailbox &m, newcomer &n)
{
    const int listener = m.name.listener.get();
    n.control = owned_fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const bool is_out = !n.control && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
    if (n.control)
        n.peer = peer_of(n.control.get());
    if (!is_out && !(n.control && is_closing_too_many(n.peer)))
        return;
    helper_watch(watch_listener, listener, 0, m.slot, m.id);
    retry = std::chrono::steady_clock::now() + time_to_retry;
}

void handle_listener(uint32_t, uint32_t mailbox_id)
{
    newcomer n{mailbox_id, {}, {}};
    with_mailbox(mailbox_id, [&](mailbox &m) { accept_one(m, n); });
    if (n.control)
        handle_newcomer(std::move(n));
}

static void wake_listeners()
{
    retry = time_point::max();
    for_each_mailbox([](mailbox &m) {
        std::lock_guard hold(m.lock);
        if (m.name.listener)
            helper_watch(watch_listener, m.name.listener.get(), EPOLLIN, m.slot, m.id);
    });
}

time_point keep_time(time_point now)
{
    while (!newcomers.empty() && newcomers.front().deadline <= now)
        drop(newcomers.begin());
    if (retry <= now)
        wake_listeners();
    return newcomers.empty() ? retry : std::min(retry, newcomers.front().deadline);
}

void end_accepting(bool is_child)
{
    for (newcomer &n : newcomers)
        if (!is_child)
            hang_up(std::move(n.control), {}, n.peer);
    newcomers.clear();
    retry = time_point::max();
    next_complaint = {};
}
