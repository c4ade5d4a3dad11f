/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_portsub - the port subscription table: for each port and kind the number of subscribed
   clients, the last known values of the port, and the port's leaky bucket. The hardware library has
   one subscription for each port and kind, however many clients share it. A record exists exactly
   while that subscription does. Main thread only.

   Port numbers passed to the add functions are below tesk_number_of_ports: the records are indexed
   by port. All other functions accept any number.

   Exhausted memory: without memory for its bucket a port status subscription fails as described
   below; the tables end the process in GLib, as their arrays do when they grow. */
#pragma once

#include "tesk_server/tesk_types.h"

#include <cstdint>

/* Creates the two tables, before anything else is called. */
void tesk_portsub_init();

/* Frees the tables; hardware subscriptions and buckets are left alone. Harmless if
   tesk_portsub_init never ran. */
void tesk_portsub_shutdown();

/* The index of the port's record, valid until the next change of the table, or -1. */
int32_t tesk_portsub_find_port_status(uint32_t port_no);
int32_t tesk_portsub_find_sfp_info(uint32_t port_no);

/* The id of the port's bucket; 0 when the port has no port status record. */
int32_t tesk_portsub_get_bucket_id(uint32_t port_no);

/* Adds a subscriber; the first one makes the hardware subscription. 0, or tesk_failure with nothing
   changed: the hardware refused, or memory for the bucket is exhausted. */
int32_t tesk_portsub_add_sfp_info(uint32_t port_no);
int32_t tesk_portsub_add_port_status(uint32_t port_no);

/* Removes a subscriber; the last one ends the hardware subscription. 0, or tesk_failure with
   nothing changed: there is no record, or the hardware refused. */
int32_t tesk_portsub_remove_sfp_info(uint32_t port_no);
int32_t tesk_portsub_remove_port_status(uint32_t port_no);

/* Stores a presence in the records of the port. True if at least one of them had another value. */
bool tesk_portsub_update_sfp_presence(uint32_t port_no, uint32_t presence);

/* The recorded presence; sfp_unknown without a record, or when the port's two records differ.
   Doesn't read the hardware. */
tesk_sfp_presence get_sfp_presence(uint32_t port_no);

/* Stores a port state. True if it differs from the old one. */
bool tesk_portsub_update_port_state(uint32_t port_no, uint32_t new_state);

/* The name of the state's constant, for traces; never null, whatever the value. */
const char *tesk_port_state_str(uint32_t state);
const char *tesk_sfp_presence_str(uint32_t presence);
