/* SPDX-License-Identifier: Apache-2.0 */
/* The HTTP library owns the sockets and has no call that ends a connection. So the socket is shut
   down: the library notices that at its next poll and closes the socket. */
#include "tesk_exporter/connections.h"

#include <algorithm>
#include <sys/socket.h>

namespace exporter
{

/* Ends a connection. Its place can be used again at once. */
void connection_table::end(connection &peer)
{
    leave_place(peer, peer.since);
    peer.is_ended = true;
    shutdown(peer.fd, SHUT_RDWR);
}

/* Ends the oldest connection that holds a place of this kind. False if there is none. */
bool connection_table::end_oldest(place held)
{
    connection *oldest = nullptr;
    for (connection &open : connections_)
        if (open.held == held && !open.is_ended &&
            (oldest == nullptr || open.since < oldest->since))
            oldest = &open;
    if (oldest == nullptr)
        return false;
    end(*oldest);
    ended_++;
    return true;
}

connection *connection_table::add(int fd, steady_time now)
{
    connections_.push_back({fd, now});
    if (connections_.size() > crowded_connections)
        end_oldest(place::none);
    return &connections_.back();
}

void connection_table::remove(const connection *removed)
{
    const auto found = std::ranges::find(connections_, removed, [](auto &one) { return &one; });
    if (found == connections_.end())
        return;
    leave_place(*found, found->since);
    connections_.erase(found);
}

bool connection_table::take_place(connection &peer, place kind, steady_time now)
{
    const auto index = static_cast<size_t>(kind);
    peer.since = now;
    if (taken_[index] >= places[index] && (kind == place::stream || !end_oldest(kind)))
        return false;
    taken_[index]++;
    peer.held = kind;
    return true;
}

void connection_table::leave_place(connection &peer, steady_time now)
{
    if (peer.held != place::none)
        taken_[static_cast<size_t>(peer.held)]--;
    peer.was_answered |= peer.held != place::none;
    peer.held = place::none;
    peer.is_waiting = false;
    peer.since = now;
}

void connection_table::end_overdue(steady_time now)
{
    for (connection &open : connections_) {
        const bool is_idle = open.was_answered && open.held == place::none;
        if (open.is_ended || open.is_waiting ||
            now - open.since < (is_idle ? idle_patience : patience))
            continue;
        end(open);
        ended_ += !is_idle;
    }
}

} // namespace exporter
