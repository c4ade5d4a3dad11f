/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_account - limits what peers cost this process: connections, and the memory that the kernel
   charges to this process for them. Any thread.

   Each peer process has an account, which is part of its user's account, which is part of the
   total. Each connection has an entry in the account of its process. The entry of an accepted
   connection lasts for as long as any memory of the connection can be charged to us: until the peer
   has closed its end and has read all that we sent on it, and no process has a bell or the memory
   file any more (mapped, open, or open by O_PATH). The bytes of an entry are those of the backlog
   and of the rings' pages beyond the first one; the first page and the records of the connection
   are covered by the limit of connections.

   A connection cannot be taken back. So a user may hold at most half of the connections that other
   users leave, and a process at most half of those that other processes of its user leave. Root and
   our own user, who could end this process anyway, may take all but a fifth. Any user may have a
   few, an eighteenth of all, however they are distributed over processes, and twice as many are
   reserved for users who have fewer. Processes outside our pid namespace can't be told apart and
   share what their user has.

   Bytes can be released by ending connections. When too many are held, connections of late
   receivers end first (holding::is_late), and among equals those of the process that holds most, of
   the user that holds most, even if other connections hold more.

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

    /* The key of the process in tables. Processes that can't be told apart have one key for each
       user. */
    int64_t key() const
    {
        return process > 0 ? process : -1 - int64_t{user};
    }
};

/* A process, a user or the total. */
struct account {
    account *whole = nullptr; /* the account that this one is part of */
    size_t connections = 0;   /* guarded by accounts_lock */
    std::atomic<size_t> bytes{0};
};
extern account total;

/* The kinds of bytes of an entry. */
enum held_kind : size_t { held_sent, held_received, held_kinds };

/* What a connection holds. Of two connections the one with the greater holding is to end first. */
struct holding {
    bool is_late; /* its signals stay unread for longer than a reader needs */
    size_t of_user, of_process, own;
    auto operator<=>(const holding &) const = default; // NOLINT(modernize-use-nullptr)
};

/* One connection in the accounts; the destructor removes it. Each kind of bytes is set by one
   thread at a time. */
class entry
{
  public:
    /* Null when the peer may have no more connections, or memory is out. A connection to a mailbox
       that this process has located is not limited. */
    static std::shared_ptr<entry> open(const peer_identity &peer, bool located);

    entry() = default;
    entry(const entry &) = delete;
    entry &operator=(const entry &) = delete;
    ~entry();
    void count(held_kind kind, size_t bytes);
    holding weigh(bool is_late) const;

    /* Of an accepted connection: the inotify watch on its memory file (mbx_parting.h); -1 for none.
     */
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
/* From a quarter of the limit on, each send to a receiver first releases the pages of its ring that
   have been read, which otherwise waits for the helper's trim. */
inline bool is_much_held()
{
    return total.bytes.load(std::memory_order_relaxed) > held_at_most / 4;
}
/* The positive number that the environment variable `name` has. `usual` if it has none, or the
   program is set-uid. */
size_t setting(const char *name, size_t usual);
/* Prints a line on standard error if the environment sets a limit. */
void report_limits();

/* Held around a fork. */
extern std::mutex accounts_lock;
/* For a forked child, where the entries are the parent's: begins with empty accounts. */
void forget_accounts();
