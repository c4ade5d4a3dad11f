/* SPDX-License-Identifier: Apache-2.0 */
/* zel_output - writes lines to a descriptor without ever waiting for its reader. Any thread, and
   signal handlers but for zel_open_stream. */
#pragma once
#include <cstddef>

/* Where lines go, and how a write there is kept from blocking. */
struct zel_output {
    enum class method {
        direct, /* the descriptor doesn't block: a regular file, or opened so by us */
        socket, /* by a flag of each send */
        polled, /* only after poll() has promised room for a line */
    };
    int descriptor = -1;
    method how = method::direct;
    /* Of a pipe, FIFO or socket: the bytes of its buffer, of which the last quarter is for errors.
     */
    int capacity = 0;
};

/* For a descriptor that the process was started with. Its blocking mode is shared with other
   processes and stays as it is: pipes and terminals are opened anew where /proc and their mode
   permit that. */
zel_output zel_open_stream(int descriptor);

/* Opens a file, which is created if it doesn't exist, or a FIFO, whether or not it has a reader.
   Descriptor -1 with errno if that fails. */
zel_output zel_open_file(const char *path);

/* One write of at most PIPE_BUF bytes. False if they were not taken. May be called in a signal
   handler and raises no SIGPIPE; changes errno. */
bool zel_write(const zel_output &output, const char *bytes, size_t size, bool is_error);

/* Writes to a regular file don't block on a reader. */
bool zel_is_regular_file(const zel_output &output);
