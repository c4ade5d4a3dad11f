#include "tesk_client_data.h"

#include "tesk_mutex.h"
#include "tesk_trace.h"

static pthread_mutex_t client_mutex = PTHREAD_MUTEX_INITIALIZER;
static tesk_client *client_head;
static uint32_t next_client_id;

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
    client->next = client_head;
    client->prev_link = &client_head;
    if (client_head != nullptr)
        client_head->prev_link = &client->next;
    client_head = client;
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
    *client->prev_link = client->next;
    if (client->next != nullptr)
        client->next->prev_link = client->prev_link;
    g_array_free(client->subscriptions, TRUE);
    free(client);
    tesk_mutex_unlock(&client_mutex);
}

tesk_client *tesk_client_find_by_sender(uint32_t mbox)
{
    tesk_mutex_lock(&client_mutex);
    tesk_client *client = client_head;
    while (client != nullptr && client->mbox != mbox)
        client = client->next;
    tesk_mutex_unlock(&client_mutex);
    return client;
}

tesk_client *tesk_client_find(uint32_t connection_ref, uint32_t mbox)
{
    tesk_mutex_lock(&client_mutex);
    tesk_client *client = client_head;
    while (client != nullptr && (client->mbox != mbox || client->client_id != connection_ref))
        client = client->next;
    tesk_mutex_unlock(&client_mutex);
    return client;
}

tesk_client *tesk_client_first()
{
    return client_head;
}

int32_t tesk_client_find_subscription(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    for (guint index = 0; index < client->subscriptions->len; index++) {
        const auto &held = g_array_index(client->subscriptions, tesk_client_subscription, index);
        if (held.port_no == port_no && held.kind == kind)
            return static_cast<int32_t>(index);
    }
    return -1;
}

void tesk_client_add_subscription(tesk_client *client, uint32_t port_no, uint32_t kind)
{
    const tesk_client_subscription subscription = {port_no, kind};

    g_array_append_vals(client->subscriptions, &subscription, 1);
}

void tesk_client_remove_subscription(tesk_client *client, int32_t index)
{
    g_array_remove_index_fast(client->subscriptions, static_cast<guint>(index));
}

/* From `client` on along the list. */
static tesk_client *find_subscriber(tesk_client *client, uint32_t port_no, uint32_t kind)
{
    while (client != nullptr && tesk_client_find_subscription(client, port_no, kind) == -1)
        client = client->next;
    return client;
}

tesk_client *tesk_client_first_subscriber(uint32_t port_no, uint32_t kind)
{
    return find_subscriber(client_head, port_no, kind);
}

tesk_client *tesk_client_next_subscriber(const tesk_client *client, uint32_t port_no, uint32_t kind)
{
    return find_subscriber(client->next, port_no, kind);
}

void tesk_client_data_reset()
{
    tesk_mutex_lock(&client_mutex);
    next_client_id = 0;
    tesk_mutex_unlock(&client_mutex);
}
