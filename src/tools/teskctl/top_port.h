/* SPDX-License-Identifier: Apache-2.0 */
/* top_port - the state of one port in `teskctl top`. No terminal, no session. One thread. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tools/teskctl/fall_watch.h"

#include <chrono>
#include <optional>
#include <string>

struct top_port {
    std::string name;     /* of the interface; empty if not known */
    bool is_gone = false; /* the server no longer knows the port */
    std::optional<tesk_client_port_status> status;
    std::chrono::steady_clock::time_point status_time{};
    std::optional<tesk_client_sfp_info> sfp;
    std::optional<tesk_client_pm> pm; /* the last values; also set for a port without a module */
    std::optional<tesk_client_pm> graded; /* the values that belong to the grades */
    bool is_reading = false;              /* a read of the measured values is in progress */
    uint64_t changes = 0;
    std::string last_event; /* text of the last event, with its time */
    std::string last_fall;  /* when and why the link last fell; empty: not known */
    bool is_unseen = false; /* changed since the page last showed it */
};

/* Takes a port status. Returns the difference to the previous one in words; empty if there is none,
   or for the first status. */
std::string take(top_port &port, const tesk_client_port_status &status);
std::string take(top_port &port, const tesk_client_sfp_info &info);
/* The first values after a status count as those that the server graded. */
void take(top_port &port, const tesk_client_pm &pm);

/* Takes the last fall that the board recorded. */
void take(top_port &port, const watched_fall &fall);

/* The last event, and the cause of the last fall, for the port's row. */
std::string event_text(const top_port &port);

/* The server no longer knows the port: drops all its values. */
void take_loss(top_port &port);

/* The module's state: one of tesk_client_sfp_type, or module_not_ready. */
uint32_t module_of(const top_port &port);

/* True if the value has moved since it was graded: by the rule of program/moved_values.h. */
bool has_moved(const top_port &port, tesk_client_measurement measurement);

/* For sorting: the worst port has the highest rank, by its worst level, then by a link that is
   down. */
uint32_t rank(const top_port &port);
