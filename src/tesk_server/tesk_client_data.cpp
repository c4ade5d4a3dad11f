/* SPDX-License-Identifier: Apache-2.0 */
/* Two indexes accompany the list of clients: the client of a mailbox, and the subscribers of a port
   and kind. The functions that change the list or a client's subscriptions update them.

   A new client is inserted at the head of the list, and indications to several clients are sent in
   the order of the list, newest client first. The subscribers of a port and kind are an array,
   sorted by client_id, which is assigned in the order of the connections: it is walked from its
   end, and a client's subscription is found in it by bisection.

   A subscription takes 24 to 48 bytes in arrays, which shrink, and no block of its own: a client's
   memory is returned to the system after its death.

   The client of a mailbox is found in a table of fixed size, so that adding a client allocates
   nothing but its record, and a lack of memory is a result. Subscribing has no such result.

   The mutex guards the list, the next client_id and the indexes, although only the main thread uses
   them; it is never held across a call to another module. Subscriptions are changed without it. */
#include "tesk_server/tesk_client_data.h"

#include "tesk_server/tesk_list.h"
#include "tesk_server/tesk_mutex.h"
#include "tesk_server/tesk_trace.h"
#include "tesk_server/tesk_types.h"

#include <algorithm>
#include <malloc.h>
#include <span>

static pthread_mutex_t client_mutex = PTHREAD_MUTEX_INITIALIZER;
static tesk_client *client_head;
static uint32_t next_client_id;

/* The clients by mailbox, each chain linked by next_in_index. A mailbox has at most one client: its
   second connection is rejected. With 1,000 clients a chain has less than one on average. */
static constexpr uint32_t index_bits = 12;
static tesk_client *clients_by_mailbox[1u << index_bits];

/* For each port the array of its subscribers, or null. The tables are made for the first
   subscription; a page without a subscribed port is never touched, and takes no memory. */
static constexpr uint32_t number_of_kinds = 2;
static GArray **port_subscribers[number_of_kinds];

/* Subscriptions that were freed since memory was last returned to the system. */
static uint32_t freed_subscriptions;
static constexpr uint32_t many_freed = 8192;

/* The start of the mailbox's chain. The multiplication spreads ids that differ in few bits. */
static tesk_client **chain_of(uint32_t mbox)
{
    return &clients_by_mailbox[(mbox * 0x9e3779b1u) >> (32 - index_bits)];
}

/* Called with the mutex locked, like the two functions below. */
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

/* The array of a port and kind, or null; the port and kind are in range. */
static GArray **array_of_port(uint32_t port_no, uint32_t kind)
{
    GArray **&table = port_subscribers[kind - 1];

    if (table == nullptr)
        table = g_new0(GArray *, tesk_number_of_ports);
    return &table[port_no];
}

/* The index of the client's subscription in an array, or the index at which it is to be
   inserted. */
static guint place_in(std::span<const tesk_subscriber> subscribers, const tesk_client *client)
{
    const auto found = std::ranges::lower_bound(
        subscribers, client->client_id, {},
        [](const tesk_subscriber &subscriber) { return subscriber.client->client_id; });

    return static_cast<guint>(found - subscribers.begin());
}

/* Null if the client has no such subscription. */
static tesk_subscriber *find_subscriber(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    const auto subscribers = tesk_client_subscribers(port_no, kind);
    const guint place = place_in(subscribers, client);

    return place < subscribers.size() && subscribers[place].client == client
               ? &g_array_index(*array_of_port(port_no, kind), tesk_subscriber, place)
               : nullptr;
}

/* If an array's length has halved, it is moved to a block of that length: GArray never shrinks. */
static void shrink(GArray **array)
{
    const guint count = (*array)->len;
    GArray *shrunk = nullptr;

    if ((count & (count - 1)) != 0)
        return;
    if (count != 0) {
        shrunk = g_array_sized_new(FALSE, FALSE, sizeof(tesk_subscriber), count);
        g_array_append_vals(shrunk, (*array)->data, count);
    }
    g_array_free(*array, TRUE);
    *array = shrunk;
}

static std::span<const tesk_subscriber> elements_of(const GArray *array)
{
    return {reinterpret_cast<const tesk_subscriber *>(array->data), array->len};
}

static void free_subscriber(const tesk_client *client, const tesk_client_subscription *held)
{
    GArray **array = &port_subscribers[held->kind - 1][held->port_no];
    const guint last = (*array)->len - 1;

    /* In most cases the client is the newest one, or the only one. */
    g_array_remove_index(*array, elements_of(*array)[last].client == client
                                     ? last
                                     : place_in(elements_of(*array), client));
    shrink(array);
    freed_subscriptions++;
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
    for (guint index = 0; index < client->subscriptions->len; index++)
        free_subscriber(client, subscription_at(client, index));
    g_array_free(client->subscriptions, TRUE);
}

/* Blocks of remaining clients keep the C library from returning the memory between them. */
static void give_memory_back()
{
    if (freed_subscriptions < many_freed)
        return;
    freed_subscriptions = 0;
    malloc_trim(0);
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
    give_memory_back();
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
    GArray **array = array_of_port(port_no, kind);

    if (client->subscriptions == nullptr)
        client->subscriptions = g_array_new(FALSE, FALSE, sizeof(tesk_client_subscription));
    if (*array == nullptr)
        *array = g_array_sized_new(FALSE, FALSE, sizeof(tesk_subscriber), 1);

    const tesk_client_subscription added = {port_no, kind};
    const tesk_subscriber subscriber = {client, client->subscriptions->len};
    g_array_append_vals(client->subscriptions, &added, 1);
    g_array_insert_vals(*array, place_in(tesk_client_subscribers(port_no, kind), client),
                        &subscriber, 1);
}

void tesk_client_remove_subscription(tesk_client *client, int32_t index)
{
    const auto removed = static_cast<guint>(index);
    const tesk_client_subscription *held = subscription_at(client, removed);

    free_subscriber(client, held);
    g_array_remove_index_fast(client->subscriptions, removed);
    /* The last subscription was moved to this index: its subscriber needs the new index. */
    if (removed < client->subscriptions->len) {
        held = subscription_at(client, removed);
        find_subscriber(client, held->port_no, held->kind)->index = removed;
    }
}

/* Kinds start at 1: kind 0 wraps around, so that one comparison covers both ends. */
std::span<const tesk_subscriber> tesk_client_subscribers(uint32_t port_no, uint32_t kind)
{
    if (port_no >= tesk_number_of_ports || kind - 1 >= number_of_kinds ||
        port_subscribers[kind - 1] == nullptr)
        return {};
    const GArray *array = port_subscribers[kind - 1][port_no];
    return array == nullptr ? std::span<const tesk_subscriber>() : elements_of(array);
}

void tesk_client_data_reset()
{
    tesk_mutex_lock(&client_mutex);
    next_client_id = 0;
    for (GArray **&table : port_subscribers) {
        g_free(table);
        table = nullptr;
    }
    freed_subscriptions = 0;
    tesk_mutex_unlock(&client_mutex);
}
