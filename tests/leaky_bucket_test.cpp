/* SPDX-License-Identifier: Apache-2.0 */
/* The meters: ids, arithmetic, limits. */
#include "tesk_server/leaky_bucket.h"
#include "testkit/fake_platform/fake_platform.h"

#include <gtest/gtest.h>
#include <random>
#include <set>

struct leaky_bucket : testing::Test {
    leaky_bucket()
    {
        fake_platform::reset();
        leaky_bucket_init();
    }
    ~leaky_bucket() override
    {
        leaky_bucket_shutdown();
    }
};

TEST_F(leaky_bucket, gives_the_lowest_free_id_whatever_was_removed)
{
    std::mt19937 random(1);
    std::set<int32_t> held;

    for (int step = 0; step < 3000; step++) {
        if (held.size() < 40 && random() % 2 == 0) {
            int32_t lowest = 1;
            while (held.count(lowest) != 0)
                lowest++;
            ASSERT_EQ(leaky_bucket_add(100, 50), lowest);
            held.insert(lowest);
        } else {
            const auto id = static_cast<int32_t>(1 + random() % 45);
            leaky_bucket_remove(id);
            held.erase(id);
        }
        const auto probe = static_cast<int32_t>(1 + random() % 45);
        ASSERT_EQ(leaky_bucket_find(probe) != nullptr, held.count(probe) != 0);
    }
}

TEST_F(leaky_bucket, traces_sizes_that_cannot_work_and_ids_that_it_does_not_have)
{
    fake_platform::reset({1});
    std::vector<std::string> expected;
    for (const auto &[size, level] : {std::pair{0, 50}, {0, -1}, {100, 0}, {49, 50}}) {
        EXPECT_EQ(leaky_bucket_add(size, level), -1);
        expected.push_back("[1] Invalid params for adding new leaky bucket: bucket_size = " +
                           std::to_string(size) + ", filter_level = " + std::to_string(level));
    }
    EXPECT_EQ(leaky_bucket_update(7, 20), LEAKY_BUCKET_NOT_FOUND);
    EXPECT_EQ(leaky_bucket_get_state(7), LEAKY_BUCKET_NOT_FOUND);
    leaky_bucket_remove(7);
    EXPECT_EQ(leaky_bucket_find(7), nullptr);
    for (const char *act : {"update leaky bucket", "get leaky bucket state", "remove leaky bucket"})
        expected.push_back("[1] Cannot " + std::string(act) + ": id 7 not found");
    EXPECT_EQ(fake_platform::take_log(), expected);
}

TEST_F(leaky_bucket, keeps_its_level_within_limits_and_returns_the_state)
{
    static const struct {
        int32_t delta, level;
        leaky_bucket_state state;
    } steps[] = {{20, 20, LEAKY_BUCKET_BELOW_LEVEL},    {29, 49, LEAKY_BUCKET_BELOW_LEVEL},
                 {1, 50, LEAKY_BUCKET_LEVEL_REACHED},   {50, 100, LEAKY_BUCKET_LEVEL_REACHED},
                 {20, 100, LEAKY_BUCKET_LEVEL_REACHED}, {-60, 40, LEAKY_BUCKET_BELOW_LEVEL},
                 {-40, 0, LEAKY_BUCKET_BELOW_LEVEL},    {-10, 0, LEAKY_BUCKET_EMPTIED},
                 {-1, 0, LEAKY_BUCKET_EMPTIED}};
    ASSERT_EQ(leaky_bucket_add(100, 50), 1);
    fake_platform::reset({13});
    for (const auto &step : steps) {
        EXPECT_EQ(leaky_bucket_update(1, step.delta), step.state);
        EXPECT_EQ(leaky_bucket_find(1)->level, step.level);
        EXPECT_EQ(fake_platform::take_log().back(),
                  "[13] Bucket(1) level-> " + std::to_string(step.level));
    }
}

TEST_F(leaky_bucket, is_reinserted_under_its_id_and_with_its_level)
{
    for (int32_t id = 1; id <= 3; id++)
        ASSERT_EQ(leaky_bucket_add(100 + id, 50), id);
    leaky_bucket_update(2, 70);
    leaky_bucket_data *bucket = leaky_bucket_take_out(2);
    EXPECT_EQ(leaky_bucket_find(2), nullptr);
    leaky_bucket_reinsert(bucket);
    EXPECT_EQ(leaky_bucket_find(2), bucket);
    EXPECT_EQ(bucket->level, 70);
    EXPECT_EQ(bucket->bucket_size, 102);
    EXPECT_EQ(leaky_bucket_add(100, 50), 4);
    /* With equal limits any level below the full one is below the filter level. */
    const int32_t equal = leaky_bucket_add(30, 30);
    for (const auto &[delta, state] :
         {std::pair{29, LEAKY_BUCKET_BELOW_LEVEL}, {1, LEAKY_BUCKET_LEVEL_REACHED}}) {
        EXPECT_EQ(leaky_bucket_update(equal, delta), state);
        EXPECT_EQ(leaky_bucket_get_state(equal), state);
    }
}
