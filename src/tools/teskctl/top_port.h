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
    bool is_gone = false; /* the server doesn't know the port any more */
    std::optional<tesk_client_port_status> status;
    std::chrono::steady_clock::time_point status_time{};
    std::optional<tesk_client_sfp_info> sfp;
    std::optional<tesk_client_pm> pm; /* the last values; those of a port without a module, too */
    std::optional<tesk_client_pm> graded; /* the values when the grades came */
    bool is_reading = false;              /* a read of the measured values is in flight */
    uint64_t changes = 0;
    std::string last_event; /* with its time */
    std::string last_fall;  /* when and why it fell last; empty: not known */
    bool is_unseen = false; /* changed since it was last on the page */
};

/* A port status. Returns the difference to the one before in words; empty if there is none, or if
   it is the first. */
std::string take(top_port &port, const tesk_client_port_status &status);
std::string take(top_port &port, const tesk_client_sfp_info &info);
/* The first values after a status are taken as those that the server graded. */
void take(top_port &port, const tesk_client_pm &pm);

/* The last fall that the board recorded. */
void take(top_port &port, const watched_fall &fall);

/* The last event, and the cause of the last fall, for the port's row. */
std::string event_text(const top_port &port);

/* The server doesn't know the port: drops all values of it. */
void take_loss(top_port &port);

/* The module's state: one of tesk_client_sfp_type, or module_not_ready. */
uint32_t module_of(const top_port &port);

/* True if the value has moved since it was graded: by the rule of program/moved_values.h. */
bool has_moved(const top_port &port, tesk_client_measurement measurement);

/* For sorting, the worst port has the highest rank: by its worst level, then links that are down.
 */
uint32_t rank(const top_port &port);
