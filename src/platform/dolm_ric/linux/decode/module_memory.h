/* SPDX-License-Identifier: Apache-2.0 */
/* module_memory - the parts of one module's memory that have been read, and those to read next.
   Pure data: the poller of the modules reads ranges and stores their bytes here, the decoder
   interprets them. Not safe for use by several threads at once. */
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
    once,        /* once, and again only for another module */
    presence,    /* each second: other bytes than before mean another module */
    diagnostics, /* as often as measured values are wanted, in one task with its neighbours */
    later,       /* once; the module is ready before this range has been read */
    slowly,      /* like `later`, and again each ten seconds, in a reading of its own */
};

/* If the module refuses an optional range (a NAK, a missing page), the range is tried again later
   and the module stays in use. If any other range can't be read, the module is "not ready". A range
   may be read in pieces of an even length; a 16-bit value starts at an even offset and must not be
   split. */
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

    /* Keeps the first `range.length` bytes and drops what was kept for this range. If there are
       fewer bytes, nothing is kept: the range counts as not read. */
    void store(const memory_range &range, std::span<const uint8_t> bytes, time_point read_at);

    /* The kept bytes of `range`: those stored for exactly this range, else its part of the newest
       stored range that contains it; empty if it has not been read. Valid until the next change. */
    std::span<const uint8_t> bytes(const memory_range &range) const;

    /* When the bytes that `bytes` returns were read. */
    std::optional<time_point> read_at(const memory_range &range) const;

    /* Drops the kept bytes of `range`, as after a failed reading. */
    void drop(const memory_range &range);

    /* Forgets everything that was read; used when another module is found. */
    void clear();

    /* Whether wrong checksums of this port's modules are to be ignored. */
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
   decide about further pages have been stored, and its earlier steps stay as they are. So the
   caller carries out the steps whose ranges have not been read, and asks again until there is no
   new step. If the identity bytes are invalid, the plan has no further steps. */
std::vector<reading_step> reading_plan(const module_memory &memory);

/* Returns false for a range whose bytes are invalid, for example by a wrong checksum: it is not
   used and is to be read again. */
bool is_range_right(const module_memory &memory, const memory_range &range);

} // namespace linux_board
