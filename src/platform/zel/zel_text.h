/* SPDX-License-Identifier: Apache-2.0 */
/* zel_text - traces as lines of text, to a stream or to a file that rolls over. */
#pragma once
#include "platform/zel/zel_record.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string_view>

/* A line that grows until it is full. What no longer fits is left off, and the line then ends in
   "...". No line is longer than what one write puts into a pipe as a whole. */
class text_line
{
  public:
    /* Adds printf-style text of the library's own; up to 127 bytes. */
    void format(const char *format, ...) __attribute__((format(printf, 2, 3)));

    /* Adds text of unknown origin. Control characters, backslashes and bytes that are no UTF-8 are
       escaped, so that the line stays one line and shows every byte. */
    void escape(const char *text);

    /* Ends the line and gives it to `descriptor` in one write. */
    void write_to(int descriptor);

    size_t size_with_end() const;

  private:
    void add(std::string_view piece);

    char bytes[PIPE_BUF];
    size_t length = 0;
    bool is_cut = false;
};

inline constexpr uint64_t smallest_file_cap = PIPE_BUF; /* 4096 */

/* Both give the sink, once in the life of the process; the second null with errno when the file
   can't be opened. `cap` is in bytes, at least smallest_file_cap. A line that would make the file
   larger goes to a new one, and the old one becomes PATH.1. */
const zel_sink *zel_text_to_stream(int descriptor);
const zel_sink *zel_text_to_file(const char *path, uint64_t cap);
