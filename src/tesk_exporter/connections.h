/* SPDX-License-Identifier: Apache-2.0 */
/* connections - who is connected by HTTP, for how long, and who has to go. Main thread only.

   A connection whose request is being answered holds a place of the request's kind, and each kind
   has its own number of them, so that streams and pages can't take those of /metrics. Where all are
   taken a further stream is refused; for the others the oldest answer is ended: one that is read
   takes milliseconds, so that it meets those who don't read. Connections without a place cost
   little, but are bounded in the same way, so that there is always room for one that asks for
   something. */
#pragma once

#include "tesk_exporter/facts.h"

#include <array>
#include <list>

namespace exporter
{

enum class place { none, metrics, page, stream };

inline constexpr std::array<size_t, 4> places = {0, 32, 64, 64}; /* by kind */
inline constexpr unsigned most_connections = 256;
inline constexpr size_t crowded_connections = 192; /* from here on the idle ones go */
/* In this time a request must have arrived, an answer be taken, a stream have moved. */
inline constexpr std::chrono::seconds patience{30};

struct connection {
    int fd;
    steady_time since; /* the begin of what it is doing now */
    place held = place::none;
    bool is_waiting = false; /* a stream that has been given everything */
    bool is_ended = false;
};

class connection_table
{
  public:
    connection *add(int fd, steady_time now);
    void remove(const connection *left);

    /* False where all places of the kind are taken by others that may stay. */
    bool take_place(connection &peer, place kind, steady_time now);
    /* Releases the place that it holds, if any. */
    void leave_place(connection &peer, steady_time now);

    /* Ends the connections that took too long. */
    void end_overdue(steady_time now);

    size_t size() const
    {
        return connections_.size();
    }
    size_t taken(place kind) const
    {
        return taken_[static_cast<size_t>(kind)];
    }
    uint64_t ended() const
    {
        return ended_;
    }

  private:
    void end(connection &peer);
    bool end_oldest(place held);

    std::list<connection> connections_; /* in the order of their arrival */
    std::array<size_t, places.size()> taken_{};
    uint64_t ended_ = 0;
};

} // namespace exporter
