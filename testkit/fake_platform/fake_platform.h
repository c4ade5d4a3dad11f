/* SPDX-License-Identifier: Apache-2.0 */
/* fake_platform - the four board libraries as a script: every call and every trace is logged in
   order, sent signals are kept as bytes, and the board answers as the test has set it. A call with
   wrong arguments is recorded as a violation. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "platform/mbx/mbx.h"
#include "testkit/fake_platform/fake_mailbox.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake_platform
{

/* A sent signal, or a signal at the moment of its trace, which is in host order. */
struct sent_signal {
    uint32_t number;
    uint32_t receiver;
    std::vector<uint8_t> bytes;

    /* The word at an offset that is in network byte order, or in host byte order. */
    uint32_t word(size_t offset) const;
    uint32_t host_word(size_t offset) const;
    std::string text(size_t offset) const;
};

struct port {
    uint32_t status = DOLM_RICRIPORT_STARTED;
    uint32_t link_state = DOLM_RICRILINKSTATE_NOOPERATION;
    uint32_t speed = 0;
    dolm_ric_module_info module = {};
    dolm_ric_module_status module_status = {};
    dolm_ric_module_diag diag = {};
};

/* All arguments of a trace. For a received signal the receiver is 0. */
struct trace_record {
    uint32_t group;
    std::string file;
    uint32_t line;
    std::string text;
    sent_signal signal; /* for groups 17 and 18 */
};

struct tick {
    uint32_t bucket, port, interval;
};

using fake_mailbox::live_blocks;
using fake_mailbox::own_mailbox;

/* The board; it knows only these ports. An operation named in `failing`, without the prefix
   dolm_ric_, returns that code; the calls of the other libraries fail with any code but 0. */
extern std::map<uint32_t, port> ports;
extern std::map<std::string, int32_t> failing;

/* The signals that have been sent to other mailboxes. */
extern std::vector<sent_signal> sent;

/* The ticks that have been requested from the timer service. */
extern std::vector<tick> ticks;

/* If set, it is called with the result of each operation on a port, and nothing is logged. */
extern void (*observer)(const char *operation, uint32_t port_no, int32_t code);

/* Resets everything to the state at process start; only the given groups are traced. */
void reset(std::initializer_list<uint32_t> groups = {});

/* The log, the traces and the violations since the last call. */
std::vector<std::string> take_log();
std::vector<trace_record> take_traces();
std::vector<std::string> take_violations();

/* Adds a line to the log. */
void note(const std::string &line);

/* Puts a signal into the server's own mailbox; `words` of the payload are converted to network
   order, or kept as they are. */
void deliver(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words);
void deliver_host(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words);

/* Return when a thread waits in dolm_ric_waitevent and no event is left, or when that many events
   have been freed. Throw after 20 s; after one throw, the next ones after 1 s. */
void await_event_thread();
void await_freed_events(int count);

/* Passes an event to the thread in dolm_ric_waitevent, or makes that call fail once. */
void raise_event(const dolm_ric_event &event);
void fail_wait(int32_t code);

/* The result of dolm_ric_waitevent after dolm_ric_shutdown: events before the shutdown event, or a
   failure instead of it. */
extern std::vector<dolm_ric_event> last_events;
extern int32_t last_wait;

/* The number of freed events, and the number of calls of dolm_ric_waitevent. */
int freed_events();
int waits();

} // namespace fake_platform
