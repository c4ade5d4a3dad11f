/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_share - how many connections one process, and one user, may have to this process. Any thread.

   A connection takes four descriptors of ours. A process gets at most a quarter of the descriptors,
   a user other than root and our own at most half. Processes outside our pid namespace can't be
   told apart: those of one user get at most half together. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <sys/types.h>
#include <utility>

constexpr size_t fds_per_connection = 4;

/* The process and the user at the other end of a connection, as the kernel noted them when it was
   made. `process` is 0 for one outside our pid namespace. */
struct peer_identity {
    pid_t process = -1;
    uid_t user = 0;

    /* For tables: processes that can't be distinguished count by user. */
    int64_t key() const
    {
        return process > 0 ? process : -1 - int64_t{user};
    }
};

/* One connection's place in the shares; the destructor releases it. */
class share
{
  public:
    share() = default;
    share(share &&other) noexcept
        : peer_(other.peer_), is_held_(std::exchange(other.is_held_, false))
    {
    }
    share &operator=(share &&other) noexcept
    {
        std::swap(peer_, other.peer_);
        std::swap(is_held_, other.is_held_);
        return *this;
    }
    ~share();
    /* Takes one. Check is_held(): false when the share is used up, or memory is out. */
    static share take(const peer_identity &peer);
    bool is_held() const
    {
        return is_held_;
    }

  private:
    peer_identity peer_;
    bool is_held_ = false;
};

/* Held around a fork. */
extern std::mutex shares_lock;
/* In the child, where the shares are nobody's. */
void forget_shares();
