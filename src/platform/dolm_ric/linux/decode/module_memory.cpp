/* SPDX-License-Identifier: Apache-2.0 */
/* A module has a dozen stored ranges at most, so a plain list is enough. */
#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <algorithm>

namespace linux_board
{

static bool contains(const memory_range &whole, const memory_range &part)
{
    return whole.address == part.address && whole.bank == part.bank && whole.page == part.page &&
           whole.offset <= part.offset && whole.offset + whole.length >= part.offset + part.length;
}

void module_memory::store(const memory_range &range, std::span<const uint8_t> bytes,
                          time_point read_at)
{
    drop(range);
    const auto wanted = bytes.first(std::min<size_t>(bytes.size(), range.length));
    if (wanted.size() == range.length)
        readings_.push_back({range, read_at, {wanted.begin(), wanted.end()}});
}

/* The latest reading is the last in the list. */
const module_memory::reading *module_memory::find(const memory_range &range) const
{
    const reading *found = nullptr;
    for (const reading &kept : readings_) {
        if (kept.range == range)
            return &kept;
        if (contains(kept.range, range))
            found = &kept;
    }
    return found;
}

std::span<const uint8_t> module_memory::bytes(const memory_range &range) const
{
    const reading *found = find(range);
    if (found == nullptr)
        return {};
    const auto start = static_cast<size_t>(range.offset - found->range.offset);
    return std::span<const uint8_t>(found->bytes).subspan(start, range.length);
}

std::optional<module_memory::time_point> module_memory::read_at(const memory_range &range) const
{
    const reading *found = find(range);
    return found != nullptr ? std::optional(found->read_at) : std::nullopt;
}

void module_memory::drop(const memory_range &range)
{
    std::erase_if(readings_, [&](const reading &kept) { return kept.range == range; });
}

void module_memory::clear()
{
    readings_.clear();
}

} // namespace linux_board
