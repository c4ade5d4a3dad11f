/* SPDX-License-Identifier: Apache-2.0 */
/* Our end is shut down for writing only, so that the hang-up which epoll reports is the peer's. One
   that has hung up without having read all is looked at again from time to time.

   A bell that we have closed stays in an epoll of ours for as long as anybody has it, and is always
   readable or writable, so that each wait there gives all bells that peers still have. */
#include "platform/mbx/mbx_parting.h"

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_socket.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

/* A client that ends closes all within this time. */
static constexpr auto time_to_end = std::chrono::milliseconds(20);
static constexpr auto time_to_look_soon = std::chrono::milliseconds(2);
static constexpr auto time_to_look = std::chrono::milliseconds(250);
static constexpr auto time_to_read = std::chrono::seconds(4); /* the ring */

namespace
{

struct parted {
    uint32_t number;
    owned_fd control;
    std::shared_ptr<mapped_area> area;
    std::shared_ptr<entry> place;
    peer_identity peer;
    bool is_watched = true;                 /* for the end of its file, if the place has a watch */
    time_point hung_up = time_point::max(); /* when the peer was seen to have done so */
};

} // namespace

std::mutex parting_lock;
/* Guarded by parting_lock. Objects with a destructor are never destroyed, as the helper may
   outlive main(). */
static std::vector<parted> &all = *new std::vector<parted>;
static uint32_t last_parted;
static time_point next_look;                 /* at those that have ended at the peer */
static owned_fd &left_bells = *new owned_fd; /* an epoll of the bells that peers may still have */
static owned_fd &ends = *new owned_fd;       /* an inotify: reports memory files that are gone */
static owned_fd &looked_up = *new owned_fd;  /* see watch_for_end */
static size_t watches;                       /* of files that are not known to be gone */
/* The watches of those that are gone, while there is an entry; has room for all. */
static std::vector<int> *gone = new std::vector<int>;
/* The bells that peers have, with the watches of their files, as of the last look; has room for
   all, as the helper may not run out of memory. */
static std::vector<epoll_event> *ringable = new std::vector<epoll_event>;
static size_t ringable_count;

/* The area first, whose pages go back with it; then the place is free. */
static void let_go(parted &&p)
{
    p.area.reset();
    if (p.place && p.place->watch != -1) {
        const std::lock_guard hold(parting_lock);
        if (std::erase(*gone, p.place->watch) == 0)
            inotify_rm_watch(ends.get(), p.place->watch);
        watches--;
    }
    hang_up(std::move(p.control), {}, p.peer, std::move(p.place));
}

/* With the lock held. Each that is there is reported once. */
static void look_at_bells()
{
    const int most = static_cast<int>(ringable->size());
    const int count = left_bells ? epoll_wait(left_bells.get(), ringable->data(), most, 0) : 0;
    ringable_count = static_cast<size_t>(std::max(count, 0));
}

static bool has_bell(const parted &p)
{
    const auto is_its = [&](const epoll_event &bell) {
        return static_cast<int>(bell.data.u64) == p.place->watch;
    };
    return p.place &&
           std::any_of(ringable->begin(),
                       ringable->begin() + static_cast<ptrdiff_t>(ringable_count), is_its);
}

/* Takes those out for which the question is answered with yes, and lets them go without the lock.
 */
template <typename question>
static void let_go_if(question &&is_it)
{
    std::vector<parted> over;
    {
        const std::lock_guard hold(parting_lock);
        look_at_bells();
        const auto first =
            std::partition(all.begin(), all.end(), [&](parted &p) { return !is_it(p); });
        over.assign(std::make_move_iterator(first), std::make_move_iterator(all.end()));
        all.erase(first, all.end());
    }
    for (parted &p : over) {
        helper_unwatch(p.control.get());
        let_go(std::move(p));
    }
}

static bool has_ended(const parted &p)
{
    return p.hung_up != time_point::max();
}

/* The kernel drops what we do not take in time: then those that wait do so no longer. */
static void take_ends()
{
    alignas(inotify_event) char events[4096];
    for (ssize_t size; (size = read(ends.get(), events, sizeof(events))) > 0;)
        for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(sizeof(inotify_event))) {
            inotify_event event; /* none has a name */
            std::memcpy(&event, events + at, sizeof(event));
            if (event.mask & IN_DELETE_SELF)
                gone->push_back(event.wd);
            else if (event.mask & IN_Q_OVERFLOW)
                for (parted &p : all)
                    p.is_watched = false;
        }
}

static bool is_gone(const parted &p)
{
    return !p.is_watched || !p.place || p.place->watch == -1 ||
           std::find(gone->begin(), gone->end(), p.place->watch) != gone->end();
}

