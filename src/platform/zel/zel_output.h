/* SPDX-License-Identifier: Apache-2.0 */
/* zel_output - writes lines to a descriptor without ever waiting for its reader. Any thread, and
   signal handlers but for zel_open_stream. */
#pragma once
#include <cstddef>

/* A destination of lines, and the way in which a write is kept from blocking. */
struct zel_output {
    enum class method {
        direct, /* the descriptor doesn't block: a regular file, or opened without blocking by us */
        socket, /* each send has a flag against blocking */
        polled, /* a write follows only if poll() has reported room for a line */
    };
    int descriptor = -1;
    method how = method::direct;
    /* The buffer size of a pipe, FIFO or socket, in bytes; the last quarter is for errors. */
    int capacity = 0;
};

/* An inherited descriptor as an output. Its blocking mode is shared with other processes and isn't
   changed: pipes and terminals are opened again if /proc and their mode permit that. */
zel_output zel_open_stream(int descriptor);

/* Opens a file, which is created if it doesn't exist, or a FIFO, whether or not it has a reader.
   Descriptor -1 with errno if that fails. */
zel_output zel_open_file(const char *path);

/* Makes one write of at most PIPE_BUF bytes. False if the bytes were not taken. May be called in a
   signal handler and raises no SIGPIPE; changes errno. */
bool zel_write(const zel_output &output, const char *bytes, size_t size, bool is_error);

/* Whether it is a regular file, to which a write doesn't wait for a reader. */
bool zel_is_regular_file(const zel_output &output);
