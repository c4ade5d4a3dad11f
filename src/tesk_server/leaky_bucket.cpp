/* SPDX-License-Identifier: Apache-2.0 */
/* The buckets are found through a table by id, since every tick and every port state change looks
   one up. A new bucket gets the lowest free id. The table never shrinks: with a slot for each id
   that was ever assigned, removing a bucket needs no memory, and reinserting it doesn't either.

   The id of a removed bucket is assigned again at once. A tick that is still outstanding for the
   removed bucket can therefore reach the new one, which then has two chains of ticks until it is
   empty. */
#include "tesk_server/leaky_bucket.h"

#include "tesk_server/tesk_trace.h"

#include <cstdlib>

static constexpr int32_t smallest_table = 64;

/* The bucket of each id, at id - 1; null while the id is free. */
static leaky_bucket_data **buckets;
static int32_t table_size;

/* All ids below this one are assigned. */
static int32_t lowest_candidate = 1;

static leaky_bucket_state state_of(const leaky_bucket_data *bucket)
{
    return bucket->level < bucket->filter_level ? leaky_bucket_below_level
                                                : leaky_bucket_level_reached;
}

/* False when memory is exhausted; the table is then as it was. */
static bool grow_table()
{
    const int32_t size = table_size == 0 ? smallest_table : table_size * 2;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the table consists of pointers
    const size_t bytes = static_cast<size_t>(size) * sizeof(leaky_bucket_data *);
    auto *table = static_cast<leaky_bucket_data **>(realloc(buckets, bytes));

    if (table == nullptr)
        return false;
    for (int32_t slot = table_size; slot < size; slot++)
        table[slot] = nullptr;
    buckets = table;
    table_size = size;
    return true;
}

/* The lowest free id, or 0 when memory for its slot is exhausted. */
static int32_t find_free_id()
{
    while (lowest_candidate <= table_size && buckets[lowest_candidate - 1] != nullptr)
        lowest_candidate++;
    return lowest_candidate <= table_size || grow_table() ? lowest_candidate : 0;
}

static void leaky_bucket_insert(leaky_bucket_data *bucket)
{
    buckets[bucket->id - 1] = bucket;
    tesk_trace(TESK_TRACE_BUCKET, "Bucket(%d) inserted to the list", bucket->id);
}

void leaky_bucket_init()
{
    grow_table();
}

void leaky_bucket_shutdown()
{
    for (int32_t slot = 0; slot < table_size; slot++)
        free(buckets[slot]);
    free(buckets);
    buckets = nullptr;
    table_size = 0;
    lowest_candidate = 1;
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

    const int32_t id = find_free_id();
    auto *bucket =
        id == 0 ? nullptr : static_cast<leaky_bucket_data *>(calloc(1, sizeof(leaky_bucket_data)));
    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Allocation failed for leaky_bucket_data");
        return -1;
    }
    *bucket = {.id = id, .bucket_size = bucket_size, .filter_level = filter_level, .level = 0};
    leaky_bucket_insert(bucket);
    return id;
}

leaky_bucket_data *leaky_bucket_take_out(int32_t id)
{
    leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot remove leaky bucket: id %d not found", id);
        return nullptr;
    }
    buckets[id - 1] = nullptr;
    if (id < lowest_candidate)
        lowest_candidate = id;
    tesk_trace(TESK_TRACE_BUCKET, "Bucket(%u) removed from the list", static_cast<unsigned>(id));
    return bucket;
}

void leaky_bucket_reinsert(leaky_bucket_data *bucket)
{
    leaky_bucket_insert(bucket);
}

void leaky_bucket_remove(int32_t id)
{
    free(leaky_bucket_take_out(id));
}

leaky_bucket_state leaky_bucket_get_state(int32_t id)
{
    const leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot get leaky bucket state: id %d not found", id);
        return leaky_bucket_not_found;
    }
    return state_of(bucket);
}

leaky_bucket_state leaky_bucket_update(int32_t id, int32_t delta)
{
    leaky_bucket_data *bucket = leaky_bucket_find(id);

    if (bucket == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "Cannot update leaky bucket: id %d not found", id);
        return leaky_bucket_not_found;
    }

    /* The upper limit is tested first. A level of exactly 0 does not count as emptied: it is a
       level like any other below the filter level. */
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
    return emptied ? leaky_bucket_emptied : state_of(bucket);
}

leaky_bucket_data *leaky_bucket_find(int32_t id)
{
    return id >= 1 && id <= table_size ? buckets[id - 1] : nullptr;
}
