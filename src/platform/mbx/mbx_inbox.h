/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_inbox - the signals that a mailbox receives, and the order of their senders. Guarded by the
   mailbox's lock, except for push().

   Signals come from sources: one for each connection, whose signals come out of a ring, and one for
   what is sent within the process. The descriptor is an epoll over the bells of the rings and a
   semaphore that counts the latter. It is readable exactly while receive() would return at once.

   A source that ends stays until its last signal, and the notices behind it, are taken. */
#pragma once

#include "platform/mbx/mbx_fd.h"
#include "platform/mbx/mbx_record.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <unordered_map>

/* The calls of an inbox to its mailbox, made with the lock held. */
struct inbox_owner {
    void *self;
    /* The sender with that id waits for room in its ring, and there is some. */
    void (*report_room)(void *self, uint32_t id);
    /* The sender has written an impossible record, or rung without a signal: its connection must
       end now. */
    void (*end_connection)(void *self, uint32_t id);
    /* Pages are in use that trim() can release. */
    void (*want_trim)(void *self);
};

enum class source_state {
    fresh,   /* its bell is not in the epoll yet */
    watched, /* the bell is in the epoll */
    ended    /* stays until its signals and notices are taken */
};

/* One sender. */
struct source {
    uint32_t id = 0; /* the sender of its signals */
    source_state state = source_state::fresh;
    bool is_in_line = false;
    source *next = nullptr; /* the source behind it in the line */
    record_receiver ring;
    fifo<block> notices; /* to be received after its last signal */
    std::shared_ptr<mapped_area> area;
    owned_fd bell;
};

class inbox
{
  public:
    /* False, with errno, on failure. */
    bool open(const inbox_owner &owner);
    /* Frees all blocks, forgets all sources and closes the descriptors. `is_child`: in a forked
       child, where the areas are not mapped. */
    void close(bool is_child = false);
    /* The descriptor at which the owner waits. */
    int fd()
    {
        is_polled_ = true;
        return poll_.get();
    }

    /* Adds a block and takes it over. Any thread, and signal handlers, while the inbox is open. */
    void push(block *b);

    bool has(uint32_t id) const
    {
        return sources_.contains(id);
    }
    /* Adds the source for a connection, whose signals come out of one ring of the area. The source
       stays at its address until end(). The epoll would report the bell of a fresh source as rung,
       and wake the owner. So the caller lets the ring rest, waits until the bell has rung, and then
       calls watch(); a ring that can't rest has a signal already, and watch() is called at once.
       Null, with errno, when memory is out. */
    source *add(uint32_t id, const std::shared_ptr<mapped_area> &area, int side, owned_fd bell);
    /* False, with errno, on failure. */
    bool watch(source &s);
    /* Adds the bell to the epoll and lets the ring rest. For the owner's own thread, which can't be
       waiting at the descriptor now. False, with errno, on failure. */
    bool watch_quietly(source &s);
    /* Has the same effect as a ring of the source's bell, for a sender that can't ring. */
    void wake(source &s);
    /* The sender is gone. The source stays until its unread signals and then `notice`, which may be
       null, are received. */
    void end(source &s, block *notice);
    /* Adds a notice to a source that has ended. False, and the notice stays the caller's, if the
       source is gone. */
    bool add_notice(uint32_t id, block *notice);
    /* Trims all rings (record_receiver::trim()). Returns whether touched pages are still in memory.
     */
    bool trim();

    /* As mbx_receive. `hold` holds the mailbox's lock, which is released for the wait. Returns
       null, too, when the inbox is closed during the wait. */
    block *receive(std::unique_lock<std::mutex> &hold, const uint32_t *filter, int timeout_ms,
                   uint32_t sender);

  private:
    bool add_event(int fd, uint32_t events, uint32_t id);
    void raise(bool wanted);
    void show();
    void take_events(const epoll_event *events, int count);
    void look();
    bool may_skip_look();
    source *find(uint32_t id);
    void remove(source &s);
    block *take_local();
    block *pop_signal(source &s, bool &asks);
    void keep_unread(source &s);
    block *take_living(source &s);
    block *take_ended(source &s);
    block *take_from(source &s);
    block *next(bool waits);
    block *take_matching(const uint32_t *filter, uint32_t sender, bool waits);
    bool wait(std::unique_lock<std::mutex> &hold, int timeout_ms);

    inbox_owner owner_{};
    owned_fd poll_;
    owned_fd local_event_;   /* a semaphore: one count for each block on pushed_ or in local_ */
    bool is_raised_ = false; /* local_event_ is watched for being writable, too */
    uint32_t openings_ = 0;

    std::atomic<block *> pushed_{nullptr}; /* the latest first */
    fifo<block> local_;                    /* moved from pushed_, the oldest first */
    source local_source_;
    std::unordered_map<uint32_t, source> sources_; /* by id */
    fifo<source> line_;     /* the sources that have a signal, in the order of their turns */
    size_t left_ = 0;       /* unread bytes of senders that are gone */
    size_t round_ = 0;      /* turns until the next look at the epoll */
    uint32_t unlooked_ = 0; /* signals of an only source until the next look */
    std::atomic<bool> is_polled_{false}; /* fd() was called: the owner may wait at the descriptor */
    /* Id of a removed source that may have woken the owner without a signal, or 0. */
    uint32_t departed_ = 0;
    fifo<block> set_aside_; /* signals that a filter has passed over */
};
