/* SPDX-License-Identifier: Apache-2.0 */
/* entry::open() finds or makes the accounts of a user and of a process. An account is removed with
   its last entry. */
#include "platform/mbx/mbx_account.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sys/resource.h>
#include <unistd.h>
#include <unordered_map>

/* docs/security.md adds up what these limits allow. */
static constexpr size_t usual_connections = 2304;
static constexpr size_t usual_held_mib = 40;
/* Assumed if getrlimit() fails. */
static constexpr rlim_t usual_descriptors = 1024;

namespace
{

struct user_account : account {
    std::unordered_map<int64_t, account> processes; /* by peer_identity::key */
};
using user_accounts = std::unordered_map<uid_t, user_account>;

} // namespace

account total;
std::mutex accounts_lock;
/* Never destroyed: the helper may outlive main(). Guarded by accounts_lock. */
static user_accounts *users = new user_accounts;

size_t setting(const char *name, size_t usual)
{
    const char *set = secure_getenv(name);
    const long long number = set ? strtoll(set, nullptr, 10) : 0;
    return number > 0 && number <= INT32_MAX ? static_cast<size_t>(number) : usual;
}

size_t connections_at_most()
{
    static const size_t most = setting("MBX_CONNECTIONS", usual_connections);
    rlimit limit{usual_descriptors, usual_descriptors};
    getrlimit(RLIMIT_NOFILE, &limit);
    return std::min<size_t>(most, limit.rlim_cur / fds_per_connection);
}

const size_t held_at_most = setting("MBX_HELD_MIB", usual_held_mib) << 20;

/* In the journal the line has the level of a notice. */
void report_limits()
{
    if (!secure_getenv("MBX_CONNECTIONS") && !secure_getenv("MBX_HELD_MIB"))
        return;
    fprintf(stderr,
            "%slibmbx: at most %zu connections (MBX_CONNECTIONS, and a sixth of the descriptors) "
            "and %zu MiB for what is not received (MBX_HELD_MIB)\n",
            secure_getenv("JOURNAL_STREAM") ? "<5>" : "", connections_at_most(),
            held_at_most >> 20);
}

/* The number of connections that any user may have, as long as there are any left. Twice as many
   are reserved for users who have fewer. */
static size_t few_connections()
{
    return connections_at_most() / 18;
}

/* The number of connections that a user who has more than a few may still take. */
static size_t room_of(const account &user, bool is_trusted)
{
    const size_t most = connections_at_most() - 2 * few_connections();
    const size_t left = most - std::min(most, total.connections);
    if (is_trusted)
        return left - std::min(left, most / 5);
    return (left - std::min(left, user.connections)) / 2;
}

static bool has_place(const account &user, const account &process, const peer_identity &peer)
{
    if (user.connections < few_connections())
        return total.connections < connections_at_most();
    const size_t room = room_of(user, peer.user == 0 || peer.user == geteuid());
    return room > 0 && (peer.process <= 0 || process.connections < room);
}

static void forget_empty(const peer_identity &peer)
{
    const auto user = users->find(peer.user);
    if (user == users->end())
        return;
    const auto process = user->second.processes.find(peer.key());
    if (process != user->second.processes.end() && process->second.connections == 0)
        user->second.processes.erase(process);
    if (user->second.processes.empty())
        users->erase(user);
}

std::shared_ptr<entry> entry::open(const peer_identity &peer, bool located)
try {
    auto made = std::make_shared<entry>();
    std::lock_guard hold(accounts_lock);
    user_account &user = (*users)[peer.user];
    account &process = user.processes[peer.key()];
    /* `whole` is written once, because other entries of the account read it without the lock. */
    if (!user.whole)
        user.whole = &total;
    if (!process.whole)
        process.whole = &user;
    if (!located && !has_place(user, process, peer)) {
        forget_empty(peer);
        return nullptr;
    }
    for (account *one = &process; one; one = one->whole)
        one->connections++;
    made->peer_ = peer;
    made->process_ = &process;
    return made;
} catch (const std::bad_alloc &) {
    return nullptr;
}

entry::~entry()
{
    if (!process_)
        return;
    count(held_sent, 0);
    count(held_received, 0);
    std::lock_guard hold(accounts_lock);
    for (account *one = process_; one; one = one->whole)
        one->connections--;
    forget_empty(peer_);
}

void entry::count(held_kind kind, size_t bytes)
{
    const size_t before = bytes_[kind].load(std::memory_order_relaxed);
    if (bytes == before)
        return;
    bytes_[kind].store(bytes, std::memory_order_relaxed);
    for (account *one = process_; one; one = one->whole)
        one->bytes.fetch_add(bytes - before, std::memory_order_relaxed);
}

holding entry::weigh(bool is_late) const
{
    return {is_late, process_->whole->bytes, process_->bytes,
            bytes_[held_sent] + bytes_[held_received]};
}

/* The old tables stay for the entries that refer to them. */
void forget_accounts()
{
    users = new user_accounts;
    total.connections = 0;
    total.bytes = 0;
}
