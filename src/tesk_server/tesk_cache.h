/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_cache - the history: the last 30 port state events, presence changes and actions towards
   clients, in memory, for diagnostics only. Nothing in the server's behaviour depends on it. Main
   thread only.

   Exhausted memory: tesk_cache_read traces it and ends the process by abort; tesk_cache_init ends
   it in GLib; nothing else allocates. */
#pragma once

#include "tesk_server/tesk_types.h"

#include <cstdint>
#include <sys/time.h>

inline constexpr uint32_t tesk_cache_limit = 30;

enum tesk_cache_entry_type : uint32_t {
    TESK_CACHE_PORT_STATUS = 1,
    TESK_CACHE_SFP_INFO = 2,
    TESK_CACHE_ACTION = 3,
};

enum tesk_cache_action : uint32_t {
    TESK_CACHE_ACTION_PORT_STATUS_SUBSCRIBE = 1,
    TESK_CACHE_ACTION_PORT_STATUS_UNSUBSCRIBE = 2,
    TESK_CACHE_ACTION_SFP_INFO_SUBSCRIBE = 3,
    TESK_CACHE_ACTION_SFP_INFO_UNSUBSCRIBE = 4,
    TESK_CACHE_ACTION_PORT_STATUS_IND = 5,
    TESK_CACHE_ACTION_SFP_INFO_IND = 6,
};

struct tesk_cache_port_status_record {
    uint32_t port_no;
    int32_t bucket_level; /* after any update by this event */
    uint32_t tx_power_fault_level;
    uint32_t rx_power_fault_level;
    uint32_t tx_bias_fault_level;
    uint32_t vcc_fault_level;
    uint32_t temp_fault_level;
    uint32_t laser_temp_fault_level;
    uint32_t tec_fault_level;
    struct timeval timestamp;
    uint32_t port_state; /* tesk_port_state, as the event reported it */
};

struct tesk_cache_sfp_info_record {
    uint32_t port_no;
    uint32_t sfp_presence; /* tesk_sfp_presence */
    struct timeval timestamp;
};

struct tesk_cache_action_record {
    uint32_t port_no;
    uint32_t client_id;
    uint32_t conn_ref;
    struct timeval timestamp;
    uint32_t action; /* tesk_cache_action */
};

struct tesk_cache_entry {
    uint32_t type; /* tesk_cache_entry_type */
    union {
        tesk_cache_port_status_record port_status;
        tesk_cache_sfp_info_record sfp_info;
        tesk_cache_action_record action;
    };
};

/* Creates the three caches, empty. */
void tesk_cache_init();

/* Copies the entry, the timestamp included, into its cache; a full cache drops its oldest record. 0
   when stored; 1, with a trace, for null or an unknown type. */
int tesk_cache_add(const tesk_cache_entry *entry);

/* Copies all records of a cache, oldest first, to a new array that the caller releases with free.
   0; or 1, with a trace and both outputs untouched, for an unknown type. */
int tesk_cache_read(uint32_t type, uint32_t *count, tesk_cache_entry **entries);

/* Frees the caches. Harmless if tesk_cache_init never ran. */
void tesk_cache_shutdown();
