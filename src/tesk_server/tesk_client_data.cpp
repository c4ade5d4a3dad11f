/* SPDX-License-Identifier: Apache-2.0 */
/* Beside the list of clients stand three indexes, so that no lookup grows with the number of
   clients or of their subscriptions: the client of a mailbox, the subscriber of a client, port and
   kind, and the subscribers of a port and kind. The functions that change the list or a client's
   subscriptions keep them in step.

   A new client goes to the head of the list, and all that is sent to many goes out in the order of
   the list, newest client first. The lists of subscribers must give that same order, whenever each
   of the clients subscribed. They are kept sorted by falling client_id, which is the order of the
   list, as ids are given out in the order of the connections.

   The mutex guards the list, the next id and the indexes, though only the main thread comes here;
   nothing is called out to while it is held. Subscriptions are changed without it. */
#include "tesk_server/tesk_client_data.h"

#include "tesk_server/tesk_list.h"
#include "tesk_server/tesk_mutex.h"
#include "tesk_server/tesk_trace.h"
#include "tesk_server/tesk_types.h"

static pthread_mutex_t client_mutex = PTHREAD_MUTEX_INITIALIZER;
static tesk_client *client_head;
static uint32_t next_client_id;

/* A mailbox has one client at most: a second connection of it is rejected. */
static GHashTable *clients_by_mailbox;

/* A set of tesk_subscriber, equal by client and subscription. */
static GHashTable *subscribers;

/* Heads of the lists of subscribers. A port that nobody subscribes to costs nothing: its page is
   never touched. */
static constexpr uint32_t number_of_kinds = 2;
static tesk_subscriber *port_subscribers[number_of_kinds][TESK_NUMBER_OF_PORTS];

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

/* A subscriber is its own key, so one is made up to look for. There are clients, and so there is a
   set to look in. */
static tesk_subscriber *find_subscriber(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    const tesk_subscriber sought = {.client = const_cast<tesk_client *>(client),
                                    .subscription = {port_no, kind},
                                    .index = 0,
                                    .next = nullptr,
                                    .prev_link = nullptr};

    return static_cast<tesk_subscriber *>(g_hash_table_lookup(subscribers, &sought));
}

/* The head of a port's list; null for a port or kind that cannot be subscribed to. Kinds start at
   1, so that kind 0 wraps around and is refused by the same test as one that is too high. */
static tesk_subscriber **subscribers_of_port(uint32_t port_no, uint32_t kind)
{
    if (port_no >= TESK_NUMBER_OF_PORTS || kind - 1 >= number_of_kinds)
        return nullptr;
    return &port_subscribers[kind - 1][port_no];
}

/* Behind the subscribers that connected later than its client. */
static void link_subscriber(tesk_subscriber *subscriber)
{
    const tesk_client_subscription &held = subscriber->subscription;
    tesk_subscriber **link = subscribers_of_port(held.port_no, held.kind);

    while (*link != nullptr && (*link)->client->client_id > subscriber->client->client_id)
        link = &(*link)->next;
    tesk_list_insert(link, subscriber);
}

static void forget_subscriber(tesk_subscriber *subscriber)
{
    tesk_list_remove(subscriber);
    g_hash_table_remove(subscribers, subscriber);
    g_free(subscriber);
}

static const tesk_client_subscription *subscription_at(const tesk_client *client, guint index)
{
    return &g_array_index(client->subscriptions, tesk_client_subscription, index);
}

tesk_client *tesk_client_add(uint32_t mbox, uint32_t conn_ref)
{
    auto *client = static_cast<tesk_client *>(malloc(sizeof(tesk_client)));

    if (client == nullptr)
        return nullptr;
    client->mbox = mbox;
    client->monitor_ref = 0;
    client->subscriptions = g_array_new(FALSE, FALSE, sizeof(tesk_client_subscription));
    client->conn_ref = conn_ref;
    client->procedure_ref = 0;

    tesk_mutex_lock(&client_mutex);
    client->client_id = next_client_id++;
    tesk_list_insert(&client_head, client);
    if (clients_by_mailbox == nullptr) {
        clients_by_mailbox = g_hash_table_new(nullptr, nullptr);
        subscribers = g_hash_table_new(hash_subscriber, equal_subscribers);
    }
    g_hash_table_insert(clients_by_mailbox, GUINT_TO_POINTER(mbox), client);
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
    g_hash_table_remove(clients_by_mailbox, GUINT_TO_POINTER(client->mbox));
    /* The array is freed as a whole, so that its subscriptions need not be taken out one by one. */
    for (guint index = 0; index < client->subscriptions->len; index++) {
        const tesk_client_subscription *held = subscription_at(client, index);
        forget_subscriber(find_subscriber(client, held->port_no, held->kind));
    }
    g_array_free(client->subscriptions, TRUE);
    free(client);
    tesk_mutex_unlock(&client_mutex);
}

/* With the mutex held. Before the first client there is no index at all. */
static tesk_client *find_by_mailbox(uint32_t mbox)
{
    if (clients_by_mailbox == nullptr)
        return nullptr;
    return static_cast<tesk_client *>(
        g_hash_table_lookup(clients_by_mailbox, GUINT_TO_POINTER(mbox)));
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

    forget_subscriber(find_subscriber(client, held->port_no, held->kind));
    g_array_remove_index_fast(client->subscriptions, removed);
    /* What was the last subscription stands here now, and its subscriber must know. */
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

/* The records of a thousand subscribers have left the caches since the last event. So those of the
   next but one are fetched here, while the signal to the next one is on its way. */
const tesk_subscriber *tesk_client_next_subscriber(const tesk_subscriber *subscriber)
{
    const tesk_subscriber *next = subscriber->next;

    if (next != nullptr && next->next != nullptr) {
        __builtin_prefetch(next->next->client);
        __builtin_prefetch(next->next->next);
    }
    return next;
}

void tesk_client_data_reset()
{
    tesk_mutex_lock(&client_mutex);
    next_client_id = 0;
    if (clients_by_mailbox != nullptr) {
        g_hash_table_destroy(clients_by_mailbox);
        g_hash_table_destroy(subscribers);
    }
    clients_by_mailbox = nullptr;
    subscribers = nullptr;
    tesk_mutex_unlock(&client_mutex);
}
