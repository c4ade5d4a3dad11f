/* SPDX-License-Identifier: Apache-2.0 */
/* The four board libraries as a script: every call and every trace is logged in order, what is sent
   is kept as bytes, and the board says what the test tells it to say. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "platform/mbx/mbx.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake_platform
{

struct sent_signal {
    uint32_t number;
    uint32_t receiver;
    std::vector<uint8_t> bytes;

    /* The word at an offset, in network and in host byte order. */
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

inline constexpr uint32_t own_mailbox = 0x51;

/* The board; a port that isn't here is unknown to it. An operation named in `failing`, without the
   prefix dolm_ric_, gives that code, for the ABI calls of the other libraries any code but 0. */
extern std::map<uint32_t, port> ports;
extern std::map<std::string, int32_t> failing;

/* What has been sent to others than the own mailbox, and blocks that are neither freed nor sent. */
extern std::vector<sent_signal> sent;
extern int live_blocks;

/* The ticks that the timer service holds, as (bucket, port). */
extern std::vector<std::pair<uint32_t, uint32_t>> ticks;

/* Where set, it is told what each operation on a port gave, and nothing is logged any more. */
extern void (*observer)(const char *operation, uint32_t port_no, int32_t code);

/* Everything as at process start; only the given groups are traced. */
void reset(std::initializer_list<uint32_t> groups = {});

/* The log since the last look. */
std::vector<std::string> take_log();

/* Puts a signal into the own mailbox; payload words in network order, or as they stand. */
void deliver(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words);
void deliver_host(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words);
void deliver_bytes(uint32_t sender, uint32_t number, const void *payload, size_t size);
bool mailbox_has_signal();

/* Returns when a thread sits in dolm_ric_waitevent with nothing to take. */
void await_event_thread();

/* Hands an event to the thread in dolm_ric_waitevent, or makes that fail once. */
void raise_event(const dolm_ric_event &event);
void fail_wait(int32_t code);

/* How many events went back. */
int freed_events();

} // namespace fake_platform
