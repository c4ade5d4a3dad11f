/* SPDX-License-Identifier: Apache-2.0 */
/* event_loop - waits for the session, for process signals and for keys, in one poll. */
#pragma once

#include "tools/teskctl/session.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <vector>

using steady_time = std::chrono::steady_clock::time_point;

/* Blocks the signals that end a command, or that it must hear of, and takes them from a descriptor:
   no handler runs anywhere. Made before the session. */
class event_loop
{
  public:
    enum class wake { session, signal, key, time };

    explicit event_loop(const std::vector<int> &signals = {SIGINT, SIGTERM, SIGHUP});
    ~event_loop();
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;

    /* Lets keys of standard input wake the loop. */
    void watch_keys()
    {
        keys_ = true;
    }

    /* Waits for one thing, for a session's work that is done at once, or until `end`. */
    wake wait(const session &server, std::optional<steady_time> end);

    /* Of the last wake of that kind. */
    int signal() const
    {
        return signal_;
    }
    char key() const
    {
        return key_;
    }

  private:
    int signal_fd_;
    bool keys_ = false;
    int signal_ = 0;
    char key_ = 0;
};
