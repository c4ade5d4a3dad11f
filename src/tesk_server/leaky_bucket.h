/* SPDX-License-Identifier: Apache-2.0 */
/* leaky_bucket - integer meters with a filter level. A bucket reads no clock and knows no port: its
   user adds to the level, subtracts from it, and requests the ticks. Main thread only.

   Exhausted memory: leaky_bucket_add traces it and returns -1; nothing else depends on memory. */
#pragma once

#include <cstdint>

enum leaky_bucket_state : uint32_t {
    leaky_bucket_below_level = 0,
    leaky_bucket_level_reached = 1, /* level at or above the filter level */
    leaky_bucket_emptied = 2,       /* an update would have gone below 0 */
    leaky_bucket_not_found = 3,
};

struct leaky_bucket_data {
    int32_t id;
    int32_t bucket_size;
    int32_t filter_level;
    int32_t level; /* 0 to bucket_size */
};

/* Reserves room for the first buckets. If memory is exhausted, leaky_bucket_add tries again. */
void leaky_bucket_init();

/* Frees all buckets, without traces. Harmless if leaky_bucket_init never ran. */
void leaky_bucket_shutdown();

/* Creates an empty bucket. Returns its id (at least 1, the lowest free one), or -1 when the sizes
   are invalid or memory is exhausted; both are traced. */
int32_t leaky_bucket_add(int32_t bucket_size, int32_t filter_level);

/* Frees the bucket; an unknown id is traced. */
void leaky_bucket_remove(int32_t id);

/* Removes the bucket without freeing it: the caller owns the returned record and passes it either
   to leaky_bucket_reinsert or to free. Null, with a trace, for an unknown id. */
leaky_bucket_data *leaky_bucket_take_out(int32_t id);

/* Puts a bucket back that leaky_bucket_take_out() removed, with its id and level. No bucket must
   have been added in between. */
void leaky_bucket_reinsert(leaky_bucket_data *bucket);

/* The state of the level, unchanged; leaky_bucket_not_found is traced. */
leaky_bucket_state leaky_bucket_get_state(int32_t id);

/* Adds `delta` to the level, limits it to the range from 0 to the bucket's size, and returns the
   resulting state; leaky_bucket_not_found is traced. */
leaky_bucket_state leaky_bucket_update(int32_t id, int32_t delta);

/* The bucket itself, valid until it is removed, or null without a trace. */
leaky_bucket_data *leaky_bucket_find(int32_t id);
