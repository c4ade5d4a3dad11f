/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: feed() selects the usable readings, ends blocks, and passes each series to its
   alarm. */
#include "forecast/alarm.h"
#include "forecast/believed_time.h"
#include "forecast/forecast.h"
#include "forecast/series.h"

#include <algorithm>
#include <cstring>

namespace forecast
{

/* A series and its alarm exist once the quantity was measured. */
struct tracked {
    tracked(quantity value, int lane, const std::optional<limits> &own)
        : values(value), notices(value, lane, own)
    {
    }
    series values;
    alarm notices;
};

class port_state
{
  public:
    void set_limits(quantity value, const limits &own)
    {
        limits_[static_cast<size_t>(value)] = own;
        for (auto &each : tracked_)
            if (each && each->values.value() == value)
                each->notices.set_limits(own);
    }

    void feed(const reading &next, std::vector<report> &reports)
    {
        constexpr int64_t end_of_time = 1'000'000'000'000;
        if (next.time < 0 || next.time > end_of_time)
            return;
        const auto now = clock_.accept(next.time);
        if (!now || (last_row_ >= 0 && *now - last_row_ < closest))
            return;
        if (last_row_ >= 0 && *now - last_row_ > 3 * usual_step)
            note_event();
        last_row_ = *now;
        const int64_t block = *now / block_seconds;
        if (block > block_)
            close_blocks(block, next, reports);
        if (!next.has_module) {
            note_event();
            return;
        }
        if (!next.serial.empty())
            follow(next.serial, block, next.time, reports);
        take(next, *now, reports);
    }

    std::vector<report> standing() const
    {
        std::vector<report> found;
        for (const auto &each : tracked_)
            if (auto told = each ? each->notices.standing() : std::nullopt)
                found.push_back(std::move(*told));
        return found;
    }

  private:
    static constexpr size_t per_lane = 4, most_lanes = 64;
    static constexpr int64_t closest = 240;
    static constexpr int64_t usual_step = 300;

    void note_event()
    {
        for (auto &each : tracked_)
            if (each)
                each->values.note_event();
    }

    /* Another serial number is another module: all its series begin again. */
    void follow(std::string_view serial, int64_t block, int64_t time, std::vector<report> &reports)
    {
        if (!serial_.empty() && serial != serial_)
            for (auto &each : tracked_)
                if (each) {
                    each->values.restart(block);
                    each->notices.withdraw(time, "The module was replaced.", reports);
                    each->notices.forget();
                }
        serial_ = serial.substr(0, 64);
    }

    void close_blocks(int64_t block, const reading &next, std::vector<report> &reports)
    {
        const int64_t ended = block_;
        const int64_t first = std::max(ended, block - kept_blocks);
        for (int64_t each = first; each < block; each++)
            for (auto &of : tracked_)
                if (of)
                    of->values.close(each, temperatures());
        block_ = block;
        if (first != ended || (next.is_past && ended % blocks_a_day != 0))
            return;
        for (auto &of : tracked_)
            if (of)
                of->notices.evaluate(of->values, temperatures(), ended, next.time, reports);
    }

    const block_ring &temperatures() const
    {
        static const block_ring unknown(1);
        return tracked_[0] ? tracked_[0]->values.blocks() : unknown;
    }

    void take(const reading &next, int64_t now, std::vector<report> &reports)
    {
        if (is_stuck(next))
            return;
        if (!next.has_link)
            note_event();
        one(0, 0, quantity::temperature, next.temperature_c, next, now, reports);
        const size_t count = std::min(most_lanes, next.lanes.size());
        tracked_.resize(std::max(tracked_.size(), 1 + count * per_lane));
        for (size_t i = 0; i < count && next.has_link; i++) {
            const lane_reading &lane = next.lanes[i];
            const int number = static_cast<int>(i) + 1;
            const size_t at = 1 + i * per_lane;
            one(at, number, quantity::rx_power, lane.rx_uw, next, now, reports);
            one(at + 1, number, quantity::tx_power, lane.tx_uw, next, now, reports);
            one(at + 2, number, quantity::bias, lane.bias_ma, next, now, reports);
            one(at + 3, number, quantity::error_ratio, lane.error_ratio, next, now, reports);
        }
    }

    void one(size_t at, int lane, quantity value, double measured, const reading &next, int64_t now,
             std::vector<report> &reports)
    {
        auto &of = tracked_[at];
        if (!of) {
            if (std::isnan(level_of(value, measured)))
                return;
            of = std::make_unique<tracked>(value, lane, limits_[static_cast<size_t>(value)]);
            of->values.restart(now / block_seconds);
        }
        const auto change = of->values.add(now, measured, next.temperature_c, of->notices.pace());
        if (change)
            of->notices.note_step(*change, next.time, reports);
    }

    /* A module or driver that repeats all its values isn't measuring. If any value has noise, an
       hour of equal values can't be chance; if all steps are coarse, the hour is still used. */
    bool is_stuck(const reading &next)
    {
        constexpr int longest = 12;
        uint64_t mix = 1469598103934665603U;
        const auto add = [&mix](double value) {
            uint64_t bits = 0;
            std::memcpy(&bits, &value, sizeof(bits));
            mix = (mix ^ bits) * 1099511628211U;
            mix ^= mix >> 29;
        };
        add(next.temperature_c);
        add(next.voltage_v);
        for (const lane_reading &lane : next.lanes) {
            if (next.has_link)
                add(lane.rx_uw);
            add(lane.tx_uw);
            add(lane.bias_ma);
            add(lane.error_ratio);
        }
        repeats_ = mix == last_mix_ ? std::min(repeats_ + 1, longest + 1) : 0;
        last_mix_ = mix;
        return repeats_ >= longest;
    }

    believed_time clock_;
    int64_t last_row_ = -1, block_ = 0;
    std::string serial_;
    uint64_t last_mix_ = 0;
    int repeats_ = 0;
    std::array<std::optional<limits>, quantities> limits_;
    /* First the module's temperature, then the values of each lane. */
    std::vector<std::unique_ptr<tracked>> tracked_{1};
};

port::port() : state_(std::make_unique<port_state>())
{
}
port::port(port &&) noexcept = default;
port::~port() = default;

void port::set_limits(quantity value, const limits &own)
{
    state_->set_limits(value, own);
}

void port::feed(const reading &next, std::vector<report> &reports)
{
    state_->feed(next, reports);
}

std::vector<report> port::standing() const
{
    return state_->standing();
}

} // namespace forecast
