/* SPDX-License-Identifier: Apache-2.0 */
/* Our end is shut down for writing only, so that the hang-up which epoll reports is the peer's. A
   connection whose peer has hung up without having read everything is looked at again from time to
   time.

   A bell that we have closed stays in an epoll of ours for as long as any process has it. A bell is
   always readable or writable, so each epoll_wait() there gives all bells that peers still have. */
#include "platform/mbx/mbx_parting.h"

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_helper.h"
#include "platform/mbx/mbx_socket.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

/* A client that ends mostly closes its descriptors within this time: until then the looks are
   frequent. */
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
    bool is_gone = false;                   /* the memory file is gone, or it isn't watched */
    time_point hung_up = time_point::max(); /* when the peer's hang-up was seen */
};

struct partings {
    std::vector<parted> all;
    uint32_t last_number = 0;
    time_point next_look{};            /* at connections that have ended at the peer */
    owned_fd bells;                    /* an epoll of the bells that peers may have */
    owned_fd ends;                     /* an inotify: reports memory files that are gone */
    owned_fd looked_up;                /* a descriptor's number: see watch_for_end() */
    size_t ringable_count = 0;         /* bells that peers have, as of the last look */
    std::vector<epoll_event> ringable; /* sized for all bells: a look needs no memory */
};

} // namespace

std::mutex parting_lock;
/* Guarded by parting_lock; next_look is written by the helper's thread alone, which reads it
   without the lock. Never destroyed, as that thread may still run while main() returns. */
static partings &the_parting = *new partings;

static int watch_of(const std::shared_ptr<entry> &place)
{
    return place ? place->watch : -1;
}

/* The area is destroyed before the entry, because the area's destructor releases pages that are
   counted in the entry. */
static void let_go(parted &&p)
{
    p.area.reset();
    if (watch_of(p.place) != -1) {
        const std::lock_guard hold(parting_lock);
        inotify_rm_watch(the_parting.ends.get(), p.place->watch); /* fails if the file is gone */
    }
    hang_up(std::move(p.control), {}, p.peer, std::move(p.place));
}

/* With parting_lock held. The epoll reports once each bell that a peer has; the event's data is the
   watch of the connection's memory file. */
static void look_at_bells(partings &its)
{
    const int most = static_cast<int>(its.ringable.size());
    const int count = its.bells ? epoll_wait(its.bells.get(), its.ringable.data(), most, 0) : 0;
    its.ringable_count = static_cast<size_t>(std::max(count, 0));
}

static bool has_bell(const parted &p)
{
    const epoll_event *bells = the_parting.ringable.data();
    const int watch = watch_of(p.place);
    return std::any_of(bells, bells + the_parting.ringable_count, [=](const epoll_event &bell) {
        return static_cast<int>(bell.data.u64) == watch;
    });
}

/* With parting_lock held. The kernel drops reports when too many are unread: then all files count
   as gone. */
static void take_ends(partings &its)
{
    alignas(inotify_event) char events[4096];
    for (ssize_t size; (size = read(its.ends.get(), events, sizeof(events))) > 0;)
        for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(sizeof(inotify_event))) {
            inotify_event event; /* none has a name */
            std::memcpy(&event, events + at, sizeof(event));
            const bool is_lost = event.mask & IN_Q_OVERFLOW;
            if (is_lost || (event.mask & IN_DELETE_SELF))
                for (parted &p : its.all)
                    p.is_gone |= is_lost || watch_of(p.place) == event.wd;
        }
}

static bool has_ended(const parted &p)
{
    return p.hung_up != time_point::max();
}

static bool is_over(const parted &p)
{
    return has_ended(p) && !p.area && p.is_gone && !has_bell(p) && !has_unread(p.control.get());
}

/* Removes the connections of which the peer keeps nothing, and releases them without the lock.
   Releases the pages of a connection earlier, when its peer can no longer be reading. */
static void look_at_ended(time_point now)
{
    std::vector<parted> over;
    {
        const std::lock_guard hold(parting_lock);
        partings &its = the_parting;
        for (parted &p : its.all)
            if (has_ended(p) && p.area && (p.area->is_read() || now - p.hung_up > time_to_read))
                p.area.reset();
        take_ends(its);
        look_at_bells(its);
        const auto first = std::partition(its.all.begin(), its.all.end(),
                                          [](const parted &p) { return !is_over(p); });
        over.assign(std::make_move_iterator(first), std::make_move_iterator(its.all.end()));
        its.all.erase(first, its.all.end());
    }
    for (parted &p : over)
        let_go(std::move(p));
}

