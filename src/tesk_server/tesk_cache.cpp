/* SPDX-License-Identifier: Apache-2.0 */
/* Three arrays that roll over independently, so that a burst of indications pushes out old actions
   only. A full array gives up its oldest record by moving the 29 others, which keeps it in the
   order in which it is read.

   The records are kept without the entry's type, as an array has one type only. An add that is
   refused is no reason for a procedure to stop. */
#include "tesk_server/tesk_cache.h"

#include "tesk_server/tesk_trace.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <glib.h>

/* Each holds records without their entry's type; index 0 is the oldest. */
static GArray *sfp_info_cache;
static GArray *port_status_cache;
static GArray *action_cache;

/* The cache of a type, or null with a trace. */
static GArray *cache_of(uint32_t type)
{
    switch (type) {
    case TESK_CACHE_PORT_STATUS:
        return port_status_cache;
    case TESK_CACHE_SFP_INFO:
        return sfp_info_cache;
    case TESK_CACHE_ACTION:
        return action_cache;
    default:
        tesk_trace(TESK_TRACE_ERROR, "Unknown cache entry type: %u", type);
        return nullptr;
    }
}

static void free_cache(GArray **cache)
{
    if (*cache != nullptr)
        g_array_free(*cache, TRUE);
    *cache = nullptr;
}

int tesk_cache_add(const tesk_cache_entry *entry)
{
    if (entry == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Trying to add null value as cache entry");
        return 1;
    }
    GArray *cache = cache_of(entry->type);
    if (cache == nullptr)
        return 1;
    if (cache->len + 1 > TESK_CACHE_LIMIT)
        g_array_remove_index(cache, 0);
    /* The records of the union all start at the same place. */
    g_array_append_vals(cache, &entry->port_status, 1);
    return 0;
}

int tesk_cache_read(uint32_t type, uint32_t *count, tesk_cache_entry **entries)
{
    const GArray *cache = cache_of(type);

    if (cache == nullptr)
        return 1;
    /* An empty cache gets a slot too, since a null of malloc(0) would look like a lack of memory.
     */
    auto *copy = static_cast<tesk_cache_entry *>(
        malloc(std::max<size_t>(cache->len, 1) * sizeof(tesk_cache_entry)));
    if (copy == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Memory error");
        abort();
    }
    const size_t record_size = g_array_get_element_size(const_cast<GArray *>(cache));
    for (guint index = 0; index < cache->len; index++) {
        copy[index].type = type;
        memcpy(static_cast<void *>(&copy[index].port_status), cache->data + index * record_size,
               record_size);
    }
    *count = cache->len;
    *entries = copy;
    return 0;
}

void tesk_cache_add_action(tesk_cache_action action, const char *failure, uint32_t port_no,
                           uint32_t client_id, uint32_t conn_ref)
{
    tesk_cache_entry entry = {};

    entry.type = TESK_CACHE_ACTION;
    entry.action.port_no = port_no;
    entry.action.client_id = client_id;
    entry.action.conn_ref = conn_ref;
    entry.action.action = action;
    gettimeofday(&entry.action.timestamp, nullptr);
    if (tesk_cache_add(&entry) != 0)
        tesk_trace(TESK_TRACE_NOTABLE, failure, port_no, client_id, conn_ref);
}

void tesk_cache_init()
{
    sfp_info_cache = g_array_new(FALSE, FALSE, sizeof(tesk_cache_sfp_info_record));
    port_status_cache = g_array_new(FALSE, FALSE, sizeof(tesk_cache_port_status_record));
    action_cache = g_array_new(FALSE, FALSE, sizeof(tesk_cache_action_record));
}

void tesk_cache_shutdown()
{
    free_cache(&sfp_info_cache);
    free_cache(&port_status_cache);
    free_cache(&action_cache);
}
