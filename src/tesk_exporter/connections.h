/* SPDX-License-Identifier: Apache-2.0 */
/* connections - the HTTP connections, their limits, and the choice of those to end. Main thread
   only.

   A connection whose request is being answered holds a place of the request's kind, and each kind
   has its own number of them, so that streams and pages can't take those of /metrics. If all places
   of a kind are taken, a further stream is refused; for the other kinds the oldest answer is ended:
   an answer whose client reads takes milliseconds, so the oldest belongs to a client that doesn't
   read. Connections without a place cost little, but are bounded in the same way, so that there is
   always room for a new request. */
#pragma once

#include "tesk_exporter/facts.h"

#include <array>
#include <list>

namespace exporter
{

enum class place { none, metrics, page, stream };

inline constexpr std::array<size_t, 4> places = {0, 32, 64, 64}; /* by kind */
inline constexpr unsigned most_connections = 256;
inline constexpr size_t crowded_connections = 192; /* above it the oldest idle one is ended */
/* The time limit for receiving a request, for sending an answer, and for progress of a stream. */
inline constexpr std::chrono::seconds patience{30};
/* The time limit between two requests. It is longer than the time for which Prometheus keeps a
   connection: otherwise the connection could end at the moment of a scrape. */
inline constexpr std::chrono::seconds idle_patience{360};

struct connection {
    int fd;
    steady_time since; /* when its request, answer or idle time began */
    place held = place::none;
    bool is_waiting = false;   /* an idle stream, or a request that needs the history */
    bool was_answered = false; /* at least one request was answered */
    bool is_ended = false;
};

class connection_table
{
  public:
    /* Adds an accepted connection, which holds no place yet; the record is valid until remove().
       Above crowded_connections the oldest idle connection is ended. */
    connection *add(int fd, steady_time now);
    /* Removes a connection that the HTTP library has closed. Does nothing for an unknown
       connection. */
    void remove(const connection *left);

    /* Gives the connection a place of that kind, and ends another connection if necessary. False if
       streams have all places, since streams are not ended. */
    bool take_place(connection &peer, place kind, steady_time now);
    /* Releases the connection's place, if it holds one. */
    void leave_place(connection &peer, steady_time now);

    /* Ends the connections that have exceeded their time limit; idle streams have none. */
    void end_overdue(steady_time now);

    size_t size() const
    {
        return connections_.size();
    }
    size_t taken(place kind) const
    {
        return taken_[static_cast<size_t>(kind)];
    }
    /* Number of connections that were ended, except those whose idle time was over. */
    uint64_t ended() const
    {
        return ended_;
    }

  private:
    void end(connection &peer);
    bool end_oldest(place held);

    std::list<connection> connections_; /* in order of arrival */
    std::array<size_t, places.size()> taken_{};
    uint64_t ended_ = 0;
};

} // namespace exporter
