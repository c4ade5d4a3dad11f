/* SPDX-License-Identifier: Apache-2.0 */
/* control_server - serves the control protocol of a simulated board on a thread of its own.
   Commands are carried out with the core's lock held, between two calls of the library. */
#pragma once

#include "platform/dolm_ric/simulator/commands.h"
#include "platform/dolm_ric/simulator/simulator.h"
#include "util/descriptor.h"
#include "util/event.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <span>
#include <string>
#include <vector>

struct pollfd;

namespace board
{

class control_server
{
  public:
    /* Listens at `path` and starts the thread; throws a board_error with the reason on failure. The
       constructor and the destructor, which ends the thread, must not be called with the core's
       lock held. */
    control_server(const std::string &path, simulator &board);
    ~control_server();
    control_server(const control_server &) = delete;
    control_server &operator=(const control_server &) = delete;

  private:
    struct peer {
        util::descriptor socket;
        pid_t process = 0;           /* 0: not known */
        uint64_t last_command = 0;   /* a smaller number means an older command */
        pending_answer pending = {}; /* while an answer is pending, no further command is read */
        bool is_dropped = false;     /* closed at the end of the current pass */
    };

    static void *run(void *argument);
    void serve();
    bool accept_peer();
    void make_room();
    void serve_peers(std::span<const pollfd> polled);
    bool serve_peer(peer &known, bool is_ready);
    bool receive_command(peer &from);

    const std::string path_;
    simulator &board_;
    util::descriptor lock_;
    util::descriptor listener_;
    const util::event wakeup_;
    std::vector<peer> peers_;
    uint64_t last_command_ = 0;
    bool can_accept_ = true;
    std::vector<char> command_;
    std::atomic<bool> is_ending_ = false;
    pthread_t thread_ = {};
};

} // namespace board
