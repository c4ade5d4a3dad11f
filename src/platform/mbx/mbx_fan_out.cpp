/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_fan_out.h"

#include <ctime>
#include <utility>

static constexpr uint32_t left_out_later = 3;
static constexpr uint32_t long_fan_out = 32;
static constexpr int64_t longest_pause_ms = 20;

static int64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* The clock is read only when a run is long enough to matter. */
bool fan_out::includes(uint32_t &met)
{
    if (met == number_)
        end();
    met = number_;
    count_++;
    if (count_ < left_out_)
        return false;
    const int64_t before = std::exchange(last_ms_, now_ms());
    if (count_ == left_out_)
        return false;
    if (last_ms_ - before > longest_pause_ms)
        end();
    return count_ > 0;
}

/* A run of two predicts nothing. */
void fan_out::end()
{
    if (count_ > 2)
        left_out_ = count_ > long_fan_out ? left_out_later : left_out_at_first;
    number_++;
    count_ = 0;
}
