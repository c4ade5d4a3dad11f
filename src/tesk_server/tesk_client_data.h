/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_data - the registry: one record for each client that has established a connection,
   with the subscriptions that it holds. Main thread only. A pointer to a record is valid until
   control returns to the main loop.

   Exhausted memory: tesk_client_add returns null; tesk_client_add_subscription ends the process in
   GLib; nothing else allocates. */
#pragma once

#include <cstdint>
#include <glib.h>
#include <span>

enum tesk_subscription_kind : uint32_t {
    tesk_subscription_sfp_info = 1,
    tesk_subscription_port_status = 2,
};

struct tesk_client_subscription {
    uint32_t port_no;
    uint32_t kind; /* tesk_subscription_kind */
};
static_assert(sizeof(tesk_client_subscription) == 8);

/* One client. A client_id is never assigned twice, so that a request with the client_id of a former
   client matches no client. */
struct tesk_client {
    uint32_t client_id;     /* the server's reference: connection_ref of the client's requests */
    uint32_t conn_ref;      /* the client's reference: connection_ref of all signals to it */
    uint32_t procedure_ref; /* of the latest change of its subscriptions; sent in indications */
    uint32_t mbox;          /* the client's mailbox */
    uint32_t monitor_ref;   /* 0 until the mailbox is monitored */
    GArray *subscriptions;  /* of tesk_client_subscription, at most one for each port and kind,
                               unordered; null before the first one */
    tesk_client *next;
    tesk_client **prev_link;
    tesk_client *next_in_index; /* for the registry's own use */
};

/* A client's subscription as an element of the port's array of subscribers. */
struct tesk_subscriber {
    tesk_client *client;
    guint index; /* of the subscription in the client's array */
};

/* Registers a new client at the head of the list, with the next client_id. Null when memory is
   exhausted. */
tesk_client *tesk_client_add(uint32_t mbox, uint32_t conn_ref);

/* Unregisters and frees the client. Neither the port subscription table nor the monitor is changed.
   Null is traced. */
void tesk_client_remove(tesk_client *client);

/* The client of a mailbox, or null. */
tesk_client *tesk_client_find_by_sender(uint32_t mbox);

/* The client of a request: its client_id is `connection_ref` and its mailbox `mbox`; or null. */
tesk_client *tesk_client_find(uint32_t connection_ref, uint32_t mbox);

/* The newest client, whose `next` leads to the older ones; or null. */
tesk_client *tesk_client_first();

/* The index of the client's subscription in its array, or -1. */
int32_t tesk_client_find_subscription(const tesk_client *client, uint32_t port_no, uint32_t kind);

/* Appends a subscription that the client doesn't hold. `port_no` is below tesk_number_of_ports and
   `kind` is a tesk_subscription_kind. */
void tesk_client_add_subscription(tesk_client *client, uint32_t port_no, uint32_t kind);

/* Removes the subscription at `index`; the last one takes its place. */
void tesk_client_remove_subscription(tesk_client *client, int32_t index);

/* The subscribers of a port and kind, the newest client last; none for a port or kind out of range.
   Valid until the next change of a subscription. */
std::span<const tesk_subscriber> tesk_client_subscribers(uint32_t port_no, uint32_t kind);

/* Called when no client is left: the next client_id is 0 again. */
void tesk_client_data_reset();
