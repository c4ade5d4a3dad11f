/* SPDX-License-Identifier: Apache-2.0 */
/* A measured value counts as moved from a certain distance on: a ratio for powers and bias, a
   difference for other values. */
#include "program/moved_values.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

/* 10^0.1: 1 dB is this ratio, or a little more. */
static constexpr double one_decibel = 1.2589254117941673;

/* A power of 0 means less than 1 uW, the smallest power in the protocol. */
static bool has_power_moved(uint32_t graded, uint32_t now)
{
    const auto [least, most] = std::minmax({std::max(graded, 1U), std::max(now, 1U)});
    return most >= one_decibel * least;
}

static bool has_share_moved(uint32_t graded, uint32_t now, uint32_t percent)
{
    const int64_t moved = std::abs(int64_t{now} - graded);
    return moved != 0 && moved * 100 >= int64_t{graded} * percent;
}

bool has_moved(const tesk_client_pm &graded, const tesk_client_pm &now,
               tesk_client_measurement measurement)
{
    switch (measurement) {
    case TESK_CLIENT_TX_POWER:
        return now.has_tx_power != graded.has_tx_power ||
               has_power_moved(graded.tx_power, now.tx_power);
    case TESK_CLIENT_RX_POWER:
        return now.has_rx_power != graded.has_rx_power ||
               has_power_moved(graded.rx_power, now.rx_power);
    case TESK_CLIENT_TEMPERATURE:
        return now.has_temperature != graded.has_temperature ||
               std::abs(int64_t{now.temperature} - graded.temperature) >= 50;
    case TESK_CLIENT_VCC:
        return now.has_voltage != graded.has_voltage ||
               has_share_moved(graded.voltage, now.voltage, 2);
    case TESK_CLIENT_TX_BIAS:
        return now.has_tx_bias != graded.has_tx_bias ||
               has_share_moved(graded.tx_bias, now.tx_bias, 10);
    default:
        return false; /* it has a level, but no value */
    }
}

bool has_moved(const tesk_client_pm &graded, const tesk_client_pm &now)
{
    for (uint32_t i = 0; i < TESK_CLIENT_MEASUREMENTS; i++)
        if (has_moved(graded, now, static_cast<tesk_client_measurement>(i)))
            return true;
    return false;
}
