/* SPDX-License-Identifier: Apache-2.0 */
/* A FIFO or pipe is also opened for reading: then the open needs no reader, and the end of a reader
   causes neither EPIPE nor SIGPIPE. Without a reader the buffer becomes full, and lines are counted
   as lost. */
#include "platform/zel/zel_output.h"

#include "util/descriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int open_flags = O_NONBLOCK | O_APPEND | O_CLOEXEC | O_NOCTTY;

static mode_t file_type(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

/* The size of the descriptor's buffer; 0 if it has none. */
static int capacity_of(int descriptor, mode_t type)
{
    int size = 0;
    socklen_t length = sizeof(size);
    if (type == S_IFSOCK)
        return getsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 ? size : 0;
    return type == S_IFIFO ? fcntl(descriptor, F_GETPIPE_SZ) : 0;
}

bool zel_is_regular_file(const zel_output &output)
{
    return file_type(output.descriptor) == S_IFREG;
}

zel_output zel_open_stream(int descriptor)
{
    const mode_t type = file_type(descriptor);
    zel_output output = {.descriptor = descriptor, .capacity = capacity_of(descriptor, type)};
    if (type == S_IFREG)
        return output;
    if (type == S_IFSOCK) {
        output.how = zel_output::method::socket;
        return output;
    }
    char path[32];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", descriptor);
    const int opened = open(path, open_flags | (type == S_IFIFO ? O_RDWR : O_WRONLY));
    if (opened >= 0)
        output.descriptor = opened;
    else
        output.how = zel_output::method::polled;
    return output;
}

/* If a FIFO may only be written, the descriptor of the first open is kept, provided that there is a
   reader. */
static int open_fifo(const char *path, util::descriptor opened_to_write)
{
    const int kept_errno = errno;
    const int opened = open(path, open_flags | O_RDWR);
    errno = kept_errno;
    return opened < 0 ? opened_to_write.release() : opened;
}

zel_output zel_open_file(const char *path)
{
    int opened = open(path, open_flags | O_WRONLY | O_CREAT, 0640);
    if (opened >= 0 ? file_type(opened) == S_IFIFO : errno == ENXIO)
        opened = open_fifo(path, util::descriptor(opened));
    if (opened < 0)
        return {}; /* errno is that of open */
    return {.descriptor = opened, .capacity = capacity_of(opened, file_type(opened))};
}

/* A pipe that is writable has room for PIPE_BUF bytes, unless another process uses it up first. */
static bool has_room_for_line(int descriptor)
{
    pollfd polled = {.fd = descriptor, .events = POLLOUT, .revents = 0};
    return poll(&polled, 1, 0) == 1 && polled.revents == POLLOUT;
}

/* Bytes in a pipe or unread by a socket's peer; a failed call counts as none. */
static int bytes_in_buffer(const zel_output &output)
{
    int size = 0;
    const unsigned long request = output.how == zel_output::method::socket ? SIOCOUTQ : FIONREAD;
    return ioctl(output.descriptor, request, &size) == 0 ? size : 0;
}

bool zel_write(const zel_output &output, const char *bytes, size_t size, bool is_error)
{
    if (!is_error && output.capacity > 0 && bytes_in_buffer(output) > output.capacity / 4 * 3)
        return false;
    ssize_t written = -1;
    if (output.how == zel_output::method::polled && !has_room_for_line(output.descriptor))
        return false;
    do {
        written = output.how == zel_output::method::socket
                      ? send(output.descriptor, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                      : write(output.descriptor, bytes, size);
    } while (written < 0 && errno == EINTR);
    return written > 0;
}
