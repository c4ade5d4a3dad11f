/* SPDX-License-Identifier: Apache-2.0 */
/* zel_limit - bounds the lines that a flood of traces writes, and counts the lines that it leaves
   out. Shares are per second: one for all traces of group 1, an equal one for all others, and a
   tenth of it for each place in the source. A line that a place has written in the last ten seconds
   as its latest one counts as repeated.

   No locks; all functions may run on any thread and in signal handlers that interrupt each other.
   Each trace is counted exactly once: as admitted, repeated or left out. */
#pragma once
#include "platform/zel/zel_record.h"

#include <atomic>
#include <cstdint>

/* A place in the source, with what has been left out there since its last report. */
struct zel_place {
    std::atomic<uint64_t> key = 0;      /* a hash of file and line; 0 while the entry is free */
    std::atomic<bool> has_name = false; /* the next three are valid */
    char file[40] = "";
    uint32_t line = 0;
    uint32_t group = 0;
    std::atomic<uint64_t> written = 0; /* second, and lines admitted in it */
    std::atomic<uint64_t> latest = 0;  /* second, and hash of the line admitted then */
    std::atomic<uint64_t> repeated = 0;
    std::atomic<uint64_t> left_out = 0;
};

/* Sets the share in lines per second; 0, the initial state, admits everything. Before the first
   trace. */
void zel_limit_set(uint32_t lines_per_second);

/* The place of a record that may be written, after a report of what was left out there; null if the
   record is left out. */
zel_place *zel_limit_admit(const zel_record &record);

/* Calls `report` for each place with a count to be reported: those whose flood is over, or all. At
   most once a second, but always for all. */
void zel_limit_sweep(bool all, void (*report)(zel_place &place));
