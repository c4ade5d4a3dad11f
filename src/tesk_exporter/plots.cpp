/* SPDX-License-Identifier: Apache-2.0 */
/* A slot's number is the time divided by the slot's length; modulo the ring's size it is the slot's
   place in the ring. Slots without a reading are emptied when the next value is added. */
#include "tesk_exporter/plots.h"

#include "program/units.h"

#include <algorithm>
#include <cmath>

namespace exporter
{

static constexpr plots::slot empty_slot = {plots::absent, plots::absent, plots::absent,
                                           plots::absent, plots::absent};
static constexpr plots::range empty_range = {empty_slot, empty_slot};

static int16_t store(bool has, double value)
{
    if (!has)
        return plots::absent;
    return static_cast<int16_t>(std::lround(std::clamp(value, -32767.0, 32767.0)));
}

/* A power without light has no logarithm and is stored as absent. */
static int16_t store_power(bool has, uint32_t microwatts)
{
    const auto dbm = has ? to_dbm(microwatts) : std::nullopt;
    return store(dbm.has_value(), 100 * dbm.value_or(0));
}

static plots::slot stored(const tesk_client_pm &pm)
{
    return {store_power(pm.has_tx_power, pm.tx_power), store_power(pm.has_rx_power, pm.rx_power),
            store(pm.has_temperature, pm.temperature), store(pm.has_voltage, pm.voltage / 10.0),
            store(pm.has_tx_bias, pm.tx_bias)};
}

/* Empties the slots between the newest one and slot `number`, which becomes the newest. */
template <typename ring_type, typename slot_type>
static void advance_ring(ring_type &ring, uint64_t &end, uint64_t number, const slot_type &empty)
{
    const uint64_t passed = std::min<uint64_t>(number - end, ring.size());
    for (uint64_t i = 0; i < passed; i++)
        ring[(number - i) % ring.size()] = empty;
    end = number;
}

void plots::advance(uint64_t now_s)
{
    const uint64_t hour_number = now_s / hour_step_s, day_number = now_s / day_step_s;
    if (!rings_) {
        rings_ = std::make_unique<rings>();
        rings_->hour.fill(empty_slot);
        rings_->day.fill(empty_range);
        rings_->hour_end = hour_number;
        rings_->day_end = day_number;
    }
    advance_ring(rings_->hour, rings_->hour_end, hour_number, empty_slot);
    advance_ring(rings_->day, rings_->day_end, day_number, empty_range);
}

void plots::add(const tesk_client_pm &pm, uint64_t now_s)
{
    advance(now_s);
    const slot values = stored(pm);
    rings_->hour[rings_->hour_end % hour_slots] = values;
    range &day = rings_->day[rings_->day_end % day_slots];
    for (size_t i = 0; i < plotted_values; i++) {
        if (values[i] == absent)
            continue;
        const bool is_first = day.least[i] == absent;
        day.least[i] = is_first ? values[i] : std::min(day.least[i], values[i]);
        day.greatest[i] = is_first ? values[i] : std::max(day.greatest[i], values[i]);
    }
}

/* The slot with this number; `empty` if the ring doesn't contain it. */
template <typename ring_type, typename slot_type>
static slot_type slot_at(const ring_type &ring, uint64_t end, uint64_t number, size_t age,
                         const slot_type &empty)
{
    if (age > number || number - age > end || number - age + ring.size() <= end)
        return empty;
    return ring[(number - age) % ring.size()];
}

plots::slot plots::hour(uint64_t now_s, size_t age) const
{
    return rings_ ? slot_at(rings_->hour, rings_->hour_end, now_s / hour_step_s, age, empty_slot)
                  : empty_slot;
}

plots::range plots::day(uint64_t now_s, size_t age) const
{
    return rings_ ? slot_at(rings_->day, rings_->day_end, now_s / day_step_s, age, empty_range)
                  : empty_range;
}

double plots::in_unit(plotted value, int16_t stored)
{
    static constexpr double divisors[plotted_values] = {100, 100, 10, 1000, 100};
    return stored / divisors[value];
}

} // namespace exporter
