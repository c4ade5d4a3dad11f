/* SPDX-License-Identifier: Apache-2.0 */
/* The buckets stand in a list that is sorted by id, and a new one gets the lowest id that is free.
   To find the id and the place in the list by walking would cost the more the more ports are
   subscribed to, and each tick and each change of a port looks its bucket up. So two things stand
   beside the list: the bucket of each id, which is a lookup and also leads to the place of a new
   one, and a heap of the ids that have been given back.

   An id that comes back is given out again at once. A tick that is still on its way to a bucket
   that has been removed can therefore reach another one, which then drains by two chains of ticks
   until it is empty. */
#include "tesk_server/leaky_bucket.h"

#include "tesk_server/tesk_list.h"
#include "tesk_server/tesk_trace.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <glib.h>

/* Sorted by ascending id. */
static leaky_bucket_data *bucket_head;

/* The bucket of each id ever given, at id - 1; null while the id is free. */
static GPtrArray *buckets_by_id;

/* Those of them that are free, as a heap with the lowest on top. */
static GArray *free_ids;

static leaky_bucket_state state_of(const leaky_bucket_data *bucket)
{
    return bucket->level < bucket->filter_level ? LEAKY_BUCKET_BELOW_LEVEL
                                                : LEAKY_BUCKET_LEVEL_REACHED;
}

static int32_t take_free_id()
{
    if (buckets_by_id == nullptr) {
        buckets_by_id = g_ptr_array_new();
        free_ids = g_array_new(FALSE, FALSE, sizeof(int32_t));
    }
    /* With none given back, the ids in use are 1 to the highest without a gap. */
    if (free_ids->len == 0) {
        g_ptr_array_add(buckets_by_id, nullptr);
        return static_cast<int32_t>(buckets_by_id->len);
    }
    auto *ids = reinterpret_cast<int32_t *>(free_ids->data);
    std::pop_heap(ids, ids + free_ids->len, std::greater<>());
    const int32_t lowest = ids[free_ids->len - 1];
    g_array_set_size(free_ids, free_ids->len - 1);
    return lowest;
}

static void give_id_back(int32_t id)
{
    buckets_by_id->pdata[id - 1] = nullptr;
    g_array_append_val(free_ids, id);
    auto *ids = reinterpret_cast<int32_t *>(free_ids->data);
    std::push_heap(ids, ids + free_ids->len, std::greater<>());
}

/* All ids below the lowest free one are taken, so the bucket that comes before the new one in the
   list has the next lower id, and no walk is needed to find it. */
static void leaky_bucket_insert(leaky_bucket_data *bucket)
{
    bucket->id = take_free_id();
    buckets_by_id->pdata[bucket->id - 1] = bucket;

    leaky_bucket_data *before = leaky_bucket_find(bucket->id - 1);
    tesk_list_insert(before == nullptr ? &bucket_head : &before->next, bucket);
    tesk_trace(TESK_TRACE_BUCKET, "Bucket(%d) inserted to the list", bucket->id);
}

int32_t leaky_bucket_add(int32_t bucket_size, int32_t filter_level)
{
    if (bucket_size < filter_level || bucket_size == 0 || filter_level == 0) {
        tesk_trace(
            TESK_TRACE_ERROR,
            "Invalid params for adding new leaky bucket: bucket_size = %d, filter_level = %d",
            bucket_size, filter_level);
        return -1;
    }

    auto *bucket = static_cast<leaky_bucket_data *>(calloc(1, sizeof(leaky_bucket_data)));
    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Allocation failed for leaky_bucket_data");
        return -1;
    }
    bucket->bucket_size = bucket_size;
    bucket->filter_level = filter_level;
    leaky_bucket_insert(bucket);
    return bucket->id;
}

void leaky_bucket_remove(int32_t id)
{
    leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot remove leaky bucket: id %d not found", id);
        return;
    }
    tesk_list_remove(bucket);
    give_id_back(id);
    free(bucket);
    tesk_trace(TESK_TRACE_BUCKET, "Bucket(%u) removed from the list", static_cast<unsigned>(id));
}

leaky_bucket_state leaky_bucket_get_state(int32_t id)
{
    const leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot get leaky bucket state: id %d not found", id);
        return LEAKY_BUCKET_NOT_FOUND;
    }
    return state_of(bucket);
}

leaky_bucket_state leaky_bucket_update(int32_t id, int32_t delta)
{
    leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot update leaky bucket: id %d not found", id);
        return LEAKY_BUCKET_NOT_FOUND;
    }

    /* The top is looked at first. A level that comes to exactly 0 has not been emptied by this: it
       is a level like any other below the filter level. */
    bucket->level += delta;
    bool emptied = false;
    if (bucket->level >= bucket->bucket_size) {
        bucket->level = bucket->bucket_size;
    } else if (bucket->level < 0) {
        bucket->level = 0;
        emptied = true;
    }
    tesk_trace(TESK_TRACE_BUCKET, "Bucket(%u) level-> %d", static_cast<unsigned>(id),
               bucket->level);
    return emptied ? LEAKY_BUCKET_EMPTIED : state_of(bucket);
}

leaky_bucket_data *leaky_bucket_find(int32_t id)
{
    if (buckets_by_id == nullptr || id < 1 || static_cast<guint>(id) > buckets_by_id->len)
        return nullptr;
    return static_cast<leaky_bucket_data *>(buckets_by_id->pdata[id - 1]);
}
