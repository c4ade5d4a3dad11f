/* SPDX-License-Identifier: Apache-2.0 */
/* leaky_bucket - integer meters with a filter level. A bucket reads no clock and knows no port:
   rise, fall and the tick are its user's. Main thread only. */
#pragma once

#include <cstdint>

enum leaky_bucket_state : uint32_t {
    LEAKY_BUCKET_BELOW_LEVEL = 0,
    LEAKY_BUCKET_LEVEL_REACHED = 1, /* level at or above the filter level */
    LEAKY_BUCKET_EMPTIED = 2,       /* an update would have gone below 0 */
    LEAKY_BUCKET_NOT_FOUND = 3,
};

struct leaky_bucket_data {
    int32_t id;
    int32_t bucket_size;
    int32_t filter_level;
    int32_t level; /* 0 to bucket_size */
    leaky_bucket_data *next;
    leaky_bucket_data **prev_link;
};

/* Makes an empty bucket. Returns its id (at least 1, the lowest free one), or -1 when the sizes are
   invalid or memory is out; both are traced. */
int32_t leaky_bucket_add(int32_t bucket_size, int32_t filter_level);

/* Frees the bucket; an unknown id is traced. */
void leaky_bucket_remove(int32_t id);

/* Below or reached, without a change; LEAKY_BUCKET_NOT_FOUND is traced. */
leaky_bucket_state leaky_bucket_get_state(int32_t id);

/* Adds `delta` to the level, keeps it within 0 and the size, and gives the state after it. */
leaky_bucket_state leaky_bucket_update(int32_t id, int32_t delta);

/* The bucket itself, good until it is removed, or null without a trace. */
leaky_bucket_data *leaky_bucket_find(int32_t id);
