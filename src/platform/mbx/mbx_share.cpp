/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/mbx/mbx_share.h"

#include <new>
#include <sys/resource.h>
#include <unistd.h>
#include <unordered_map>

namespace
{

struct counts {
    std::unordered_map<int64_t, size_t> processes; /* by peer_identity::key */
    std::unordered_map<uid_t, size_t> users;
};

} // namespace

std::mutex shares_lock;
/* Never destroyed: the helper may outlive main(). */
static counts &all = *new counts; /* guarded by shares_lock */

static size_t connections_at_most()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    return static_cast<size_t>(limit.rlim_cur) / fds_per_connection;
}

template <typename table, typename key>
static size_t count_of(const table &counts, const key &which)
{
    const auto found = counts.find(which);
    return found == counts.end() ? 0 : found->second;
}

template <typename table, typename key>
static void count_down(table &counts, const key &which)
{
    const auto found = counts.find(which);
    if (found != counts.end() && --found->second == 0)
        counts.erase(found);
}

share share::take(const peer_identity &peer)
try {
    share taken;
    const size_t most = connections_at_most();
    const size_t most_of_process = most / (peer.process > 0 ? 4 : 2);
    const bool is_trusted_user = peer.user == 0 || peer.user == geteuid();
    std::lock_guard hold(shares_lock);
    if (count_of(all.processes, peer.key()) >= most_of_process ||
        (!is_trusted_user && count_of(all.users, peer.user) >= most / 2))
        return taken;
    size_t &of_user = all.users[peer.user];
    all.processes[peer.key()]++;
    of_user++;
    taken.peer_ = peer;
    taken.is_held_ = true;
    return taken;
} catch (const std::bad_alloc &) {
    return {};
}

share::~share()
{
    if (!is_held_)
        return;
    std::lock_guard hold(shares_lock);
    count_down(all.processes, peer_.key());
    count_down(all.users, peer_.user);
}

void forget_shares()
{
    all.processes.clear();
    all.users.clear();
}
