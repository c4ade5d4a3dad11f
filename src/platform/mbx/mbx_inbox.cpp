/* SPDX-License-Identifier: Apache-2.0 */
/* Sources take turns: each source in the line gives one signal, and goes to the end of the line if
   it has more. When all sources in the line have had their turn, one look at the epoll finds the
   sources whose bell has rung since the last look, and puts them at the front of the line. So
   between a signal's arrival and its reception every other source is served at most once before the
   look; after it only those are served before that the same look has found.

   A look costs as much as a signal. It is skipped where no other source can have a signal: up to
   unlooked_at_most signals of an only source are taken between two looks, as 64 requests in flight
   would take 1.4 times as long otherwise. A caller that is going to wait needs no look, as the wait
   finds the sources.

   The bell of a source is rung only for a signal, and a source that rests is not read before its
   bell has rung (mbx_ring.h). So each source in the line has a signal. If it has none, its sender
   breaks the protocol. The bell may have woken the owner, so the owner receives an empty signal,
   whose number is 0, from that sender. */
#include "platform/mbx/mbx_inbox.h"

#include "platform/mbx/mbx_parting.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <sys/eventfd.h>
#include <unistd.h>

/* The id of local_event_ in the epoll. Connections have others. */
static constexpr uint32_t local_id = 0;

static constexpr int events_at_once = 64;
static constexpr uint32_t unlooked_at_most = 7; /* signals of an only source between two looks */
/* The limit of the unread bytes of senders that are gone. The owner has to handle each of these
   signals: with 56 MiB of short requests a server was busy for more than a minute after a crowd of
   its clients was killed. */
static constexpr size_t left_at_most = size_t{2} << 20;

static block *empty_signal(uint32_t sender)
{
    block *b = block_take_number(0);
    b->sender = sender;
    return b;
}

static bool matches(const block &b, const uint32_t *filter, uint32_t sender)
{
    if (sender != MBX_ANY_SENDER && b.sender != sender)
        return false;
    if (!filter || filter[0] == 0)
        return true;
    const uint32_t *end = filter + 1 + filter[0];
    return std::find(filter + 1, end, b.number()) != end;
}

