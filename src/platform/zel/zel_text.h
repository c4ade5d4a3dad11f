/* SPDX-License-Identifier: Apache-2.0 */
/* zel_text - traces as lines of text, to a stream, a FIFO, or a file that rolls over. Any
   thread, and signal handlers but for the two openers. */
#pragma once
#include "platform/zel/zel_output.h"
#include "platform/zel/zel_record.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string_view>

/* A line that grows up to its full length; further text is dropped, and the line ends in "...". No
   line is longer than the PIPE_BUF bytes that a pipe takes as a whole. */
class text_line
{
  public:
    /* Adds printf-style text of this library; up to 127 bytes. */
    void format(const char *format, ...) __attribute__((format(printf, 2, 3)));

    /* Adds text of unknown origin. Control characters, backslashes and bytes that aren't UTF-8 are
       escaped, so that the line stays one line and shows every byte. */
    void escape(const char *text);

    /* Ends the line and writes it at once. False if it could not be written. */
    bool write_to(const zel_output &output, bool is_error);

    size_t size_with_end() const;

  private:
    void add(std::string_view piece);

    char bytes_[PIPE_BUF];
    size_t length_ = 0;
    bool is_cut_ = false;
};

inline constexpr uint64_t smallest_file_cap = PIPE_BUF; /* 4096 */
/* The default limit in lines per second, for outputs that have a reader; see zel_limit.h. */
inline constexpr uint32_t default_share = 1000;

/* The two functions below return the sink; call one of them once in the life of the process.
   `share`, if not null, replaces the default limit, which is default_share for outputs with a
   reader and none for regular files; 0 means no limit. */

/* Writes to standard error or output. In the journal each line has a priority and no time. */
const zel_sink *zel_text_to_stream(int descriptor, const uint32_t *share);

/* Null, with errno, if the file can't be opened. `cap` is in bytes, at least smallest_file_cap: a
   line that would exceed it goes to a new file, and the old file becomes PATH.1. */
const zel_sink *zel_text_to_file(const char *path, uint64_t cap, const uint32_t *share);
