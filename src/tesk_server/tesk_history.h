/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_history - the writers of the history: each stamps a record with the time of the call and
   adds it to tesk_cache. A record that the cache refuses is traced, and the procedure goes on. Main
   thread only. Nothing here allocates. */
#pragma once

#include "tesk_server/tesk_cache.h"
#include "tesk_server/tesk_client_data.h"
#include "tesk_server/tesk_signals.h"

#include <cstdint>

/* An action towards `client` that concerns a port. */
void tesk_history_add_action(tesk_cache_action action, uint32_t port_no, const tesk_client *client);

/* A presence change of a port's module. */
void tesk_history_add_presence(uint32_t port_no, uint32_t presence);

/* A port state event: the state that it reported, the level of the port's bucket after it, and the
   fault levels of the read that it caused. */
void tesk_history_add_port_state(const tesk_port_info *info, int32_t bucket_level,
                                 uint32_t port_state);
