/* SPDX-License-Identifier: Apache-2.0 */
/* Places are entries of a hash table that only grows. An entry is claimed by its key, and gets its
   name a moment later; until then, and if the table is full, traces of the place use a spare entry:
   one for errors, one for all others.

   A second and a count, or a second and a hash, share one atomic word: they change together. */
#include "platform/zel/zel_limit.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

static constexpr size_t max_places = 512;
static constexpr uint32_t repeat_seconds = 10;
static constexpr uint32_t shares_per_place = 10;

static uint32_t share;
static std::array<zel_place, max_places> places;
static std::array<zel_place, 2> spare_places;
static std::atomic<uint64_t> errors_written;
static std::atomic<uint64_t> others_written;
static std::atomic<uint32_t> last_sweep;
static std::atomic<bool> has_counts;

static uint32_t now_s()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

static uint64_t pack(uint32_t second, uint32_t value)
{
    return uint64_t{second} << 32 | value;
}

static uint32_t second_of(uint64_t packed)
{
    return static_cast<uint32_t>(packed >> 32);
}

static uint64_t hash(std::string_view text, uint64_t seed)
{
    /* FNV-1a. */
    uint64_t value = 14695981039346656037u ^ seed;
    for (const char byte : text)
        value = (value ^ static_cast<unsigned char>(byte)) * 1099511628211u;
    return value;
}

/* False if the share of this second is used up. */
static bool take_share(std::atomic<uint64_t> &written, uint32_t second, uint32_t limit)
{
    uint64_t seen = written.load(std::memory_order_relaxed);
    while (true) {
        const uint32_t count = second_of(seen) == second ? static_cast<uint32_t>(seen) : 0;
        if (count >= limit)
            return false;
        if (written.compare_exchange_weak(seen, pack(second, count + 1), std::memory_order_relaxed))
            return true;
    }
}

static void name_place(zel_place &place, const zel_record &record)
{
    snprintf(place.file, sizeof(place.file), "%s", record.file);
    place.line = record.line;
    place.group = record.group;
    place.has_name.store(true, std::memory_order_release);
}

static zel_place &find_place(const zel_record &record)
{
    zel_place &spare_place = spare_places[record.group == 1];
    const uint64_t key = hash(record.file, record.line) | 1;
    for (size_t probe = 0; probe < max_places; ++probe) {
        zel_place &place = places[(key + probe) % max_places];
        uint64_t found = place.key.load(std::memory_order_relaxed);
        if (found == 0 && place.key.compare_exchange_strong(found, key)) {
            name_place(place, record);
            return place;
        }
        if (found == key)
            return place.has_name.load(std::memory_order_acquire) ? place : spare_place;
    }
    return spare_place;
}

static void count(std::atomic<uint64_t> &counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
    has_counts.store(true, std::memory_order_relaxed);
}

void zel_limit_set(uint32_t lines_per_second)
{
    share = lines_per_second;
    for (uint32_t is_error = 0; is_error < 2; ++is_error)
        name_place(spare_places[is_error], {.kind = zel_kind::trace,
                                            .group = is_error ? 1u : 4u,
                                            .file = "other places",
                                            .line = 0,
                                            .number = 0,
                                            .receiver = 0,
                                            .text = "",
                                            .thread = ""});
}

zel_place *zel_limit_admit(const zel_record &record)
{
    if (share == 0)
        return &spare_places[0];
    zel_place &place = find_place(record);
    const uint32_t second = now_s();
    const auto line = static_cast<uint32_t>(
        hash(record.text, hash(record.thread, pack(record.number, record.receiver))) >> 32);
    const uint64_t latest = place.latest.load(std::memory_order_relaxed);
    if (static_cast<uint32_t>(latest) == line && second - second_of(latest) < repeat_seconds) {
        count(place.repeated);
        return nullptr;
    }
    if (!take_share(place.written, second, share / shares_per_place + 1) ||
        !take_share(record.group == 1 ? errors_written : others_written, second, share)) {
        count(place.left_out);
        return nullptr;
    }
    place.latest.store(pack(second, line), std::memory_order_relaxed);
    return &place;
}

/* While the flood of a place continues, its report is delayed. */
static bool is_due(const zel_place &place, uint32_t second)
{
    const bool has_repeats = place.repeated.load(std::memory_order_relaxed) > 0;
    const bool may_repeat =
        second - second_of(place.latest.load(std::memory_order_relaxed)) < repeat_seconds;
    const bool is_flooded = second_of(place.written.load(std::memory_order_relaxed)) == second;
    return !(has_repeats && may_repeat) && !is_flooded;
}

void zel_limit_sweep(bool all, void (*report)(zel_place &place))
{
    const uint32_t second = now_s();
    uint32_t last = last_sweep.load(std::memory_order_relaxed);
    if (!has_counts.load(std::memory_order_relaxed))
        return;
    if (!all && (last == second || !last_sweep.compare_exchange_strong(last, second)))
        return;
    has_counts.store(false, std::memory_order_relaxed);
    const auto visit = [&](zel_place &place) {
        if (!place.has_name.load(std::memory_order_acquire) ||
            place.repeated.load(std::memory_order_relaxed) +
                    place.left_out.load(std::memory_order_relaxed) ==
                0)
            return;
        if (all || is_due(place, second))
            report(place);
        else
            has_counts.store(true, std::memory_order_relaxed);
    };
    for (zel_place &place : places)
        visit(place);
    for (zel_place &place : spare_places)
        visit(place);
}