/* With parting_lock held. Moves the connection into the list. False when the helper can't watch its
   control connection, or memory is out. */
static bool keep(partings &its, parted &p)
try {
    its.all.reserve(its.all.size() + 1);
    p.number = ++its.last_number;
    p.is_gone = watch_of(p.place) == -1;
    if (!helper_watch(watch_parting, p.control.get(), EPOLLRDHUP, 0, p.number))
        return false;
    its.all.push_back(std::move(p));
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

/* The connection joins the list before its area is released, because take_ends() notes the end of a
   memory file in the list only. */
void part(owned_fd control, std::shared_ptr<mapped_area> area, std::shared_ptr<entry> place,
          const peer_identity &peer, bool is_kept)
{
    shutdown(control.get(), SHUT_WR);
    parted p{0, std::move(control), std::move(area), std::move(place), peer};
    {
        const std::lock_guard hold(parting_lock);
        if (keep(the_parting, p)) {
            if (!is_kept)
                the_parting.all.back().area.reset();
            return;
        }
    }
    if (is_kept)
        p.area->leave_to_peer();
    let_go(std::move(p));
}

void give_back_parting()
{
    const std::lock_guard hold(parting_lock);
    for (parted &p : the_parting.all)
        if (p.area)
            std::exchange(p.area, nullptr)->give_back_sent();
}

void handle_hang_up(uint32_t, uint32_t number)
{
    const time_point now = std::chrono::steady_clock::now();
    {
        const std::lock_guard hold(parting_lock);
        partings &its = the_parting;
        const auto p = std::find_if(its.all.begin(), its.all.end(),
                                    [&](const parted &one) { return one.number == number; });
        if (p == its.all.end())
            return;
        p->hung_up = now;
        its.next_look = std::min(its.next_look, now + time_to_look_soon);
        helper_unwatch(p->control.get());
    }
    look_at_ended(now);
}

time_point look_again(time_point now)
{
    time_point &next_look = the_parting.next_look;
    const bool is_time = next_look <= now;
    if (is_time)
        look_at_ended(now);
    const std::lock_guard hold(parting_lock);
    time_point latest{}; /* the latest hang-up of a peer */
    for (const parted &p : the_parting.all)
        if (has_ended(p))
            latest = std::max(latest, p.hung_up);
    if (latest == time_point{})
        return time_point::max();
    if (is_time)
        next_look = now + (now - latest < time_to_end ? time_to_look_soon : time_to_look);
    return next_look;
}

/* The end of its memory file is mostly the last event that a connection waits for. */
void handle_ends(uint32_t, uint32_t)
{
    look_at_ended(std::chrono::steady_clock::now());
}

void leave_bell(int bell, const std::shared_ptr<entry> &place)
{
    if (watch_of(place) == -1)
        return;
    const std::lock_guard hold(parting_lock);
    epoll_event event{EPOLLIN | EPOLLOUT, {.u64 = static_cast<uint64_t>(place->watch)}};
    if (the_parting.bells)
        epoll_ctl(the_parting.bells.get(), EPOLL_CTL_ADD, bell, &event);
}

/* With parting_lock held. False where the system refuses it. */
static bool begin_to_watch(partings &its)
{
    if (its.ends)
        return true;
    its.ringable.resize(2 * connections_at_most());
    its.bells = owned_fd(epoll_create1(EPOLL_CLOEXEC));
    its.ends = owned_fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    its.looked_up = owned_fd(its.ends ? fcntl(its.ends.get(), F_DUPFD_CLOEXEC, 0) : -1);
    if (its.looked_up && helper_watch(watch_ends, its.ends.get(), EPOLLIN, 0, 0))
        return true;
    its.ends.reset();
    return false;
}

/* All files are looked up in /proc by the same descriptor number: for each number that is looked up
   there the kernel keeps a kilobyte, which it charges to us. */
int watch_for_end(int memory)
{
    const std::lock_guard hold(parting_lock);
    partings &its = the_parting;
    if (!begin_to_watch(its) || dup3(memory, its.looked_up.get(), O_CLOEXEC) == -1)
        return -1;
    const std::string path = "/proc/self/fd/" + std::to_string(its.looked_up.get());
    const int watch = inotify_add_watch(its.ends.get(), path.c_str(), IN_DELETE_SELF);
    dup3(its.ends.get(), its.looked_up.get(), O_CLOEXEC);
    return watch;
}

void end_parting(bool is_child)
{
    for (parted &p : the_parting.all)
        if (p.area)
            is_child ? p.area->forget() : p.area->leave_to_peer();
    the_parting = {};
}
