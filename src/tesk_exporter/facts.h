/* SPDX-License-Identifier: Apache-2.0 */
/* facts - the reports of the threads that have a session with the server, and the queue that
   carries them to the main thread. The threads exchange nothing else, so no other module needs a
   lock. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "util/event.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

namespace exporter
{

/* Continues while the machine is suspended, unlike the clock of the standard library: a suspend
   adds to the age of a value. */
struct steady_clock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<steady_clock>;
    static constexpr bool is_steady = true;
    static time_point now() noexcept;
};
using steady_time = steady_clock::time_point;

/* The ports that are followed from now on, in ascending order. All other ports are no longer
   followed. */
struct ports_fact {
    struct port {
        uint32_t number;
        std::string interface; /* escaped; empty if the port map has no name */
    };
    std::vector<port> ports;
};

/* The connection came up or was lost. */
struct connection_fact {
    bool connected;
    std::string text; /* the reason of the loss; empty while connected */
};

/* Measured values. */
struct reading_fact {
    tesk_client_pm pm;
};

/* The values of a port could not be read. */
struct unread_fact {
    uint32_t port_no;
    bool is_refused;         /* the server refused: there are no values now */
    std::string text;        /* the reason */
    bool has_module = false; /* by the server's answer a module is present */
};

/* A change of a module's presence, from the server's history, which also has changes without an
   indication. */
struct presence_fact {
    uint32_t port_no;
    uint32_t presence; /* tesk_client_presence */
};

/* The grades of a port that the refresher has requested. */
struct grades_fact {
    uint32_t port_no;
    bool succeeded;
    tesk_client_port_status status; /* valid if the refresh succeeded */
};

/* A request completed: answered, failed or timed out. */
struct request_fact {
    tesk_client_result result;
    std::chrono::nanoseconds latency;
    bool is_read = true;     /* a read of measured values */
    bool is_failure = false; /* a read that failed */
};

/* A port turned out not to exist. */
struct gone_fact {
    uint32_t port_no;
};

/* The measured values of all ports have been requested once. */
struct round_fact {
};

/* A fall of a link that the board has recorded, or new facts about such a fall; never null. */
struct recorded_fall;
using fall_fact = std::shared_ptr<const recorded_fall>;

using fact = std::variant<ports_fact, connection_fact, tesk_client_sfp_info,
                          tesk_client_port_status, reading_fact, unread_fact, presence_fact,
                          grades_fact, request_fact, gone_fact, round_fact, fall_fact>;

/* A bounded queue. The descriptor is readable while the queue isn't empty. */
class fact_queue
{
  public:
    fact_queue() = default; /* throws std::system_error */
    fact_queue(const fact_queue &) = delete;
    fact_queue &operator=(const fact_queue &) = delete;

    /* Any thread. Waits while the queue is full; does nothing once it is closed. */
    void post(fact reported);
    /* The main thread. Takes all facts of the queue, in order of arrival. */
    std::vector<fact> take();
    /* Wakes the threads that are blocked in post(), so that they can end. */
    void close();
    int fd() const
    {
        return waiting_.fd();
    }

  private:
    static constexpr size_t capacity = 8192;

    const util::event waiting_;
    std::mutex mutex_;
    std::condition_variable taken_;
    std::vector<fact> facts_;
    bool closed_ = false;
};

} // namespace exporter
