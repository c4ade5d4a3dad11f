/* SPDX-License-Identifier: Apache-2.0 */
/* event_loop - waits for the session, for process signals and for keys, in one poll. One thread. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "util/descriptor.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

using steady_time = std::chrono::steady_clock::time_point;

/* Blocks the given signals and reads them from a descriptor: no signal handler runs anywhere. Must
   be constructed before the session. When the reader of standard output ends, that counts as
   SIGPIPE, which the kernel would send only at the next write. */
class event_loop
{
  public:
    enum class wake { session, signal, key, time };

    explicit event_loop(const std::vector<int> &signals = {SIGINT, SIGTERM, SIGHUP});

    /* Lets keys of standard input wake the loop. */
    void watch_keys()
    {
        has_keys_ = true;
    }

    /* Waits for one event, or until `end`. Dispatches the session's work. */
    wake wait(tesk_client_session *server, std::optional<steady_time> end);

    /* Waits without a session; false if a process signal came. */
    bool sleep(std::chrono::milliseconds duration);

    /* The signal of the last wake::signal; 0 if there was none. */
    int signal() const
    {
        return signal_;
    }
    /* The bytes of the last wake::key. */
    const std::string &keys() const
    {
        return keys_;
    }

  private:
    bool read_signal();
    bool has_lost_reader(short events);

    util::descriptor signals_;
    bool has_keys_ = false;
    int signal_ = 0;
    std::string keys_;
};
