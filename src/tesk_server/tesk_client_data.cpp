/* SPDX-License-Identifier: Apache-2.0 */
/* Three indexes accompany the list of clients, so that no lookup grows with the number of clients
   or of their subscriptions: the client of a mailbox, the subscriber of a client, port and kind,
   and the subscribers of a port and kind. The functions that change the list or a client's
   subscriptions update them.

   A new client is inserted at the head of the list, and indications to several clients are sent in
   the order of the list, newest client first. A port's list of subscribers has the same order,
   whatever the order of the subscriptions: it is sorted by descending client_id, and client ids are
   assigned in the order of the connections.

   The client of a mailbox is found in a table of fixed size, so that adding a client allocates
   nothing but its record, and a lack of memory is a result. Subscribing has no such result.

   The mutex guards the list, the next client_id and the indexes, although only the main thread uses
   them; it is never held across a call to another module. Subscriptions are changed without it. */
#include "tesk_server/tesk_client_data.h"

#include "tesk_server/tesk_list.h"
#include "tesk_server/tesk_mutex.h"
#include "tesk_server/tesk_trace.h"
#include "tesk_server/tesk_types.h"

static pthread_mutex_t client_mutex = PTHREAD_MUTEX_INITIALIZER;
static tesk_client *client_head;
static uint32_t next_client_id;

/* The clients by mailbox, each chain linked by next_in_index. A mailbox has at most one client: its
   second connection is rejected. With 1,000 clients a chain has less than one on average. */
static constexpr uint32_t index_bits = 12;
static tesk_client *clients_by_mailbox[1u << index_bits];

/* A set of tesk_subscriber, equal by client and subscription; null before the first one. */
static GHashTable *subscribers;

/* The lists of subscribers. A page without a subscribed port is never touched, and takes no memory.
 */
static constexpr uint32_t number_of_kinds = 2;
static tesk_subscriber *port_subscribers[number_of_kinds][TESK_NUMBER_OF_PORTS];

/* The start of the mailbox's chain. The multiplication spreads ids that differ in few bits. */
static tesk_client **chain_of(uint32_t mbox)
{
    return &clients_by_mailbox[(mbox * 0x9e3779b1u) >> (32 - index_bits)];
}

/* Called with the mutex locked, as are the two below. */
static tesk_client *find_by_mailbox(uint32_t mbox)
{
    tesk_client *client = *chain_of(mbox);

    while (client != nullptr && client->mbox != mbox)
        client = client->next_in_index;
    return client;
}

static void add_to_index(tesk_client *client)
{
    tesk_client **chain = chain_of(client->mbox);

    client->next_in_index = *chain;
    *chain = client;
}

static void remove_from_index(const tesk_client *client)
{
    tesk_client **link = chain_of(client->mbox);

    while (*link != client)
        link = &(*link)->next_in_index;
    *link = client->next_in_index;
}

static guint hash_subscriber(gconstpointer key)
{
    const auto *subscriber = static_cast<const tesk_subscriber *>(key);
    const tesk_client_subscription &held = subscriber->subscription;

    return (subscriber->client->client_id * TESK_NUMBER_OF_PORTS + held.port_no) * 2 + held.kind;
}

static gboolean equal_subscribers(gconstpointer left, gconstpointer right)
{
    const auto *one = static_cast<const tesk_subscriber *>(left);
    const auto *other = static_cast<const tesk_subscriber *>(right);

    return one->client == other->client &&
           one->subscription.port_no == other->subscription.port_no &&
           one->subscription.kind == other->subscription.kind;
}

/* A subscriber is its own key, so the lookup needs one with the wanted values. */
static tesk_subscriber *find_subscriber(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    if (subscribers == nullptr)
        return nullptr;
    const tesk_subscriber sought = {.client = const_cast<tesk_client *>(client),
                                    .subscription = {port_no, kind},
                                    .index = 0,
                                    .next = nullptr,
                                    .prev_link = nullptr};

    return static_cast<tesk_subscriber *>(g_hash_table_lookup(subscribers, &sought));
}

/* The head of a port's list; null for a port or kind out of range. Kinds start at 1: kind 0 wraps
   around, so that one comparison covers both ends. */
static tesk_subscriber **subscribers_of_port(uint32_t port_no, uint32_t kind)
{
    if (port_no >= TESK_NUMBER_OF_PORTS || kind - 1 >= number_of_kinds)
        return nullptr;
    return &port_subscribers[kind - 1][port_no];
}

