/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_portsub - who is subscribed, port by port: a count of clients for each kind, what is known
   of the port, and the port's leaky bucket. The hardware library sees one subscription a port and
   kind however many clients hold it. A record exists exactly while that subscription is held. Main
   thread only. */
#pragma once

#include "tesk_server/tesk_types.h"

#include <cstdint>

/* Makes the two tables. Nothing is added before. */
void tesk_portsub_init();

/* Frees the tables, and touches neither hardware subscriptions nor buckets. */
void tesk_portsub_shutdown();

/* The index of the port's record, good until the next change of the table, or -1. */
int32_t tesk_portsub_find_port_status(uint32_t port_no);
int32_t tesk_portsub_find_sfp_info(uint32_t port_no);

/* The port's bucket; 0 when the port has no port status record. */
int32_t tesk_portsub_get_bucket_id(uint32_t port_no);

/* One subscriber more; the first takes the hardware subscription. 0, or TESK_FAILURE with nothing
   changed. */
int32_t tesk_portsub_add_sfp_info(uint32_t port_no);
int32_t tesk_portsub_add_port_status(uint32_t port_no);

/* One subscriber less; the last gives the hardware subscription back. 0, or TESK_FAILURE with the
   count as before: no record, or the hardware refused. */
int32_t tesk_portsub_remove_sfp_info(uint32_t port_no);
int32_t tesk_portsub_remove_port_status(uint32_t port_no);

/* Stores a presence in the records of the port. Whether it was news to any of them. */
bool tesk_portsub_update_sfp_presence(uint32_t port_no, uint32_t presence);

/* The recorded presence; SFP_UNKNOWN when nothing usable is recorded. Doesn't read the hardware. */
tesk_sfp_presence get_sfp_presence(uint32_t port_no);

/* Stores a port state. Whether it differs from the one before. */
bool tesk_portsub_update_port_state(uint32_t port_no, uint32_t new_state);

/* The constant's own name, for traces; never null, whatever the value is. */
const char *tesk_port_state_str(uint32_t state);
const char *tesk_sfp_presence_str(uint32_t presence);
