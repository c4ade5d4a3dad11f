/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_account - what peers take of this process: connections, and the memory that the kernel
   charges to this process for them. Any thread.

   There is an account for each process, which is part of its user's, which is part of the total. A
   connection has an entry there for as long as any of its memory can be charged to us: until the
   peer has closed its end, has nothing of ours unread, and neither has the memory file open (O_PATH
   included), nor mapped, nor a bell. The bytes of an entry are those of the backlog and of the
   rings' pages beyond the first one; the first page and the records of the connection come with its
   number.

   Connections cannot be taken back, so nobody may hold more than half of what is left: of the total
   for a user, of what the user may still take for a process. Root and our own user, who could end
   this process anyway, leave a fifth to others. A user may always have a few, an eighteenth of all,
   in any processes, and twice as many are kept for users who have fewer.
   Processes outside our pid namespace can't be told apart and share what their user has.

   Bytes can be taken back. When there are too many, connections end: of the user that holds most
   the process that holds most, whatever a single connection holds.

   The environment sets both limits (mbx.h). A sixth of our descriptors limits the connections as
   well. */
#pragma once

#include "platform/mbx/mbx_fd.h"

#include <array>
#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sys/types.h>

/* Four descriptors for each connection, and some for everything else. */
constexpr size_t fds_per_connection = 6;

constexpr size_t held_for_one_at_most = size_t{8} << 20;

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

/* A process, a user or the total. */
struct account {
    account *whole = nullptr; /* the one that it is part of */
    size_t connections = 0;   /* guarded by accounts_lock */
    std::atomic<size_t> bytes{0};
};
extern account total;

/* The kinds of bytes of an entry. */
enum held_kind : size_t { held_sent, held_received, held_kinds };

/* Compares connections by what they hold: the greatest one is to end first. */
struct holding {
    bool is_late; /* what it holds has waited longer than a reader needs */
    size_t of_user, of_process, own;
    auto operator<=>(const holding &) const = default; // NOLINT(modernize-use-nullptr)
};

/* One connection in the accounts; the destructor takes it out. Each kind of bytes is set by one
   thread at a time. */
class entry
{
  public:
    /* Null when the peer may have no more connections, or memory is out. One that we have
       `located` is not limited. */
    static std::shared_ptr<entry> open(const peer_identity &peer, bool located);

    entry() = default;
    entry(const entry &) = delete;
    entry &operator=(const entry &) = delete;
    ~entry();
    void count(held_kind kind, size_t bytes);
    holding weigh(bool is_late) const;

    /* Of a connection that we have accepted: the watch for the end of its memory file
       (mbx_parting.h); -1 for none. */
    int watch = -1;

  private:
    account *process_ = nullptr;
    peer_identity peer_;
    std::array<std::atomic<size_t>, held_kinds> bytes_{};
};

size_t connections_at_most();
extern const size_t held_at_most; /* bytes */
inline bool is_too_much_held()
{
    return total.bytes.load(std::memory_order_relaxed) > held_at_most;
}
/* From here on pages that were read are released at once instead of after a while. */
inline bool is_much_held()
{
    return total.bytes.load(std::memory_order_relaxed) > held_at_most / 4;
}
/* The number in the environment, but not in a set-uid program's; else the usual one. */
size_t setting(const char *name, size_t usual);
/* One line on standard error, where the environment sets a limit. */
void report_limits();

/* Held around a fork. */
extern std::mutex accounts_lock;
/* In the child, where the entries are nobody's. */
void forget_accounts();
