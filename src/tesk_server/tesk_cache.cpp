/* SPDX-License-Identifier: Apache-2.0 */
/* Three arrays that roll over independently, so that a burst of indications removes old actions
   only. A full array drops its oldest record by moving the other 29, which keeps the records in
   the order in which they are read.

   An array holds records of one type, so they are stored without the entry's type. Each array is
   created with room for all its records: an add needs no memory. */
#include "tesk_server/tesk_cache.h"

#include "tesk_server/tesk_trace.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <glib.h>

/* Index 0 is the oldest record. */
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
    if (cache->len + 1 > tesk_cache_limit)
        g_array_remove_index(cache, 0);
    /* All members of the union start at the same address. */
    g_array_append_vals(cache, &entry->port_status, 1);
    return 0;
}

int tesk_cache_read(uint32_t type, uint32_t *count, tesk_cache_entry **entries)
{
    const GArray *cache = cache_of(type);

    if (cache == nullptr)
        return 1;
    /* At least one slot, since malloc(0) may return null without a lack of memory. */
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

static GArray *make_cache(guint record_size)
{
    return g_array_sized_new(FALSE, FALSE, record_size, tesk_cache_limit);
}

void tesk_cache_init()
{
    sfp_info_cache = make_cache(sizeof(tesk_cache_sfp_info_record));
    port_status_cache = make_cache(sizeof(tesk_cache_port_status_record));
    action_cache = make_cache(sizeof(tesk_cache_action_record));
}

void tesk_cache_shutdown()
{
    free_cache(&sfp_info_cache);
    free_cache(&port_status_cache);
    free_cache(&action_cache);
}