/* Of one that has ended at the peer. Its pages go as soon as they may. */
static bool is_over(parted &p, time_point now)
{
    if (p.area && !p.area->is_read() && now - p.hung_up <= time_to_read)
        return false;
    p.area.reset();
    if (!is_gone(p))
        take_ends();
    return is_gone(p) && !has_bell(p) && !has_unread(p.control.get());
}

/* With the lock held. False when it can't be watched: the helper has ended, or memory is out. */
static bool keep(parted &p)
try {
    all.reserve(all.size() + 1);
    p.number = ++last_parted;
    if (!helper_watch(watch_parting, p.control.get(), EPOLLRDHUP, 0, p.number))
        return false;
    all.push_back(std::move(p));
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

void part(owned_fd control, std::shared_ptr<mapped_area> area, std::shared_ptr<entry> place,
          const peer_identity &peer)
{
    shutdown(control.get(), SHUT_WR);
    parted p{0, std::move(control), std::move(area), std::move(place), peer};
    {
        const std::lock_guard hold(parting_lock);
        if (keep(p))
            return;
    }
    if (p.area)
        p.area->leave_to_peer();
    let_go(std::move(p));
}

void give_back_parting()
{
    const std::lock_guard hold(parting_lock);
    for (parted &p : all)
        if (p.area)
            std::exchange(p.area, nullptr)->give_back_sent();
}

void handle_hang_up(uint32_t, uint32_t number)
{
    const time_point now = std::chrono::steady_clock::now();
    {
        const std::lock_guard hold(parting_lock);
        const auto p = std::find_if(all.begin(), all.end(),
                                    [&](const parted &one) { return one.number == number; });
        if (p == all.end())
            return;
        p->hung_up = now;
        next_look = std::min(next_look, now + time_to_look_soon);
        helper_unwatch(p->control.get());
    }
    let_go_if([&](parted &p) { return p.number == number && is_over(p, now); });
}

time_point look_again(time_point now)
{
    const bool is_time = next_look <= now;
    if (is_time)
        let_go_if([now](parted &p) { return has_ended(p) && is_over(p, now); });
    const std::lock_guard hold(parting_lock);
    time_point latest{}; /* of the ends at peers */
    for (const parted &p : all)
        if (has_ended(p))
            latest = std::max(latest, p.hung_up);
    if (latest == time_point{})
        return time_point::max();
    if (is_time)
        next_look = now + (now - latest < time_to_end ? time_to_look_soon : time_to_look);
    return next_look;
}

/* A file that is gone mostly ends the wait for it. */
void handle_ends(uint32_t, uint32_t)
{
    const time_point now = std::chrono::steady_clock::now();
    {
        const std::lock_guard hold(parting_lock);
        take_ends();
    }
    let_go_if([now](parted &p) { return has_ended(p) && is_gone(p) && is_over(p, now); });
}

void leave_bell(int bell, const std::shared_ptr<entry> &place)
{
    if (!place || place->watch == -1)
        return;
    const std::lock_guard hold(parting_lock);
    epoll_event event{EPOLLIN | EPOLLOUT, {.u64 = static_cast<uint64_t>(place->watch)}};
    if (left_bells)
        epoll_ctl(left_bells.get(), EPOLL_CTL_ADD, bell, &event);
}

/* With the lock held. */
static bool begin_to_watch()
{
    if (ends)
        return true;
    ringable->resize(2 * connections_at_most());
    left_bells = owned_fd(epoll_create1(EPOLL_CLOEXEC));
    ends = owned_fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    looked_up = owned_fd(ends ? fcntl(ends.get(), F_DUPFD_CLOEXEC, 0) : -1);
    if (looked_up && helper_watch(watch_ends, ends.get(), EPOLLIN, 0, 0))
        return true;
    ends.reset();
    return false;
}

/* The file is looked up by one number for all: of each number that is looked up in /proc the kernel
   keeps a kilobyte, which is charged to us. */
int watch_for_end(int memory)
{
    const std::lock_guard hold(parting_lock);
    gone->reserve(watches + 1);
    if (!begin_to_watch() || dup3(memory, looked_up.get(), O_CLOEXEC) == -1)
        return -1;
    char path[sizeof("/proc/self/fd/") + 3 * sizeof(int)];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", looked_up.get());
    const int watch = inotify_add_watch(ends.get(), path, IN_DELETE_SELF);
    dup3(ends.get(), looked_up.get(), O_CLOEXEC);
    watches += watch != -1 ? 1 : 0;
    return watch;
}

void end_parting(bool is_child)
{
    for (parted &p : all) {
        if (p.area && is_child)
            p.area->forget();
        else if (p.area)
            p.area->leave_to_peer();
    }
    all.clear();
    gone->clear();
    watches = 0;
    left_bells.reset();
    ringable_count = 0;
    looked_up.reset();
    ends.reset();
}
