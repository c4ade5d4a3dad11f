#include "leaky_bucket.h"

#include "tesk_trace.h"

#include <cstdlib>

/* Sorted by ascending id, so that the lowest free id is the first gap. */
static leaky_bucket_data *bucket_head;

static leaky_bucket_state state_of(const leaky_bucket_data *bucket)
{
    return bucket->level < bucket->filter_level ? LEAKY_BUCKET_BELOW_LEVEL
                                                : LEAKY_BUCKET_LEVEL_REACHED;
}

static void leaky_bucket_insert(leaky_bucket_data *bucket)
{
    leaky_bucket_data **link = &bucket_head;

    bucket->id = 1;
    while (*link != nullptr && (*link)->id == bucket->id) {
        bucket->id++;
        link = &(*link)->next;
    }
    bucket->next = *link;
    bucket->prev_link = link;
    if (bucket->next != nullptr)
        bucket->next->prev_link = &bucket->next;
    *link = bucket;
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
    *bucket->prev_link = bucket->next;
    if (bucket->next != nullptr)
        bucket->next->prev_link = bucket->prev_link;
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
    leaky_bucket_data *bucket = bucket_head;

    while (bucket != nullptr && bucket->id != id)
        bucket = bucket->next;
    return bucket;
}