bool inbox::add_event(int fd, uint32_t events, uint32_t id)
{
    epoll_event event{events, {.u32 = id}};
    return epoll_ctl(poll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

/* An eventfd can nearly always be written: while local_event_ is watched for that, the inbox's
   descriptor is readable. */
void inbox::raise(bool wanted)
{
    if (wanted == is_raised_)
        return;
    is_raised_ = wanted;
    epoll_event event{wanted ? EPOLLIN | EPOLLOUT : EPOLLIN, {.u32 = local_id}};
    epoll_ctl(poll_.get(), EPOLL_CTL_MOD, local_event_.get(), &event);
}

void inbox::show()
{
    raise(!line_.is_empty() || !set_aside_.is_empty());
}

/* The source has a signal now: its turn comes before the next look. */
void inbox::wake(source &s)
{
    if (s.is_in_line)
        return;
    s.is_in_line = true;
    line_.push_front(s);
    round_++;
    show();
}

void inbox::take_events(const epoll_event *events, int count)
{
    while (count-- > 0) {
        const epoll_event &event = events[count];
        const bool is_local = event.data.u32 == local_id && (event.events & EPOLLIN);
        source *s = is_local ? &local_source_ : find(event.data.u32);
        if (!s || s->is_in_line)
            continue;
        s->is_in_line = true;
        line_.push_front(*s);
    }
}

/* Moves all sources whose bell has rung into the line. The number of rounds is limited, so that
   senders which go on ringing can't prolong the look. */
void inbox::look()
{
    size_t left = sources_.size() / (events_at_once - 1) + 1;
    int count;
    do {
        epoll_event events[events_at_once];
        count = epoll_wait(poll_.get(), events, events_at_once, 0);
        take_events(events, count);
    } while (count == events_at_once && left-- > 0);
    unlooked_ = unlooked_at_most;
}

bool inbox::may_skip_look()
{
    const bool has_local = !local_.is_empty() || pushed_.load(std::memory_order_relaxed) != nullptr;
    if (line_.is_empty() || sources_.size() != 1 || has_local || unlooked_ == 0)
        return false;
    unlooked_--;
    return true;
}

source *inbox::find(uint32_t id)
{
    const auto found = sources_.find(id);
    return found != sources_.end() ? &found->second : nullptr;
}

void inbox::remove(source &s)
{
    epoll_ctl(poll_.get(), EPOLL_CTL_DEL, s.bell.get(), nullptr); /* fails for a fresh source */
    leave_bell(s.bell.get(), s.area->place());
    sources_.erase(s.id);
}

/* The count of the semaphore is taken before the block: each count that was taken has a block, but
   a block may not have its count yet, and is then found by the next look. pushed_ has the latest
   block first. */
block *inbox::take_local()
{
    eventfd_t one;
    if (eventfd_read(local_event_.get(), &one) != 0)
        return nullptr;
    if (local_.is_empty())
        for (block *b = pushed_.exchange(nullptr, std::memory_order_acquire); b;) {
            block *older = b->next;
            local_.push_front(*b);
            b = older;
        }
    return local_.pop_front();
}

/* An empty signal replaces an invalid record, or a notice, which only this library may make; then
   the rest of the ring is discarded. The touched pages are counted for the connection: if the
   sender has released a page, a read makes the kernel provide a new one, which it charges to this
   process. */
block *inbox::pop_signal(source &s, bool &asks)
{
    block *b = s.ring.pop(asks);
    if (!b || b->number() == MBX_MONITOR_DEFAULT_NO) {
        if (b)
            block_give(b);
        b = empty_signal(s.id);
        s.ring.drop();
    }
    b->sender = s.id;
    if (s.ring.touched() > 0) {
        s.area->count(held_received, s.ring.touched());
        owner_.want_trim(owner_.self);
    }
    return b;
}

block *inbox::take_living(source &s)
{
    bool asks = false;
    block *b = pop_signal(s, asks);
    if (s.ring.is_finished()) {
        owner_.end_connection(owner_.self, s.id); /* the source may be gone then */
        return b;
    }
    const bool is_empty = s.ring.is_empty();
    s.is_in_line = !is_empty || !s.ring.rest();
    if (s.is_in_line)
        line_.push_back(s);
    if ((is_empty || asks) && s.ring.must_report_room())
        owner_.report_room(owner_.self, s.id);
    return b;
}

block *inbox::take_ended(source &s)
{
    bool asks = false;
    const size_t before = s.ring.unread();
    block *b = before > 0 ? pop_signal(s, asks) : s.notices.pop_front();
    left_ -= before - s.ring.unread();
    if (!b)
        b = empty_signal(s.id);
    s.is_in_line = s.ring.unread() > 0 || !s.notices.is_empty();
    if (s.is_in_line)
        line_.push_back(s);
    else
        remove(s);
    return b;
}

block *inbox::take_from(source &s)
{
    if (&s == &local_source_)
        return take_local();
    return s.state == source_state::ended ? take_ended(s) : take_living(s);
}

/* Null when there is no signal. `waits`: the caller is going to wait, so an empty line gives null
   without a look. */
block *inbox::next(bool waits)
{
    for (;;) {
        if (round_ == 0 || line_.is_empty()) {
            if (waits && line_.is_empty())
                return nullptr;
            if (!may_skip_look())
                look();
            round_ = line_.size();
            if (round_ == 0)
                return nullptr;
        }
        round_--;
        source &s = *line_.pop_front();
        s.is_in_line = false;
        if (block *b = take_from(s))
            return b;
    }
}

/* Signals that don't match stay in the mailbox, in their order and before all later ones. */
block *inbox::take_matching(const uint32_t *filter, uint32_t sender, bool waits)
{
    const auto is_wanted = [=](const block &b) { return matches(b, filter, sender); };
    if (block *b = set_aside_.take_if(is_wanted))
        return b;
    for (;;) {
        block *b = next(waits);
        if (!b || is_wanted(*b))
            return b;
        set_aside_.push_back(*b);
    }
}

/* False when the inbox was closed during the wait. Signals that a filter has passed over keep the
   descriptor readable, and the wait would return at once: so they are left out during the wait. */
bool inbox::wait(std::unique_lock<std::mutex> &hold, int timeout_ms)
{
    epoll_event events[events_at_once];
    const int poll = poll_.get();
    const uint32_t opening = openings_;
    raise(!line_.is_empty());
    hold.unlock();
    const int count = epoll_wait(poll, events, events_at_once, timeout_ms);
    hold.lock();
    if (opening != openings_)
        return false;
    take_events(events, count);
    round_ = line_.size();
    unlooked_ = unlooked_at_most;
    return true;
}

bool inbox::open(const inbox_owner &owner)
{
    owner_ = owner;
    poll_ = owned_fd(epoll_create1(EPOLL_CLOEXEC));
    local_event_ = owned_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (poll_ && local_event_ && add_event(local_event_.get(), EPOLLIN, local_id))
        return true;
    const errno_keeper keeper;
    close();
    return false;
}

void inbox::close(bool is_child)
{
    openings_++;
    for (block *b = pushed_.exchange(nullptr); b;)
        block_give(std::exchange(b, b->next));
    give_all(local_);
    give_all(set_aside_);
    for (auto &[id, s] : sources_) {
        give_all(s.notices);
        if (is_child)
            s.area->forget();
        else
            leave_bell(s.bell.get(), s.area->place());
    }
    sources_.clear();
    line_ = {};
    departed_ = 0;
    left_ = 0;
    is_polled_ = false;
    local_source_.is_in_line = false;
    round_ = 0;
    is_raised_ = false;
    poll_.reset();
    local_event_.reset();
}

void inbox::push(block *b)
{
    b->next = pushed_.load(std::memory_order_relaxed);
    while (!pushed_.compare_exchange_weak(b->next, b, std::memory_order_release,
                                          std::memory_order_relaxed)) {
    }
    eventfd_write(local_event_.get(), 1);
}

source *inbox::add(uint32_t id, const std::shared_ptr<mapped_area> &area, int side, owned_fd bell)
try {
    source &s = sources_[id];
    s.id = id;
    s.area = area;
    s.bell = std::move(bell);
    s.ring = record_receiver(area->ring(side));
    return &s;
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return nullptr;
}

/* A bell can always be either read or written. So the epoll, once the bell has rung, reports it
   whatever the other side does to the count meanwhile. */
bool inbox::watch(source &s)
{
    if (!add_event(s.bell.get(), EPOLLIN | EPOLLOUT | EPOLLET, s.id))
        return false;
    s.state = source_state::watched;
    return true;
}

/* The epoll reports a bell as soon as it is added. This look() drops the report, because the source
   is marked as in the line. The sender doesn't ring before the ring rests. */
bool inbox::watch_quietly(source &s)
{
    if (!watch(s))
        return false;
    s.is_in_line = true;
    look();
    s.is_in_line = false;
    if (!s.ring.rest())
        wake(s);
    show();
    return true;
}

/* Above left_at_most a ring's unread signals are dropped if they take more than home_bytes. So the
   few last signals of every client are kept, however many clients are killed at once. */
void inbox::keep_unread(source &s)
{
    s.ring.finish();
    const size_t unread = s.ring.unread();
    if (unread > home_bytes && left_ + unread > left_at_most)
        s.ring.drop();
    left_ += s.ring.unread();
    if (s.ring.touched() > 0)
        s.ring.trim();
    s.area->count(held_received, s.ring.touched());
}

/* The bell of a source that ends without a signal may have been rung nevertheless. If the look
   finds this, the owner receives an empty signal. If the bell is rung between the look and its
   removal from the epoll, the owner may have been woken without a signal. So the next receive does
   not wait for other signals if the owner uses the descriptor; without a timeout it returns an
   empty signal (departed_). */
void inbox::end(source &s, block *notice)
{
    const bool was_watched = s.state == source_state::watched;
    s.state = source_state::ended;
    keep_unread(s);
    if (notice)
        s.notices.push_back(*notice);
    if (s.ring.unread() > 0 || notice) {
        wake(s);
        return;
    }
    if (was_watched) {
        look();
        show();
        departed_ = s.id;
    }
    if (!s.is_in_line)
        remove(s);
}

bool inbox::add_notice(uint32_t id, block *notice)
{
    source *s = find(id);
    if (!s)
        return false;
    s->notices.push_back(*notice);
    wake(*s);
    return true;
}

bool inbox::trim()
{
    bool is_left = false;
    for (auto &[id, s] : sources_) {
        if (s.ring.touched() == 0)
            continue;
        s.ring.trim();
        s.area->count(held_received, s.ring.touched());
        is_left |= s.ring.touched() > 0;
    }
    return is_left;
}

block *inbox::receive(std::unique_lock<std::mutex> &hold, const uint32_t *filter, int timeout_ms,
                      uint32_t sender)
{
    time_point deadline{};
    if (timeout_ms > 0)
        deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    const uint32_t departed = std::exchange(departed_, 0);
    const bool may_be_woken_in_vain = departed != 0 && is_polled_;
    for (;;) {
        block *b = take_matching(filter, sender, timeout_ms != 0 && !may_be_woken_in_vain);
        if (!b && may_be_woken_in_vain && timeout_ms < 0)
            b = empty_signal(departed);
        const int left = timeout_ms > 0 ? milliseconds_until(deadline) : timeout_ms;
        if (b || left == 0) {
            show();
            return b;
        }
        if (!wait(hold, left))
            return nullptr;
    }
}
