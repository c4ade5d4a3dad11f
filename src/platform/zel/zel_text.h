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

/* A line that grows until it is full. It then ends in "...", and what follows is dropped. No line
   is longer than the PIPE_BUF bytes that a pipe takes as a whole. */
class text_line
{
  public:
    /* Adds printf-style text of the library's own; up to 127 bytes. */
    void format(const char *format, ...) __attribute__((format(printf, 2, 3)));

    /* Adds text of unknown origin. Control characters, backslashes and bytes that aren't UTF-8 are
       escaped, so that the line stays one line and shows every byte. */
    void escape(const char *text);

    /* Ends the line and writes it at once. False if it was not taken. */
    bool write_to(const zel_output &output, bool is_error);

    size_t size_with_end() const;

  private:
    void add(std::string_view piece);

    char bytes_[PIPE_BUF];
    size_t length_ = 0;
    bool is_cut_ = false;
};

inline constexpr uint64_t smallest_file_cap = PIPE_BUF; /* 4096 */
/* Lines per second to an output that has a reader; see zel_limit.h. */
inline constexpr uint32_t default_share = 1000;

/* Both return the sink, once in the life of the process. `share` replaces the default limit, which
   is default_share for outputs with a reader and none for regular files; 0 is no limit. */

/* Standard error or output. In the journal each line has its priority and no time. */
const zel_sink *zel_text_to_stream(int descriptor, const uint32_t *share);

/* Null with errno if the file can't be opened. `cap` is in bytes, at least smallest_file_cap: a
   line that would make the file larger goes to a new one, and the old one becomes PATH.1. */
const zel_sink *zel_text_to_file(const char *path, uint64_t cap, const uint32_t *share);
