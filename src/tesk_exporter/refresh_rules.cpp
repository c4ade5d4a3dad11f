/* SPDX-License-Identifier: Apache-2.0 */
#include "tesk_exporter/refresh_rules.h"

#include <cmath>
#include <cstdlib>

namespace exporter
{

/* 10^0.1: 1 dB is at least this ratio. */
static constexpr double one_decibel = 1.2589254117941673;

static bool has_power_moved(uint32_t graded, uint32_t now)
{
    if (graded == 0 || now == 0)
        return graded != now;
    const double ratio = static_cast<double>(now) / graded;
    return ratio >= one_decibel || 1 / ratio >= one_decibel;
}

static bool has_share_moved(uint32_t graded, uint32_t now, uint32_t percent)
{
    const int64_t moved = std::abs(static_cast<int64_t>(now) - graded);
    return moved != 0 && moved * 100 >= static_cast<int64_t>(graded) * percent;
}

bool has_moved(const tesk_client_pm &graded, const tesk_client_pm &now)
{
    const bool is_same_set =
        graded.has_tx_power == now.has_tx_power && graded.has_rx_power == now.has_rx_power &&
        graded.has_temperature == now.has_temperature && graded.has_voltage == now.has_voltage &&
        graded.has_tx_bias == now.has_tx_bias;
    /* Absent values are 0 on both sides. */
    return !is_same_set || has_power_moved(graded.tx_power, now.tx_power) ||
           has_power_moved(graded.rx_power, now.rx_power) ||
           std::abs(int64_t{now.temperature} - graded.temperature) >= 50 ||
           has_share_moved(graded.voltage, now.voltage, 2) ||
           has_share_moved(graded.tx_bias, now.tx_bias, 10);
}

} // namespace exporter
