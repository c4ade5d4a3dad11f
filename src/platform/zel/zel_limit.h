/* SPDX-License-Identifier: Apache-2.0 */
/* zel_limit - bounds the lines that a flood of traces writes, and counts the lines that it leaves
   out. Shares are lines per second: one share for all traces of group 1, an equal one for all other
   groups, and a tenth of that for each place in the source. A line counts as repeated if it equals
   the latest line of its place and that was written in the last ten seconds.

   No locks; all functions may run on any thread and in signal handlers that interrupt each other.
   Each trace is counted exactly once: as admitted, repeated or left out. */
#pragma once
#include "platform/zel/zel_record.h"

#include <atomic>
#include <cstdint>

/* A place in the source, with the number of lines left out there since its last report. */
struct zel_place {
    std::atomic<uint64_t> key = 0;      /* a hash of file and line; 0 while the entry is free */
    std::atomic<bool> has_name = false; /* the next three members are valid */
    char file[40] = "";
    uint32_t line = 0;
    uint32_t group = 0;
    std::atomic<uint64_t> written = 0; /* the second, and the lines admitted in it */
    std::atomic<uint64_t> latest = 0;  /* the second, and a hash of the line admitted in it */
    std::atomic<uint64_t> repeated = 0;
    std::atomic<uint64_t> left_out = 0;
};

/* Sets the share in lines per second; 0, the initial value, means no limit. Call it before the
   first trace. */
void zel_limit_set(uint32_t lines_per_second);

/* The place of a record that may be written; before it, the caller reports what was left out there.
   Null if the record is left out. */
zel_place *zel_limit_admit(const zel_record &record);

/* Calls `report` for each place with lines to report: places whose flood is over, or all places.
   Runs at most once a second, but always if `all` is set. */
void zel_limit_sweep(bool all, void (*report)(zel_place &place));