/* Inserts it behind the subscribers with newer clients. */
static void link_subscriber(tesk_subscriber *subscriber)
{
    const tesk_client_subscription &held = subscriber->subscription;
    tesk_subscriber **link = subscribers_of_port(held.port_no, held.kind);

    while (*link != nullptr && (*link)->client->client_id > subscriber->client->client_id)
        link = &(*link)->next;
    tesk_list_insert(link, subscriber);
}

static void free_subscriber(tesk_subscriber *subscriber)
{
    tesk_list_remove(subscriber);
    g_hash_table_remove(subscribers, subscriber);
    g_free(subscriber);
}

static const tesk_client_subscription *subscription_at(const tesk_client *client, guint index)
{
    return &g_array_index(client->subscriptions, tesk_client_subscription, index);
}

/* The array is freed whole, so its elements need not be removed one by one. */
static void free_subscriptions(tesk_client *client)
{
    if (client->subscriptions == nullptr)
        return;
    for (guint index = 0; index < client->subscriptions->len; index++) {
        const tesk_client_subscription *held = subscription_at(client, index);
        free_subscriber(find_subscriber(client, held->port_no, held->kind));
    }
    g_array_free(client->subscriptions, TRUE);
}

tesk_client *tesk_client_add(uint32_t mbox, uint32_t conn_ref)
{
    auto *client = static_cast<tesk_client *>(malloc(sizeof(tesk_client)));

    if (client == nullptr)
        return nullptr;
    client->mbox = mbox;
    client->monitor_ref = 0;
    client->subscriptions = nullptr;
    client->conn_ref = conn_ref;
    client->procedure_ref = 0;

    tesk_mutex_lock(&client_mutex);
    client->client_id = next_client_id++;
    tesk_list_insert(&client_head, client);
    add_to_index(client);
    tesk_mutex_unlock(&client_mutex);
    return client;
}

void tesk_client_remove(tesk_client *client)
{
    if (client == nullptr) {
        tesk_trace(TESK_TRACE_NOTABLE, "ABN: Trying to remove a NULL client!");
        return;
    }
    tesk_mutex_lock(&client_mutex);
    tesk_list_remove(client);
    remove_from_index(client);
    free_subscriptions(client);
    free(client);
    tesk_mutex_unlock(&client_mutex);
}

tesk_client *tesk_client_find_by_sender(uint32_t mbox)
{
    tesk_mutex_lock(&client_mutex);
    tesk_client *client = find_by_mailbox(mbox);
    tesk_mutex_unlock(&client_mutex);
    return client;
}

tesk_client *tesk_client_find(uint32_t connection_ref, uint32_t mbox)
{
    tesk_client *client = tesk_client_find_by_sender(mbox);

    return client != nullptr && client->client_id == connection_ref ? client : nullptr;
}

tesk_client *tesk_client_first()
{
    return client_head;
}

int32_t tesk_client_find_subscription(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    const tesk_subscriber *subscriber = find_subscriber(client, port_no, kind);

    return subscriber == nullptr ? -1 : static_cast<int32_t>(subscriber->index);
}

void tesk_client_add_subscription(tesk_client *client, uint32_t port_no, uint32_t kind)
{
    if (subscribers == nullptr)
        subscribers = g_hash_table_new(hash_subscriber, equal_subscribers);
    if (client->subscriptions == nullptr)
        client->subscriptions = g_array_new(FALSE, FALSE, sizeof(tesk_client_subscription));

    auto *subscriber = g_new(tesk_subscriber, 1);
    subscriber->client = client;
    subscriber->subscription = {port_no, kind};
    subscriber->index = client->subscriptions->len;
    g_array_append_vals(client->subscriptions, &subscriber->subscription, 1);
    g_hash_table_add(subscribers, subscriber);
    link_subscriber(subscriber);
}

void tesk_client_remove_subscription(tesk_client *client, int32_t index)
{
    const auto removed = static_cast<guint>(index);
    const tesk_client_subscription *held = subscription_at(client, removed);

    free_subscriber(find_subscriber(client, held->port_no, held->kind));
    g_array_remove_index_fast(client->subscriptions, removed);
    /* The last subscription is here now: its subscriber needs the new index. */
    if (removed < client->subscriptions->len) {
        held = subscription_at(client, removed);
        find_subscriber(client, held->port_no, held->kind)->index = removed;
    }
}

const tesk_subscriber *tesk_client_first_subscriber(uint32_t port_no, uint32_t kind)
{
    tesk_subscriber **head = subscribers_of_port(port_no, kind);

    return head == nullptr ? nullptr : *head;
}

void tesk_client_data_reset()
{
    tesk_mutex_lock(&client_mutex);
    next_client_id = 0;
    if (subscribers != nullptr)
        g_hash_table_destroy(subscribers);
    subscribers = nullptr;
    tesk_mutex_unlock(&client_mutex);
}
