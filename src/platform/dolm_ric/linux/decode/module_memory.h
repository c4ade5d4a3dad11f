/* SPDX-License-Identifier: Apache-2.0 */
/* module_memory - the parts of one module's memory that have been read, and those to read next.
   Pure data: the poller of the modules makes the readings and stores them here, the decoder looks
   at them. Not safe for use by several threads at once. */
#pragma once

#include "util/module_addresses.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace linux_board
{

/* `length` bytes (1 to 128) from `offset` on. Offsets below 128 are in the lower memory, where
   `page` and `bank` are 0; those of a page are 128 to 255. A range never crosses byte 128. */
struct memory_range {
    uint8_t address;
    uint8_t bank;
    uint8_t page;
    uint8_t offset;
    uint8_t length;

    bool operator==(const memory_range &) const = default;
};

/* When a range is to be read. Each range of the plan is read once after the insertion, in the
   order of the plan. */
enum class reading_time : uint8_t {
    once,        /* then never again, until another module is found */
    presence,    /* again each second: other bytes than before are another module */
    diagnostics, /* again as often as measured values are wanted, in one go with its neighbours */
    later,       /* once, but the module is ready before */
    slowly,      /* as `later`, and again each ten seconds, in a reading of its own */
};

/* An optional range that the module refuses (a NAK, a page that it lacks) is left out, the module
   stays in use, and the range is tried again later. Any other range that can't be read makes the
   module "not ready". A range may be read in pieces of an even length; a 16-bit value starts at an
   even offset and must not be split. */
struct reading_step {
    memory_range range;
    reading_time when;
    bool optional;
    uint8_t longest_piece = 32; /* no reading of the range may be longer */
};

class module_memory
{
  public:
    using time_point = std::chrono::steady_clock::time_point;

    /* Keeps the first `range.length` bytes in place of those that were kept for the same range.
       Where there are fewer, nothing is kept: the range counts as not read. */
    void store(const memory_range &range, std::span<const uint8_t> bytes, time_point read_at);

    /* The kept bytes of `range`: those stored for exactly this range, else those of the newest
       stored range that it lies within; empty where it has not been read. Valid until the next
       change. */
    std::span<const uint8_t> bytes(const memory_range &range) const;

    /* When the bytes that `bytes` gives were read. */
    std::optional<time_point> read_at(const memory_range &range) const;

    /* Drops what is kept of `range`, as after a reading that failed. */
    void drop(const memory_range &range);

    /* Forgets everything that was read, as for another module. */
    void clear();

    /* Wrong checksums of this port's modules are to be taken for right ones. */
    void trust_sums(bool trusted)
    {
        trusts_sums_ = trusted;
    }
    bool trusts_sums() const
    {
        return trusts_sums_;
    }

  private:
    struct reading {
        memory_range range;
        time_point read_at;
        std::vector<uint8_t> bytes;
    };
    const reading *find(const memory_range &range) const;

    std::vector<reading> readings_;
    bool trusts_sums_ = false;
};

/* The ranges to read of a module, in order, given what `memory` has of it so far. The plan of an
   empty memory has one step, whose bytes show the kind of module; the plan grows as the bytes that
   decide about further pages have been stored, and its earlier steps stay as they are. So: carry
   out the steps whose ranges have not been read, and ask again until nothing is new. Identity bytes
   that make no sense end the plan with themselves. */
std::vector<reading_step> reading_plan(const module_memory &memory);

/* False for a range that was read and can't be true, as with a wrong checksum: it is of no use, and
   worth another try. */
bool is_range_right(const module_memory &memory, const memory_range &range);

} // namespace linux_board
