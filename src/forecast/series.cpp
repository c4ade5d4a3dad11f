/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: add() for each reading, with the search for a step; close() for each block, which
   learns the slope and the noise. */
#include "forecast/series.h"

#include <algorithm>

namespace forecast
{

double middle(std::span<float> values)
{
    std::sort(values.begin(), values.end());
    const size_t cut = values.size() / 4;
    double sum = 0;
    for (size_t i = cut; i < values.size() - cut; i++)
        sum += values[i];
    return sum / static_cast<double>(values.size() - 2 * cut);
}

/* The mean of the middle two of an even number of values. Two wrong values of six don't move this
   median far. */
static double median(std::span<float> values)
{
    std::sort(values.begin(), values.end());
    return (values[values.size() / 2 - 1] + values[values.size() / 2]) / 2;
}

void block_ring::put(int64_t block, float level)
{
    int16_t &kept = kept_[static_cast<size_t>(block % kept_blocks)];
    kept = std::isnan(level) ? missing
                             : static_cast<int16_t>(std::clamp(std::round(level / resolution_),
                                                               -32767.0F, 32767.0F));
}

/* Temperatures are counted from 40 degrees, a usual temperature of modules: the square is then
   nearly independent of the linear part. */
static constexpr double usual_temperature = 40;

static double square_of(double temperature)
{
    return (temperature - usual_temperature) * (temperature - usual_temperature);
}

void temperature_slope::learn(double level, double warmth, double square)
{
    /* A module's slope stays the same, but air and load change: half a year of memory would fit the
       module, six weeks also follow a change of the far end. */
    constexpr double keep = 1 - 1.0 / (42 * blocks_a_day);
    /* The residual is limited to three times its usual size, so that weather doesn't increase the
       estimate. */
    const double rest = std::fabs(level - slope_ * warmth - curve_ * square);
    scale_ += (1.25 * std::min(rest, 3 * scale_) - scale_) / 32;
    scale_ = std::max(scale_, rules_->least_noise / 10);
    /* Huber's weight: beyond 1.5 deviations a value counts by its distance instead of its
       square. */
    const double weight = rest > 1.5 * scale_ ? 1.5 * scale_ / rest : 1;
    for (double *sum : {&ww_, &ws_, &ss_, &wl_, &sl_})
        *sum *= keep;
    ww_ += weight * warmth * warmth;
    ws_ += weight * warmth * square;
    ss_ += weight * square * square;
    wl_ += weight * warmth * level;
    sl_ += weight * square * level;
    solve();
}

void temperature_slope::solve()
{
    if (rules_->slope_sd <= 0)
        return;
    /* Neighbouring blocks are correlated: eight blocks count as two or three. */
    constexpr double alike = 3;
    const double variance = scale_ * scale_ * alike;
    const double a = ww_ / variance + 1 / (rules_->slope_sd * rules_->slope_sd);
    const double b = ws_ / variance;
    const double d = ss_ / variance + 1 / (rules_->curve_sd * rules_->curve_sd);
    const double p = wl_ / variance + rules_->slope / (rules_->slope_sd * rules_->slope_sd);
    const double q = sl_ / variance;
    const double det = a * d - b * b;
    slope_ = static_cast<float>((p * d - q * b) / det);
    curve_ = static_cast<float>((q * a - p * b) / det);
    var_slope_ = static_cast<float>(d / det);
    var_curve_ = static_cast<float>(a / det);
    var_both_ = static_cast<float>(-b / det);
    /* A daily rhythm of the far end at the same hours isn't the module's slope. */
    const double most = 3 * rules_->slope_sd;
    slope_ =
        static_cast<float>(std::clamp<double>(slope_, rules_->slope - most, rules_->slope + most));
}

double temperature_slope::effect(double from, double to) const
{
    if (std::isnan(from) || std::isnan(to))
        return 0;
    return slope_ * (to - from) + curve_ * (square_of(to) - square_of(from));
}

double temperature_slope::doubt(double from, double to) const
{
    /* If the temperature isn't known, it may be some degrees off. */
    constexpr double unknown = 4;
    if (std::isnan(from) || std::isnan(to))
        return unknown * (std::fabs(rules_->slope) + rules_->slope_sd);
    const double w = to - from, s = square_of(to) - square_of(from);
    /* The light follows the sensor by hours, so the slope within a day differs from that of a
       season: a sixth of the slope counts as uncertain, however long it was learnt. */
    const double misfit = w * slope_ / 6;
    return std::sqrt(
        std::max(0.0, w * w * var_slope_ + 2 * w * s * var_both_ + s * s * var_curve_) +
        misfit * misfit);
}

series::series(quantity value)
    : value_(value), noise_(rules_of(value).noise * rules_of(value).noise),
      row_noise_(static_cast<float>(rules_of(value).noise)), slope_(rules_of(value)),
      blocks_(rules_of(value).resolution)
{
    slope_.solve();
}

void series::restart(int64_t block)
{
    *this = series(value_);
    first_ = block;
}

double series::quantum() const
{
    if (std::isnan(quantum_) || std::isnan(last_measured_))
        return 0;
    const double size =
        std::fabs(level_of(value_, last_measured_ + quantum_) - level_of(value_, last_measured_));
    return std::isnan(size) ? 0 : size;
}

void series::remember_excursion(double found)
{
    constexpr double keep = 1 - 1.0 / (60 * blocks_a_day);
    excursion_ = static_cast<float>(std::max(excursion_ * keep, found));
}

std::optional<double> series::add(int64_t seconds, double measured, double temperature,
                                  double expected)
{
    const auto level = static_cast<float>(level_of(value_, measured));
    if (std::isnan(level))
        return std::nullopt;
    if (since_event_ < UINT16_MAX)
        since_event_++;
    const float moved = std::fabs(static_cast<float>(measured) - last_measured_);
    if (moved > 1e-6F && !(moved >= quantum_))
        quantum_ = moved;
    last_measured_ = static_cast<float>(measured);
    if (recents_ > 0) {
        const float change = std::fabs(level - recent_[recents_ - 1U].level);
        row_noise_ += (std::min(0.886F * change, 4 * row_noise_) - row_noise_) / 200;
    }
    if (recents_ == 2 * half) {
        std::copy(recent_.begin() + 1, recent_.end(), recent_.begin());
        recents_--;
    }
    recent_[recents_++] = {level, static_cast<float>(temperature), static_cast<uint32_t>(seconds)};
    if (rows_ < rows_a_block)
        row_[rows_++] = level;
    double change = 0;
    if (!find_step(expected, change))
        return std::nullopt;
    /* Only the readings after the step belong to the new series. */
    first_ = seconds / block_seconds;
    rows_ = 0;
    for (int i = 0; i < half; i++) {
        recent_[static_cast<size_t>(i)] = recent_[static_cast<size_t>(i) + half];
        row_[rows_++] = recent_[static_cast<size_t>(i)].level;
    }
    recents_ = half;
    since_event_ = UINT16_MAX;
    return change;
}

/* A step happens between two readings, a fade doesn't: the half hours on both sides are
   compared. */
bool series::find_step(double expected, double &change) const
{
    const rules &known = rules_of(value_);
    if (known.step <= 0 || recents_ < 2 * half)
        return false;
    std::array<float, half> level[2], warmth[2];
    for (size_t i = 0; i < half; i++) {
        level[0][i] = recent_[i].level;
        level[1][i] = recent_[i + half].level;
        warmth[0][i] = recent_[i].temperature;
        warmth[1][i] = recent_[i + half].temperature;
    }
    const double before = median(level[0]), after = median(level[1]);
    /* If temperatures are missing, this isn't a number and has no effect. */
    const double cold = median(warmth[0]), warm = median(warmth[1]);
    /* The time between the middles of both halves, even if one of them spans a gap. */
    constexpr size_t centre = half / 2;
    const double days = (recent_[half + centre].seconds - recent_[centre].seconds +
                         recent_[half + centre - 1].seconds - recent_[centre - 1].seconds) /
                        (2 * 86400.0);
    change = after - before - slope_.effect(cold, warm);
    /* During a gap only a known fade can have continued; between dense readings, the fastest
       possible fade. Both with a margin for a fade that becomes faster. */
    const double faded = days > 0.3 ? std::max(0.0, 4 * expected * days)
                                    : std::max(known.fastest, 1.5 * expected) * days;
    const double least = since_event_ <= half + 1 ? known.step / 2 : known.step;
    const double room = std::max(least, 1.5 * quantum()) + 5 * row_noise_ / std::sqrt(half / 2.0) +
                        2 * slope_.doubt(cold, warm);
    if (change < 0 ? -change <= room + faded : change <= room)
        return false;
    /* While the step is in the middle of a half, its size isn't known: each half must have one
       level, except for one reading at each end. */
    const auto width = [](const std::array<float, half> &sorted) {
        return sorted[half - 2] - sorted[1];
    };
    return std::max(width(level[0]), width(level[1])) < 0.6 * std::fabs(change);
}

void series::close(int64_t block, const block_ring &temperatures)
{
    blocks_.put(block, rows_ >= 2 ? static_cast<float>(middle({row_.data(), rows_})) : none);
    rows_ = 0;
    first_ = std::max(first_, block - kept_blocks + 1);
    learn_slope(block, temperatures);
    learn_noise(block, temperatures);
}

void series::learn_slope(int64_t block, const block_ring &temperatures)
{
    if (block - blocks_a_day < first_)
        return;
    double level = 0, warmth = 0, square = 0;
    for (int i = 0; i <= blocks_a_day; i++) {
        const double share = (i == 0 || i == blocks_a_day ? 0.5 : 1) / blocks_a_day;
        const double found = -temperatures.at(block - i);
        level += share * blocks_.at(block - i);
        warmth += share * found;
        square += share * square_of(found);
    }
    const int64_t centre = block - blocks_a_day / 2;
    const double found = -temperatures.at(centre);
    level = blocks_.at(centre) - level;
    if (std::isfinite(level) && std::isfinite(warmth))
        slope_.learn(level, found - warmth, square_of(found) - square);
}

/* Uses second differences of three days, in which a straight fade vanishes. */
void series::learn_noise(int64_t block, const block_ring &temperatures)
{
    if (block % blocks_a_day != blocks_a_day - 1 || block - int64_t{3} * blocks_a_day < first_)
        return;
    const day today = day_of(*this, temperatures, block, none);
    const double bend =
        today.corrected -
        2 * day_of(*this, temperatures, block - blocks_a_day, today.temperature).corrected +
        day_of(*this, temperatures, block - int64_t{2} * blocks_a_day, today.temperature).corrected;
    if (std::isnan(bend))
        return;
    /* Limited, so that one day of weather doesn't make the detector blind for weeks. */
    const double least = rules_of(value_).least_noise;
    noise_ += (std::min(bend * bend / 2, 9 * noise_) - noise_) / 20;
    noise_ = std::max(noise_, least * least);
}

day day_of(const series &of, const block_ring &temperatures, int64_t last, double reference)
{
    std::array<float, blocks_a_day> level, corrected, warmth;
    size_t count = 0, warm = 0;
    for (int64_t block = std::max(last - blocks_a_day + 1, of.first()); block <= last; block++) {
        const float found = of.blocks().at(block);
        if (std::isnan(found))
            continue;
        const float temperature = -temperatures.at(block);
        level[count] = found;
        corrected[count++] = found - static_cast<float>(of.slope().effect(reference, temperature));
        if (!std::isnan(temperature))
            warmth[warm++] = temperature;
    }
    /* A quarter of a day doesn't represent a day that has a rhythm; two blocks are enough if values
       rarely change. */
    if (count < 2)
        return {none, none, none, none, none};
    const auto most = std::minmax_element(corrected.begin(), corrected.begin() + count);
    const float spread = *most.second - *most.first;
    const float lowest = *std::min_element(level.begin(), level.begin() + count);
    return {static_cast<float>(middle({level.data(), count})),
            static_cast<float>(middle({corrected.data(), count})),
            warm > 0 ? static_cast<float>(middle({warmth.data(), warm})) : none, lowest, spread};
}

} // namespace forecast
