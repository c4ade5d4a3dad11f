/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_socket - descriptors that close themselves, datagram pairs, and the greeting of a control
   connection. No state. */
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <sys/types.h>
#include <utility>

class owned_fd
{
  public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd)
    {
    }
    owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~owned_fd()
    {
        reset();
    }
    void reset();
    int get() const
    {
        return fd_;
    }
    explicit operator bool() const
    {
        return fd_ >= 0;
    }

  private:
    int fd_ = -1;
};

using time_point = std::chrono::steady_clock::time_point;

/* Whole milliseconds until then, rounded up, 0 when it is past: what poll and epoll_wait take. */
int milliseconds_until(time_point deadline);

/* One direction of a connection: signals put into `tx` come out of `rx`. */
struct datagram_pair {
    owned_fd rx;
    owned_fd tx;
};

/* Both ends are empty, and errno tells why, when the pair can't be made. */
datagram_pair make_datagram_pair();

/* Which mailbox somebody claims to be. Random, and told to peers only. */
using mailbox_token = std::array<uint64_t, 2>;
mailbox_token make_token();

enum class greeting_kind : uint32_t {
    hello = 1, /* the one who connects; carries a sending end */
    welcome,   /* the answer; carries a sending end */
    known,     /* the answer when the two are connected already */
};

struct greeting {
    greeting_kind kind;
    mailbox_token token;
    owned_fd tx;
};

/* False, with errno, when it can't be sent at once. `tx` may be -1. */
bool send_greeting(int control, greeting_kind kind, const mailbox_token &token, int tx);

/* Empty with errno EAGAIN when nothing has come yet, with another errno when the other side is gone
   or did not greet properly: the connection is of no use then. */
std::optional<greeting> receive_greeting(int control);

/* The process at the other end, as the kernel noted it when the connection was made. */
pid_t peer_process(int control);
